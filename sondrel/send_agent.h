#pragma once

#include <boost/filesystem/path.hpp>

#include "sondrel/actions.h"

DECLARE_ERROR_TAG(NoSharedAgentsDirectory, "'shared' agents directory not found");
DECLARE_ERROR_TAG(NoAgentDirectory, "Directory for agent '%1%' does not exist");
DECLARE_ERROR_TAG(CantCreateAgentDirectory,
                  "Can't create agent directory %1% on the remote host: %2%");
DECLARE_ERROR_TAG(CantReadAgentDirectory, "Can't read agent directory %1%: %2%");
DECLARE_ERROR_TAG(CantUploadAgentFile, "Can't upload agent file %1% to the remote host: %2%");
DECLARE_ERROR_TAG(CantRequestAgentStatus,
                  "Cannot request remote agent status using command line %1%: %2%");

/// Copies the shared files and the agent's own, which win, into the remote agent
/// directory, and stores what the agent then says of itself. Nothing is rolled back
/// on failure.
class SendAgentAction : public Action {
 public:
  using Action::Action;
  /// Throws the tags above, AgentNotFound, FileWrite.
  void execute() override;

  /// Makes one node of a walked tree on the source host: folders as root, given to
  /// the login user, files as the login user. `root` is the top of the tree. False
  /// for the top's control directory, which stays here.
  bool sendFile(const boost::filesystem::path& root, const boost::filesystem::path& local,
                const boost::filesystem::path& remote);

 private:
  void countFiles(const boost::filesystem::path& agentsDir);
  std::string describe() const;
  void sendTree(const boost::filesystem::path& dir);
  void makeRemoteDir(const std::string& remote);
  void runForDir(const ArgsBuilder& line, const std::string& remote);
  void uploadFile(const std::string& local, const std::string& remote);
  void requestAgentStatus();

  int filesSent_ = 0;
  /// 0 while nobody wants to know, or where they cannot be counted.
  int filesTotal_ = 0;
  std::string file_;
};
