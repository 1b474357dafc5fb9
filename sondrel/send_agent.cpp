#include "sondrel/send_agent.h"

#include <unistd.h>

#include <boost/filesystem/operations.hpp>
#include <cstdint>
#include <fstream>
#include <log4cpp/Category.hh>
#include <memory>
#include <optional>
#include <sstream>

#include "commons/RecursiveDirIterator.h"
#include "commons/commons.h"
#include "commons/files.h"
#include "commons/secrets.h"
#include "commons/session.h"
#include "commons/tar_archive.h"
#include "sondrel/host_policy.h"
#include "sondrel/result_file.h"

namespace fs = boost::filesystem;

namespace {

log4cpp::Category& sendAgentLog = log4cpp::Category::getInstance("k.SendAgentAction");

/// A larger file uses the whole connection by itself.
constexpr std::uintmax_t LARGEST_FILE_BYTES = std::uintmax_t{2} << 20;
/// The most that is kept in memory.
constexpr std::size_t BATCH_BYTES = std::size_t{6} << 20;
/// Far below every system's limit for a command line.
constexpr std::size_t COMMAND_BYTES = std::size_t{16} << 10;

bool isThere(const fs::path& path) {
  boost::system::error_code unusable;
  return fs::exists(path, unusable);
}

/// False also for a path that cannot be inspected, such as a link to itself.
bool isDirectory(const fs::path& path) {
  boost::system::error_code unusable;
  return fs::is_directory(path, unusable);
}

/// True for the part of the tree at `root` that is not copied.
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

/// The content of a file that is small enough for a batch; nothing for other files, and for those
/// that cannot be read.
std::optional<std::string> contentToBatch(const fs::path& local) {
  boost::system::error_code unusable;
  if (!fs::is_regular_file(local, unusable)) return std::nullopt;
  const std::uintmax_t size = fs::file_size(local, unusable);
  if (unusable || size > LARGEST_FILE_BYTES) return std::nullopt;
  std::ifstream file(local.string(), std::ios::binary);
  std::ostringstream content;
  // Copying nothing sets the stream's failure bit.
  if (!file || (size > 0 && !(content << file.rdbuf()))) return std::nullopt;
  return content.str();
}

}  // namespace

/// An archive that is being filled, in memory.
struct SendAgentAction::UploadBatch {
  std::stringstream archive;
  TarWriter writer{archive};
  std::vector<const Upload*> files;
  std::size_t bytes = 0;
};

void SendAgentAction::execute() {
  sendAgentLog.notice("Copying agent " + getConfig().agent_name + " to the remote host.");
  const fs::path agentsDir = files::agents::getDir();
  const fs::path sharedDir = agentsDir / AGENTS_SHARED_DIR;
  if (!isThere(sharedDir)) throw Exc<&NoSharedAgentsDirectory>(HERE);
  batching_ = isAskedFor("SONDREL_DEPLOY_BATCH");
  if (theProgressLine) countFiles(agentsDir);
  const auto display = showProgress([this] { return describe(); });
  sendTree(sharedDir);
  const fs::path agentDir = agentsDir / getConfig().agent_name;
  if (!isThere(agentDir)) throw Exc<&NoAgentDirectory>(HERE) % agentDir.string();
  sendTree(agentDir);
  makeNotedDirs();
  sendNotedFiles();
  sendAgentLog.notice(std::string("Getting agent deployment status"));
  requestAgentStatus();
}

void SendAgentAction::countFiles(const fs::path& agentsDir) {
  try {
    filesTotal_ = countFilesIn(agentsDir / AGENTS_SHARED_DIR) +
                  countFilesIn(agentsDir / getConfig().agent_name);
  } catch (const fs::filesystem_error& e) {
    // What prevents the walk also prevents sending, which reports it.
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
  if (batching_) return note(root, local, remote);
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

/// Notes the node until all nodes are known. The second of two files with the same remote path
/// replaces the first.
bool SendAgentAction::note(const fs::path& root, const fs::path& local, const fs::path& remote) {
  if (isDirectory(local)) {
    if (isLeftOut(root, local)) return false;
    notedDirs_.push_back(remote.string());
    return true;
  }
  const auto [place, isNew] = notedPlaces_.emplace(remote.string(), notedFiles_.size());
  if (isNew) notedFiles_.emplace_back();
  notedFiles_[place->second] = {local.string(), remote.string()};
  return true;
}

void SendAgentAction::makeNotedDirs() {
  for (std::size_t first = 0; first < notedDirs_.size();) {
    ArgsBuilder made = ArgsBuilder("mkdir") << "-p";
    ArgsBuilder given = ArgsBuilder("chown") << getConfig().login;
    std::size_t end = first;
    for (; end < notedDirs_.size() && made.str().size() < COMMAND_BYTES; ++end) {
      sendAgentLog.info("remote mkdir " + notedDirs_[end]);
      made << notedDirs_[end];
      given << notedDirs_[end];
    }
    runForDir(made, notedDirs_[first]);
    runForDir(given, notedDirs_[first]);
    first = end;
  }
}

void SendAgentAction::sendNotedFiles() {
  // Files with the same remote path were counted twice.
  if (batching_ && filesTotal_ > 0) filesTotal_ = static_cast<int>(notedFiles_.size());
  auto batch = std::make_unique<UploadBatch>();
  for (const Upload& file : notedFiles_) {
    const std::optional<std::string> content = contentToBatch(file.local);
    if (!content) {
      uploadFile(file.local, file.remote);
      continue;
    }
    if (batch->bytes + content->size() > BATCH_BYTES) {
      uploadBatch(*batch);
      batch = std::make_unique<UploadBatch>();
    }
    sendAgentLog.info("remote <copy " + file.remote + " (from " + file.local + ")");
    batch->writer.add(memberNameOf(file.remote), *content);
    batch->bytes += content->size();
    batch->files.push_back(&file);
  }
  uploadBatch(*batch);
}

/// The member's name: the path relative to the agent directory.
std::string SendAgentAction::memberNameOf(const std::string& remote) const {
  const std::string& dir = getConfig().agent_dir;
  return "." + std::string(dir.back() == '/' ? "/" : "") + remote.substr(dir.size());
}

void SendAgentAction::uploadBatch(UploadBatch& batch) {
  if (batch.files.empty()) return;
  file_ = batch.files.front()->remote;
  batch.writer.finish();
  std::string errorText;
  const int exitStatus = getSsh().putBatch(batch.archive, getConfig().agent_dir, errorText);
  if (exitStatus == 0) {
    filesSent_ += static_cast<int>(batch.files.size());
    return;
  }
  sendAgentLog.notice("Each file is sent by itself, since tar ended with exit status " +
                      std::to_string(exitStatus) + ": " + maskSecrets(errorText));
  // So that an error is reported for the file that caused it.
  for (const Upload* file : batch.files) uploadFile(file->local, file->remote);
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
  // The configuration and the spec file are trusted. Their values are unquoted in the script,
  // because they may use shell syntax here.
  const std::string script = "cd " + getConfig().agent_dir + " && " +
                             agent->effectiveInterpreter() + " " + entryPath + " --get-status";
  const ArgsBuilder line = ArgsBuilder("sh") << "-c" << script;
  CollectedText err;
  if (execRoot(line.str(), statusFile.stream(), err, false) != 0) {
    throw Exc<&CantRequestAgentStatus>(HERE) % entryPath % maskSecrets(err.str());
  }
  const ServiceAccount& owner = serviceAccount();
  // Best effort: if this process may not change the owner, its readers are the user of this
  // process, or root.
  [[maybe_unused]] const int ignored = chown(statusFile.path().c_str(), owner.user, owner.group);
  statusFile.finish();
}
