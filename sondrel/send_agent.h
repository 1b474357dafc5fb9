#pragma once

#include <boost/filesystem/path.hpp>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "sondrel/action.h"

DECLARE_ERROR_TAG(NoSharedAgentsDirectory, "'shared' agents directory not found");
DECLARE_ERROR_TAG(NoAgentDirectory, "Directory for agent '%1%' does not exist");
DECLARE_ERROR_TAG(CantCreateAgentDirectory,
                  "Can't create agent directory %1% on the remote host: %2%");
DECLARE_ERROR_TAG(CantReadAgentDirectory, "Can't read agent directory %1%: %2%");
DECLARE_ERROR_TAG(CantUploadAgentFile, "Can't upload agent file %1% to the remote host: %2%");
DECLARE_ERROR_TAG(CantRequestAgentStatus,
                  "Cannot request remote agent status using command line %1%: %2%");

/// Copies the shared files and the agent's own to the remote agent directory, and stores the status
/// that the agent then reports. The agent's own file replaces a shared one of the same name. After
/// a failure the files that were copied stay. Where SONDREL_DEPLOY_BATCH asks for it, one command
/// makes the directories and the files travel in archives, with the same result.
class SendAgentAction : public Action {
 public:
  using Action::Action;
  /// Throws the tags above, AgentNotFound, FileWrite.
  void execute() override;

  /// Copies one node of a local tree to the source host: makes a directory as root and gives it to
  /// the login user, uploads a file as the login user. `root` is the top of the tree. False for the
  /// control directory of the top, which is not copied. With batches it only notes the node.
  bool sendFile(const boost::filesystem::path& root, const boost::filesystem::path& local,
                const boost::filesystem::path& remote);

 private:
  /// A file that waits to be sent, and its path on the source host.
  struct Upload {
    std::string local;
    std::string remote;
  };

  struct UploadBatch;

  void countFiles(const boost::filesystem::path& agentsDir);
  std::string describe() const;
  void sendTree(const boost::filesystem::path& dir);
  void makeRemoteDir(const std::string& remote);
  void runForDir(const ArgsBuilder& line, const std::string& remote);
  void uploadFile(const std::string& local, const std::string& remote);
  bool note(const boost::filesystem::path& root, const boost::filesystem::path& local,
            const boost::filesystem::path& remote);
  void makeNotedDirs();
  void sendNotedFiles();
  std::string memberNameOf(const std::string& remote) const;
  void uploadBatch(UploadBatch& batch);
  void requestAgentStatus();

  int filesSent_ = 0;
  /// 0 when there is no observer, or when the files cannot be counted.
  int filesTotal_ = 0;
  std::string file_;
  bool batching_ = false;
  std::vector<std::string> notedDirs_;
  std::vector<Upload> notedFiles_;
  /// The index in `notedFiles_` of each remote path.
  std::map<std::string, std::size_t> notedPlaces_;
};
