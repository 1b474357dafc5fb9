#include "sondrel/send_agent.h"

#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <log4cpp/Category.hh>

#include "commons/RecursiveDirIterator.h"
#include "commons/files.h"
#include "commons/secrets.h"
#include "commons/session.h"

namespace fs = boost::filesystem;

namespace {

log4cpp::Category& sendAgentLog = log4cpp::Category::getInstance("k.SendAgentAction");

bool isThere(const fs::path& path) {
  boost::system::error_code unusable;
  return fs::exists(path, unusable);
}

/// False, too, for what cannot be looked at, as a link that leads to itself.
bool isDirectory(const fs::path& path) {
  boost::system::error_code unusable;
  return fs::is_directory(path, unusable);
}

/// What stays here of the tree that begins at `root`.
bool isLeftOut(const fs::path& root, const fs::path& local) {
  return local.parent_path().string() == root.string() && local.filename() == AGENTS_CONTROL_DIR;
}

int countFilesIn(const fs::path& root) {
  int files = 0;
  recursive_dir_walk(root, [&](const fs::path& local, const fs::path& /*remote*/) {
    if (isDirectory(local)) return !isLeftOut(root, local);
    ++files;
    return true;
  });
  return files;
}

}  // namespace

void SendAgentAction::execute() {
  sendAgentLog.notice("Copying agent " + getConfig().agent_name + " to the remote host.");
  const fs::path agentsDir = files::agents::getDir();
  const fs::path sharedDir = agentsDir / AGENTS_SHARED_DIR;
  if (!isThere(sharedDir)) throw Exc<&NoSharedAgentsDirectory>(HERE);
  if (theProgressLine) countFiles(agentsDir);
  const auto display = showProgress([this] { return describe(); });
  sendTree(sharedDir);
  const fs::path agentDir = agentsDir / getConfig().agent_name;
  if (!isThere(agentDir)) throw Exc<&NoAgentDirectory>(HERE) % agentDir.string();
  sendTree(agentDir);
  sendAgentLog.notice(std::string("Getting agent deployment status"));
  requestAgentStatus();
}

void SendAgentAction::countFiles(const fs::path& agentsDir) {
  try {
    filesTotal_ = countFilesIn(agentsDir / AGENTS_SHARED_DIR) +
                  countFilesIn(agentsDir / getConfig().agent_name);
  } catch (const fs::filesystem_error& e) {
    // What keeps it from being walked keeps it from being sent, which tells it.
    sendAgentLog.debug(std::string("The agent's files cannot be counted: ") + e.what());
  }
}

std::string SendAgentAction::describe() const {
  if (file_.empty()) return "";
  std::string line = std::to_string(filesSent_);
  if (filesTotal_ > 0) line += " of " + std::to_string(filesTotal_);
  return line + " files sent, " + file_;
}

void SendAgentAction::sendTree(const fs::path& dir) {
  try {
    recursive_dir_walk_sync(dir, getConfig().agent_dir,
                            [this, &dir](const fs::path& local, const fs::path& remote) {
                              return sendFile(dir, local, remote);
                            });
  } catch (const fs::filesystem_error& e) {
    throw Exc<&CantReadAgentDirectory>(HERE) % e.path1().string() % e.code().message();
  }
}

bool SendAgentAction::sendFile(const fs::path& root, const fs::path& local,
                               const fs::path& remote) {
  if (!isDirectory(local)) {
    sendAgentLog.info("remote <copy " + remote.string() + " (from " + local.string() + ")");
    uploadFile(local.string(), remote.string());
    return true;
  }
  if (isLeftOut(root, local)) return false;
  sendAgentLog.info("remote mkdir " + remote.string());
  makeRemoteDir(remote.string());
  return true;
}

void SendAgentAction::makeRemoteDir(const std::string& remote) {
  runForDir(ArgsBuilder("mkdir") << "-p" << remote, remote);
  // The files in it are uploaded as the login user.
  runForDir(ArgsBuilder("chown") << getConfig().login << remote, remote);
}

void SendAgentAction::runForDir(const ArgsBuilder& line, const std::string& remote) {
  CollectedText out;
  CollectedText err;
  if (execRoot(line.str(), out, err, false) != 0) {
    throw Exc<&CantCreateAgentDirectory>(HERE) % remote % maskSecrets(err.str());
  }
}

void SendAgentAction::uploadFile(const std::string& local, const std::string& remote) {
  file_ = remote;
  std::string errorText;
  const int exitStatus = getSsh().put(local, remote, errorText);
  if (exitStatus == 0) {
    ++filesSent_;
    return;
  }
  throw Exc<&CantUploadAgentFile>(HERE) % remote %
      (errorText.empty() ? "exit status " + std::to_string(exitStatus) : maskSecrets(errorText));
}

void SendAgentAction::requestAgentStatus() {
  const boost::shared_ptr<const Agent> agent = getAgent();
  const std::string entryPath = remotePathOf(agent->entryPoint());
  ResultFile statusFile(theSession->getDeploymentStatusFileName());
  // Trusted, and unquoted inside the script: the configuration and the spec file may
  // rely on the shell here.
  const std::string script = "cd " + getConfig().agent_dir + " && " +
                             agent->effectiveInterpreter() + " " + entryPath + " --get-status";
  const ArgsBuilder line = ArgsBuilder("sh") << "-c" << script;
  CollectedText err;
  if (execRoot(line.str(), statusFile.stream(), err, false) != 0) {
    throw Exc<&CantRequestAgentStatus>(HERE) % entryPath % maskSecrets(err.str());
  }
  const ServiceAccount& owner = serviceAccount();
  // Its readers may be this process's own user; a failure is theirs to notice.
  [[maybe_unused]] const int ignored = chown(statusFile.path().c_str(), owner.user, owner.group);
  statusFile.finish();
}
