#include "sondrel/actions.h"

#include <signal.h>
#include <unistd.h>
#include <ext/stdio_filebuf.h>

#include <atomic>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>
#include <log4cpp/Category.hh>
#include <map>
#include <optional>
#include <sstream>
#include <utility>

#include "commons/ExSystemError.h"
#include "commons/ProgramTerminatedException.h"
#include "commons/checksum.h"
#include "commons/files.h"
#include "commons/log.h"
#include "commons/secrets.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "hostlib/qrv_conf.h"

namespace {

log4cpp::Category& actionLog = log4cpp::Category::getInstance("k.Action");

constexpr std::uint16_t DEFAULT_SSH_PORT = 22;
constexpr unsigned int REFRESH_INTERVAL_S = 5;
constexpr mode_t CONTENT_DIR_MODE = 0755;
/// The status of a shell for a program that is there and cannot be run; the next one is that of
/// a program that is not there.
constexpr int NOT_EXECUTABLE_STATUS = 126;
constexpr int NOT_FOUND_STATUS = 127;

/// Removes the files whose names, each with a zero byte behind it, follow the first zero byte of
/// its input. A name that was cut on its way could be that of another file: it is left out. Ends
/// with SOME_NOT_REMOVED and tells then, behind a zero byte for each name, why it was not removed.
/// Without braces: quoting leaves them as they are, and the login's shell may expand them.
constexpr char REMOVE_FILES[] =
    R"($/ = "\0"; <STDIN>; )"
    R"(push @errors, unlink($_) ? "" : "$!" while defined($_ = <STDIN>) and chomp; )"
    R"(exit 0 unless grep length, @errors; )"
    R"(print map "\0$_", @errors; exit 3)";
constexpr int SOME_NOT_REMOVED = 3;

bool isNotThere(int exitStatus) {
  return exitStatus == NOT_EXECUTABLE_STATUS || exitStatus == NOT_FOUND_STATUS;
}

constexpr mode_t OUTPUT_UMASK = 022;
/// More than a million entries.
constexpr std::size_t CONTENT_LIST_LIMIT = std::size_t{256} << 20;

/// The action whose dumping status the alarm refreshes; none while no agent dumps and
/// during a refresh. Read by a signal handler.
std::atomic<Action*> pAction{nullptr};
static_assert(std::atomic<Action*>::is_always_lock_free, "read by a signal handler");

void handleAlarm() {
  struct sigaction action {};
  action.sa_handler = update_status;
  sigemptyset(&action.sa_mask);
  sigaction(SIGALRM, &action, nullptr);
}

/// Holds SIGALRM back, but for the waits that let it in: anywhere else it would make
/// the SSH library's calls fail.
class AlarmSignalGuard {
 public:
  AlarmSignalGuard() {
    sigset_t alarmSignal;
    sigemptyset(&alarmSignal);
    sigaddset(&alarmSignal, SIGALRM);
    sigprocmask(SIG_BLOCK, &alarmSignal, &oldMask_);
  }
  ~AlarmSignalGuard() { sigprocmask(SIG_SETMASK, &oldMask_, nullptr); }
  AlarmSignalGuard(const AlarmSignalGuard&) = delete;
  AlarmSignalGuard& operator=(const AlarmSignalGuard&) = delete;

 private:
  sigset_t oldMask_;
};

/// Has the dumping status of `action` refreshed every five seconds.
class StatusRefreshGuard {
 public:
  explicit StatusRefreshGuard(Action* action) {
    pAction = action;
    handleAlarm();
    alarm(REFRESH_INTERVAL_S);
  }
  /// The alarm is left as it is: when it goes off it finds no action.
  ~StatusRefreshGuard() { pAction = nullptr; }
  StatusRefreshGuard(const StatusRefreshGuard&) = delete;
  StatusRefreshGuard& operator=(const StatusRefreshGuard&) = delete;
};

/// Removes a file when it goes, unless told to keep it.
class RemoveFileGuard {
 public:
  explicit RemoveFileGuard(std::string path) : path_(std::move(path)) {}
  ~RemoveFileGuard() {
    if (!keep_) std::remove(path_.c_str());
  }
  RemoveFileGuard(const RemoveFileGuard&) = delete;
  RemoveFileGuard& operator=(const RemoveFileGuard&) = delete;
  void keep() { keep_ = true; }

 private:
  std::string path_;
  bool keep_ = false;
};

/// A value of the host's configuration, without the blanks at its end.
std::optional<std::string> configuredWord(const char* name) {
  const char* const configured = qrvConfGet(name);
  if (!configured) return std::nullopt;
  return boost::trim_right_copy(std::string(configured));
}

[[noreturn]] void refuseVerification(const std::string& reason) {
  throw Exc<&ContentVerifyUnknown>(HERE) % reason;
}

/// True when content files must be compared with the list as they arrive. It costs
/// processor time, and a list with wrong figures then fails: hence not by itself. Fails
/// closed: throws ContentVerifyUnknown when an operator's setting cannot be understood.
bool isVerificationConfigured() {
  if (qrvConfIsUnreadable()) refuseVerification("the host's configuration cannot be read");
  if (qrvConfIsMalformed("CONTENT_VERIFY")) {
    refuseVerification("a line of the host's configuration names CONTENT_VERIFY and sets nothing");
  }
  const std::string value = configuredWord("CONTENT_VERIFY").value_or("no");
  if (value != "yes" && value != "no") {
    refuseVerification(R"(CONTENT_VERIFY is neither "yes" nor "no" but ")" + value + '"');
  }
  return value == "yes";
}

/// True when small content files are to travel together. Only speed depends on it: what cannot be
/// understood, which the system log tells of, is a no.
bool areBatchesWanted() {
  return isAskedFor("SONDREL_CONTENT_BATCH") || configuredWord("CONTENT_BATCH") == "yes";
}

/// True when the caller wants to read in the migration status how far the transfer is by what
/// is listed. Other callers know the document without that.
bool areListedSizesWanted() {
  return isAskedFor("QRV_LISTED_SIZES");
}

[[noreturn]] void rejectHostKeys(const std::string& host, const std::string& reason) {
  throw Exc<&SshHostKeyRejected>(HERE) % host % reason;
}

/// Throws SshHostKeyRejected when a line of the host's configuration is meant to set the key
/// and does not.
void requireWellFormed(const std::string& host, const char* key) {
  if (!qrvConfIsMalformed(key)) return;
  rejectHostKeys(
      host, std::string("a line of the host's configuration names ") + key + " and sets nothing");
}

/// SSH_KNOWN_HOSTS_F, for the policy of that name. Throws SshHostKeyRejected.
std::string configuredKnownHosts(const std::string& host, const std::string& policy) {
  requireWellFormed(host, "SSH_KNOWN_HOSTS_F");
  std::string file = configuredWord("SSH_KNOWN_HOSTS_F").value_or("");
  if (file.empty()) {
    rejectHostKeys(
        host, "SSH_HOST_KEY_POLICY is \"" + policy + "\", and SSH_KNOWN_HOSTS_F names no file");
  }
  // Whoever else may write to the present folder would decide whom to trust.
  if (file.front() != '/') {
    rejectHostKeys(host, "SSH_KNOWN_HOSTS_F is \"" + file + "\", which is no absolute path");
  }
  return file;
}

/// What the host's configuration demands of the keys of source hosts. Fails closed: throws
/// SshHostKeyRejected for a setting that cannot be met or read.
HostKeyRules configuredHostKeyRules(const std::string& host) {
  static const std::map<std::string, HostKeyRules::Policy> policies = {
      {"ignore", HostKeyRules::IGNORE},
      {"accept-new", HostKeyRules::ACCEPT_NEW},
      {"strict", HostKeyRules::STRICT}};
  if (qrvConfIsUnreadable()) {
    rejectHostKeys(host, "the host's configuration, which may demand certain keys, cannot be read");
  }
  requireWellFormed(host, "SSH_HOST_KEY_POLICY");
  const std::string name = configuredWord("SSH_HOST_KEY_POLICY").value_or("ignore");
  const auto policy = policies.find(name);
  if (policy == policies.end()) {
    rejectHostKeys(host, "SSH_HOST_KEY_POLICY is \"" + name +
                             R"(", which is none of "ignore", "accept-new" and "strict")");
  }
  if (policy->second == HostKeyRules::IGNORE) return {};
  return {policy->second, configuredKnownHosts(host, name)};
}

/// The key of the run. Throws SshIdentityRejected for a setting that cannot be met: a run that
/// was to use a key does not go on without it.
LoginIdentity identityOf(const config& config) {
  const auto reject = [&](const std::string& reason) {
    throw Exc<&SshIdentityRejected>(HERE) % config.host % reason;
  };
  if (std::getenv("SONDREL_IDENTITY") == nullptr) {
    if (qrvConfIsMalformed("SSH_IDENTITY_F")) {
      reject("a line of the host's configuration names SSH_IDENTITY_F and sets nothing");
    }
    const std::string& named = config.identity;
    if (!named.empty() && named != LoginIdentity::AGENT && named.front() != '/') {
      reject("SSH_IDENTITY_F is \"" + named +
             "\", which is neither \"agent\" nor an absolute path");
    }
  }
  return {config.identity, config.key_password};
}

/// The figure began with what another host has listed, which may be any number.
void countDown(std::int64_t& left, int bytes) {
  constexpr std::int64_t LEAST = std::numeric_limits<std::int64_t>::min();
  left = left < LEAST + bytes ? LEAST : left - bytes;
}

/// What a remote command wrote to its error output, for an error's text.
std::string errorTextOf(const CollectedText& err) {
  return maskSecrets(err.str());
}

}  // namespace

bool isAskedFor(const char* variable) {
  const char* const value = std::getenv(variable);
  return value && std::strcmp(value, "yes") == 0;
}

ArgsBuilder::ArgsBuilder(const std::string& firstWord) : line_(sh_quote(firstWord)) {}

ArgsBuilder& ArgsBuilder::operator<<(const std::string& word) {
  line_ += " " + sh_quote(word);
  return *this;
}

ResultFile::ResultFile(const std::string& path) : ResultFile(path, UmaskGuard(OUTPUT_UMASK)) {}

ResultFile::ResultFile(const std::string& path, const UmaskGuard& /*mask*/) : OutputFile(path) {}

void ResultFile::finish() {
  // The result, which is on the disk itself, may say that this document is there.
  if (!syncAndClose()) throw Exc<&FileWrite>(HERE) % path() % errorText();
}

// --- Action ---

Action::Action(bool createStatus) {
  if (!createStatus) return;
  status_.reset(createMigrationStatusFile());
  status_->saveFile();
}

Ssh& Action::getSsh() {
  if (!ssh_) {
    const std::uint16_t port = config_->port == PORT_NOT_GIVEN
                                   ? DEFAULT_SSH_PORT
                                   : static_cast<std::uint16_t>(config_->port);
    ssh_ = std::make_unique<Ssh>(config_->host, config_->login, config_->password,
                                 config_->no_encryption, port,
                                 configuredHostKeyRules(config_->host), identityOf(*config_));
  }
  return *ssh_;
}

std::unique_ptr<ProgressDisplay> Action::showProgress(std::function<std::string()> describe) {
  if (!theProgressLine) return nullptr;
  return ProgressDisplay::on(*theProgressLine, getSsh(), std::move(describe));
}

int Action::execUser(const std::string& command, std::istream& in, std::ostream& out,
                     std::ostream& err, bool quietOutput, bool quietInput) {
  // The agent directory is trusted and stands unquoted.
  const std::string script = "cd " + config_->agent_dir + "; " + command;
  const ArgsBuilder line = ArgsBuilder("sh") << "-c" << script;
  return getSsh().exec(line.str(), in, out, err, quietOutput, quietInput, Ssh::null_counter);
}

int Action::execUser(const std::string& command, std::ostream& out, std::ostream& err,
                     bool quietOutput) {
  std::istringstream noInput;
  return execUser(command, noInput, out, err, quietOutput, false);
}

int Action::execRoot(const std::string& command, std::istream& in, std::ostream& out,
                     std::ostream& err, bool quietOutput, bool quietInput) {
  if (!config_->sudo) return execUser(command, in, out, err, quietOutput, quietInput);
  checkSudoPresence();
  const std::string sudoCommand = "sudo -k; sudo -S -p ' ' " + command;
  if (config_->sudo_password.empty()) {
    return execUser(sudoCommand, in, out, err, quietOutput, quietInput);
  }
  std::stringstream withPassword;
  withPassword << config_->sudo_password << '\n' << in.rdbuf();
  // Copying nothing counts as a failure.
  withPassword.clear();
  return execUser(sudoCommand, withPassword, out, err, quietOutput, quietInput);
}

int Action::execRoot(const std::string& command, std::ostream& out, std::ostream& err,
                     bool quietOutput) {
  std::istringstream noInput;
  return execRoot(command, noInput, out, err, quietOutput, false);
}

void Action::checkSudoPresence() {
  if (sudoChecked_) return;
  CollectedText out;
  CollectedText err;
  try {
    getSsh().exec("sudo -V", out, err, false, Ssh::null_counter);
  } catch (const Exc<&SshCommandNotFound>&) {
    throw Exc<&SudoNotFound>(HERE) % config_->host;
  }
  try {
    std::istringstream password(config_->sudo_password);
    getSsh().exec("sudo -k; sudo -S -p ' ' true", password, out, err, false, false,
                  Ssh::null_counter);
  } catch (const Exc<&SshUnknown>&) {
    throw Exc<&SudoNotAllowed>(HERE) % config_->login % config_->host;
  }
  sudoChecked_ = true;
}

void Action::takeFile(const std::string& path) {
  if (!config_->sudo) return;
  checkSudoPresence();
  const ArgsBuilder line = ArgsBuilder("chown") << config_->login << path;
  CollectedText out;
  CollectedText err;
  if (execRoot(line.str(), out, err, false) != 0) {
    throw Exc<&CantTakeFileOwnership>(HERE) % path % errorTextOf(err);
  }
}

std::string Action::remotePathOf(const std::string& name) const {
  return config_->agent_dir + "/" + name;
}

boost::shared_ptr<const Agent> Action::getAgent() const {
  return theAgentsFactory().getAgent(config_->agent_name);
}

ArgsBuilder Action::agentCommand() const {
  const boost::shared_ptr<const Agent> agent = getAgent();
  return ArgsBuilder(agent->effectiveInterpreter()) << remotePathOf(agent->entryPoint());
}

void Action::writeSessionFile(const std::string& name, const std::string& text) const {
  ResultFile file(config_->session_path + "/" + name);
  file.stream() << text;
  file.finish();
}

void update_status(int /*signalNumber*/) {
  Action* const action = pAction;
  if (!action) return;
  action->requestAlarm();
  handleAlarm();
  alarm(REFRESH_INTERVAL_S);
}

void Action::requestAlarm() {
  // The signal comes in only while the connection waits, so nothing else is at work
  // on it; before there is one, the next alarm will do.
  if (ssh_) ssh_->setAlarm(this);
}

void Action::doAlarm() {
  Action* const refreshed = pAction.exchange(nullptr);
  try {
    getSsh().setAlarm(nullptr);
    if (!refreshDumpingStatus()) return;
  } catch (const MigrationTerminatedException&) {
    throw;
  } catch (const std::exception&) {
    // The dump is worth more than its status.
    return;
  }
  alarm(REFRESH_INTERVAL_S);
  pAction = refreshed;
}

/// Downloads the dumping status and moves it over the local copy, so that readers
/// never see a part of it. False when the agent has none to offer.
bool Action::refreshDumpingStatus() {
  const std::string target = theSession->getDumpingStatusFileName();
  const std::string temporary = target + ".tmp";
  RemoveFileGuard removeTemporary(temporary);
  if (getSsh().get(temporary, remotePathOf(files::getRemoteDumpingStatusFileName())) != 0) {
    return false;
  }
  if (std::rename(temporary.c_str(), target.c_str()) != 0) return false;
  removeTemporary.keep();
  return true;
}

// --- SendScoutAction ---

void SendScoutAction::execute() {
  status()->setAgentParams(getConfig().host);
  status()->setAgentOperation(MigrationStatus::DEPLOY_AGENT);
  status()->saveFile();
  std::ifstream script(files::getScoutFileName(), std::ios::binary);
  // Without its argument this error ends the process: an installation without a
  // scout is broken.
  if (!script) throw Exc<&UnableToOpenScoutFile>(HERE);
  ResultFile result(theSession->getScoutResultFileName());
  CollectedText err;
  const int exitStatus = execRoot("perl", script, result.stream(), err, false, true);
  result.finish();
  if (exitStatus != 0) throw Exc<&FailedToExecuteScout>(HERE) % exitStatus % errorTextOf(err);
  status()->setAgentOperation(MigrationStatus::WAIT_FOR_AGENT);
  status()->saveFile();
}

// --- RetrieveDumpAction ---

RetrieveDumpAction::RetrieveDumpAction(bool createStatus, std::vector<std::string> agentArguments,
                                       std::string agentInput)
    : Action(createStatus),
      agentArguments_(std::move(agentArguments)),
      agentInput_(std::move(agentInput)) {}

void RetrieveDumpAction::execute() {
  status()->setAgentParams(getConfig().host);
  status()->setAgentOperation(MigrationStatus::WAIT_FOR_AGENT);
  status()->saveFile();
  try {
    const std::string command = agentCommandLine();
    const AlarmSignalGuard holdAlarmBack;
    runAgent(command);
    fetchDump();
    writeSessionFile("dump-name", theSession->getDumpFileName());
  } catch (const ExTraceable& e) {
    throw Exc<&CantRetrieveDump>(e, HERE);
  }
}

std::string RetrieveDumpAction::agentCommandLine() const {
  ArgsBuilder line = agentCommand();
  for (const std::string& argument : agentArguments_) line << argument;
  if (getConfig().no_content) line << "--no-content";
  return line.str();
}

void RetrieveDumpAction::runAgent(const std::string& command) {
  const DumpProgress progress(theSession->getDumpingStatusFileName());
  const auto display = showProgress([&] { return progress.describe(); });
  const StatusRefreshGuard refresh(this);
  CollectedText out;
  CollectedText err;
  std::istringstream input(agentInput_);
  const int exitStatus = agentInput_.empty() ? execRoot(command, out, err, false)
                                             : execRoot(command, input, out, err, false, false);
  if (exitStatus != 0) throw Exc<&CantRetrieveDumpFile>(HERE) % errorTextOf(err);
}

void RetrieveDumpAction::fetchDump() {
  const std::string remotePath = remotePathOf("dump.xml");
  takeFile(remotePath);
  ResultFile dump(theSession->getDumpFileName());
  CollectedText err;
  if (getSsh().get(dump, err, remotePath, Ssh::null_counter) != 0) {
    throw Exc<&CantRetrieveDumpFile>(HERE) % errorTextOf(err);
  }
  dump.finish();
}

// --- GetDumpingStatusAction ---

void GetDumpingStatusAction::execute() {
  try {
    printStatus();
  } catch (const Exc<&DumpStatusError>&) {
    throw;
  } catch (const ExTraceable& e) {
    throw Exc<&DumpStatusError>(e, HERE);
  }
}

void GetDumpingStatusAction::printStatus() {
  const std::string path = remotePathOf(files::getRemoteDumpingStatusFileName());
  takeFile(path);
  const int exitStatus = getSsh().get(std::cout, path);
  if (!std::cout.flush()) throw Exc<&StreamWrite>(HERE);
  // Smaller ones are those of cat: the agent may not have written the file yet.
  if (exitStatus >= libssh2pp::Channel::FIRST_SIGNAL_STATUS) {
    actionLog.error("Reading " + path + " ended with status " + std::to_string(exitStatus));
    throw Exc<&DumpStatusError>(HERE);
  }
}

// --- RemoveDumpingStatusAction ---

void RemoveDumpingStatusAction::execute() {
  // On this host, whatever the name says; and whether there was one does not matter.
  unlink(remotePathOf(files::getRemoteDumpingStatusFileName()).c_str());
}

// --- RetrieveContentAction ---

FileRetrievalProgressUpdater::FileRetrievalProgressUpdater(MigrationStatus& status,
                                                           std::int64_t totalBytes, int filesNumber,
                                                           ContentProgress* listed,
                                                           bool tellsListed)
    : status_(status),
      startTime_(std::time(nullptr)),
      bytesLeft_(totalBytes),
      filesLeft_(filesNumber),
      listed_(listed),
      tellsListed_(tellsListed) {
  status_.setTransferTotals(std::to_string(filesNumber), std::to_string(totalBytes));
}

void FileRetrievalProgressUpdater::startFile(const DumpFile& file) {
  if (listed_) listed_->startFile(file.name, file.size);
  tellListed();
  currentFileBytesLeft_ = file.size;
  status_.setCurrentFile(file.name, std::to_string(file.size));
  status_.saveFile();
}

void FileRetrievalProgressUpdater::operator()(int bytes) {
  if (listed_) listed_->receive(bytes);
  tellListed();
  countDown(bytesLeft_, bytes);
  countDown(currentFileBytesLeft_, bytes);
  bytesReceived_ += bytes;
  const std::time_t now = std::time(nullptr);
  const std::int64_t rate = now == startTime_ ? 0 : bytesReceived_ / (now - startTime_);
  status_.setTransferSpeed(std::to_string(rate));
  status_.setTransferSizeLeft(std::to_string(bytesLeft_));
  status_.setTransferCurrentFileSizeLeft(std::to_string(currentFileBytesLeft_));
  status_.saveFile();
}

void FileRetrievalProgressUpdater::finishFile() {
  if (listed_) listed_->finishFile();
  tellListed();
  --filesLeft_;
  status_.setTransferFilesLeft(std::to_string(filesLeft_));
  status_.saveFile();
}

void FileRetrievalProgressUpdater::tellListed() {
  if (!tellsListed_ || !listed_ || !listed_->bytesTotal()) return;
  status_.setListedSizes(std::to_string(*listed_->bytesTotal()),
                         std::to_string(*listed_->bytesLeft()));
}

void RetrieveContentAction::execute() {
  try {
    retrieveContent();
  } catch (const ExTraceable& e) {
    throw Exc<&CantRetrieveDump>(e, HERE);
  }
}

void RetrieveContentAction::retrieveContent() {
  verify_ = isVerificationConfigured();
  batching_ = areBatchesWanted();
  createContentDir();
  status()->setAgentParams(getConfig().host);
  status()->setTransferDump();
  status()->saveFile();
  const std::unique_ptr<const AgentFileList> list = requestContentList();
  refuseUnsafeNames(*list);
  const std::vector<DumpFile>& entries = list->getFileList();
  if (!getConfig().no_check_space) checkFreeSpace(*list);
  ContentProgress shown(entries);
  const auto display = showProgress([&] { return shown.describe(RateMeter::Clock::now()); });
  FileRetrievalProgressUpdater progress(*status(), list->getUnpackedSize(),
                                        static_cast<int>(entries.size()), &shown,
                                        areListedSizesWanted());
  for (const DumpFile& file : entries) retrieveEntry(file, progress);
  retrieveBatch(progress);
  if (filesUnlikeTheList_ > 0) {
    throw Exc<&ContentVerificationFailed>(HERE) % filesUnlikeTheList_;
  }
  writeSessionFile("dump-name", targetDir() + "/dump.xml");
  writeSessionFile("migration-result-name", targetDir() + "/migration.result");
}

void RetrieveContentAction::createContentDir() {
  const std::string dir = theSession->getCidFilesDir();
  const ServiceAccount& owner = serviceAccount();
  if (make_content_dir(dir, owner.user, owner.group, CONTENT_DIR_MODE) != 0) {
    throw Exc<&FileWrite>(HERE) % dir % std::strerror(errno);
  }
}

std::unique_ptr<AgentFileList> RetrieveContentAction::requestContentList() {
  ArgsBuilder line = agentCommand();
  line << "--get-content-list";
  CollectedText out(CONTENT_LIST_LIMIT, CollectedText::REFUSE);
  CollectedText err;
  if (execRoot(line.str(), out, err, false) != 0) {
    throw Exc<&CantRetrieveContentList>(HERE) % errorTextOf(err);
  }
  return std::unique_ptr<AgentFileList>(getFileList(out.str()));
}

/// The names come from another host and are used by root here.
void RetrieveContentAction::refuseUnsafeNames(const AgentFileList& list) {
  for (const DumpFile& file : list.getFileList()) {
    const std::string reason = whyUnsafeName(file.name);
    if (reason.empty()) continue;
    throw Exc<&CantRetrieveContentFile>(HERE) % remotePathOf(file.name) % getConfig().host %
        contentFolder().pathOf(file.name) % reason;
  }
}

void RetrieveContentAction::checkFreeSpace(const AgentFileList& list) {
  const auto freeBytes = static_cast<std::int64_t>(getFreeSpace(targetDir()));
  const std::int64_t neededBytes = list.getUnpackedSize();
  if (freeBytes < neededBytes) throw Exc<&NotEnoughSpace>(HERE) % freeBytes % neededBytes;
}

void RetrieveContentAction::retrieveEntry(const DumpFile& file,
                                          FileRetrievalProgressUpdater& progress) {
  // The second of two entries of one name finds what the first has brought.
  if (batch_.has(file.name)) retrieveBatch(progress);
  progress.startFile(file);
  if (!checkMD5(file)) {
    if (batching_ && ContentBatch::isFor(file)) {
      if (!batch_.hasRoomFor(file)) retrieveBatch(progress);
      batch_.add(file);
      return;
    }
    retrieveAlone(file, progress);
  }
  progress.finishFile();
}

void RetrieveContentAction::retrieveAlone(const DumpFile& file, Ssh::Counter& counter) {
  if (download(file, counter)) {
    removeRemoteFile(file);
  } else {
    ++filesUnlikeTheList_;
  }
}

/// True when the file is here and may go there; false when it is not what the list says.
bool RetrieveContentAction::download(const DumpFile& file, Ssh::Counter& counter) {
  const std::string remotePath = remotePathOf(file.name);
  const std::string localPath = contentFolder().pathOf(file.name);
  CollectedText err;
  std::optional<Md5Sum> sum;
  // Some login shells fetch, and would remove, other files than the one of that name.
  if (verify_ || hasBraceExpansion(file.name)) sum.emplace();
  std::optional<std::string> failure;
  try {
    failure = receive(file, err, counter, sum ? &*sum : nullptr);
  } catch (const ExTraceable& e) {
    throw Exc<&CantRetrieveContentFile>(e, HERE) % remotePath % getConfig().host % localPath %
        errorTextOf(err);
  }
  if (failure) throw cantRetrieve(file.name, *failure);
  if (!sum) return true;
  const std::int64_t receivedBytes = sum->size();
  return isAsListed(file, receivedBytes, sum->finish());
}

Exc<&CantRetrieveContentFile> RetrieveContentAction::cantRetrieve(const std::string& name,
                                                                  const std::string& reason) const {
  return Exc<&CantRetrieveContentFile>(HERE) % remotePathOf(name) % getConfig().host %
         contentFolder().pathOf(name) % reason;
}

/// Nothing once the file is complete and on the disk, for then its remote copy goes;
/// else what went wrong.
std::optional<std::string> RetrieveContentAction::receive(const DumpFile& file, CollectedText& err,
                                                          Ssh::Counter& counter, Md5Sum* sum) {
  const ServiceAccount& owner = serviceAccount();
  if (make_content_dir(targetDir(), owner.user, owner.group, CONTENT_DIR_MODE) != 0) {
    return std::strerror(errno);
  }
  try {
    OutputFile local = contentFolder().create(file.name);
    local.setSum(sum);
    if (fetch(file, local, err, counter) != 0) return errorTextOf(err);
    const FileIdentity written = local.identity();
    if (!local.syncAndClose()) return local.errorText();
    if (!contentFolder().isInPlace(file.name, written)) return "The file is no longer there";
  } catch (const SystemError& e) {
    return e.what();
  }
  return std::nullopt;
}

/// The exit status of the remote command. When the local file cannot be written, the reason
/// goes to `err` before the error is thrown.
int RetrieveContentAction::fetch(const DumpFile& file, OutputFile& local, CollectedText& err,
                                 Ssh::Counter& counter) {
  try {
    return getSsh().get(local, err, remotePathOf(file.name), counter);
  } catch (const Exc<&StreamWrite>&) {
    if (!local.stream()) err << local.errorText();
    throw;
  }
}

/// Records each difference in the result log.
bool RetrieveContentAction::isAsListed(const DumpFile& file, std::int64_t receivedBytes,
                                       const std::string& sum) {
  if (!file.sizeIsListed && file.md5.empty() && hasBraceExpansion(file.name)) {
    theLog->log(Exc<&CantCompareFile>(HERE) % file.name);
    return false;
  }
  const bool sameSize = !file.sizeIsListed || receivedBytes == file.size;
  if (!sameSize) {
    theLog->log(Exc<&WrongFileSize>(HERE) % file.name % receivedBytes % file.size);
  }
  const bool sameSum = file.md5.empty() || sum == file.md5;
  if (!sameSum) theLog->log(Exc<&WrongMd5Sum>(HERE) % file.name % sum % file.md5);
  return sameSize && sameSum;
}

void RetrieveContentAction::removeRemoteFile(const DumpFile& file) {
  const ArgsBuilder line = ArgsBuilder("rm") << remotePathOf(file.name);
  tryRemoval({&file}, [&] {
    CollectedText out;
    CollectedText err;
    if (execRoot(line.str(), out, err, false) != 0) logRemovalFailure(file, errorTextOf(err));
  });
}

/// The files are here: whatever goes wrong with a removal is recorded, and no more.
void RetrieveContentAction::tryRemoval(const std::vector<const DumpFile*>& files,
                                       const std::function<void()>& remove) {
  const auto logFailure = [&](const std::string& reason) {
    for (const DumpFile* file : files) logRemovalFailure(*file, reason);
  };
  try {
    remove();
  } catch (const MigrationTerminatedException&) {
    throw;
  } catch (const ExTraceable& e) {
    theLog->log(e);
  } catch (const std::exception& e) {
    logFailure(e.what());
  } catch (...) {
    logFailure("Unknown internal exception occured");
  }
}

void RetrieveContentAction::logRemovalFailure(const DumpFile& file,
                                              const std::string& reason) const {
  theLog->log(Exc<&UnableToRemoveRemoteFile>(HERE) % remotePathOf(file.name) % getConfig().host %
              reason);
}

// --- several files at once ---

void RetrieveContentAction::retrieveBatch(FileRetrievalProgressUpdater& progress) {
  const ContentBatch batch = std::exchange(batch_, ContentBatch());
  if (batch.isEmpty()) return;
  const ContentFolder folder = contentFolder();
  BatchReceiver receiver(batch, folder, progress);
  const BatchEnd end = receiveBatch(batch, receiver);
  if (end.isUnableTo()) {
    actionLog.notice("Each file is fetched by itself, since tar cannot be used there: " +
                     end.errorText);
    batching_ = false;
  } else {
    finishBatch(receiver, end);
  }
  retrieveEachAlone(receiver, progress);
}

/// Throws CantRetrieveContentFile, for the file that was coming, when the connection fails or this
/// host cannot go on.
BatchEnd RetrieveContentAction::receiveBatch(const ContentBatch& batch, BatchReceiver& receiver) {
  const ServiceAccount& owner = serviceAccount();
  if (make_content_dir(targetDir(), owner.user, owner.group, CONTENT_DIR_MODE) != 0) {
    throw cantRetrieve(batch.files().front()->name, std::strerror(errno));
  }
  CollectedText err;
  try {
    const auto output = getSsh().getBatch(getConfig().agent_dir, batch.names(), err);
    BatchEnd end = takeArchive(*output, receiver);
    end.errorText = errorTextOf(err);
    return end;
  } catch (const ExTraceable& e) {
    const std::string& name = receiver.current().file->name;
    throw Exc<&CantRetrieveContentFile>(e, HERE) % remotePathOf(name) % getConfig().host %
        contentFolder().pathOf(name) % errorTextOf(err);
  }
}

BatchEnd RetrieveContentAction::takeArchive(RemoteOutput& output, BatchReceiver& receiver) {
  BatchEnd end;
  bool hasEnded = false;
  TarReader archive([&] {
    const std::string_view bytes = output.next();
    (bytes.empty() ? hasEnded : end.isEmpty) = bytes.empty();
    return bytes;
  });
  try {
    receiver.receive(archive);
    hasEnded = true;
  } catch (const Exc<&ArchiveDamaged>& e) {
    end.damage = e.what();
  }
  // What is no archive may go on for ever.
  if (hasEnded) end.exitStatus = output.status();
  return end;
}

/// Removes there what is complete and on the disk here. Throws CantRetrieveContentFile when a file
/// has failed.
void RetrieveContentAction::finishBatch(BatchReceiver& receiver, const BatchEnd& end) {
  if (!receiver.sync()) {
    throw cantRetrieve(receiver.files().front().file->name, std::strerror(errno));
  }
  std::vector<const DumpFile*> removable;
  for (BatchedFile& file : receiver.files()) {
    // A tar that complains fills up what it cannot read, and does not tell in the archive.
    file.isStored = file.isStored && (end.isWhole() || file.isProven());
    if (!file.isStored) continue;
    if (!verify_ || isAsListed(*file.file, file.size, file.md5)) {
      removable.push_back(file.file);
    } else {
      ++filesUnlikeTheList_;
    }
  }
  receiver.explainMissing(end);
  removeRemoteFiles(removable);
  failForBatch(receiver);
}

/// The error that a file of its own would end with.
Exc<&CantRetrieveContentFile> RetrieveContentAction::cantStore(const BatchedFile& file) const {
  const std::string& name = file.file->name;
  return Exc<&CantRetrieveContentFile>(Exc<&StreamWrite>(HERE), HERE) % remotePathOf(name) %
         getConfig().host % contentFolder().pathOf(name) % file.failure;
}

/// Throws CantRetrieveContentFile for the first file that has failed; the result log has those
/// behind it.
void RetrieveContentAction::failForBatch(const BatchReceiver& receiver) const {
  std::vector<Exc<&CantRetrieveContentFile>> failures;
  for (const BatchedFile& file : receiver.files()) {
    if (file.failure.empty()) continue;
    failures.push_back(file.isUnwritable ? cantStore(file)
                                         : cantRetrieve(file.file->name, file.failure));
  }
  if (receiver.surplus()) {
    failures.push_back(
        cantRetrieve(*receiver.surplus(), "The archive has it, and nobody asked for it"));
  }
  for (std::size_t i = 1; i < failures.size(); ++i) theLog->log(failures[i]);
  if (!failures.empty()) throw Exc<&CantRetrieveContentFile>(failures.front());
}

/// Those that are not here, after a batch that no file was to blame for: each tells by itself what
/// is wrong with it.
void RetrieveContentAction::retrieveEachAlone(const BatchReceiver& receiver,
                                              FileRetrievalProgressUpdater& progress) {
  for (const BatchedFile& file : receiver.files()) {
    if (file.isStored) continue;
    if (file.isCounted) {
      retrieveAlone(*file.file, Ssh::null_counter);
      continue;
    }
    progress.startFile(*file.file);
    retrieveAlone(*file.file, progress);
    progress.finishFile();
  }
}

void RetrieveContentAction::removeRemoteFiles(const std::vector<const DumpFile*>& files) {
  if (files.empty()) return;
  // With a password that sudo does not want, it is in front of the first zero byte.
  std::string names(1, '\0');
  for (const DumpFile* file : files) names.append(remotePathOf(file->name)).push_back('\0');
  const ArgsBuilder line = ArgsBuilder("perl") << "-e" << REMOVE_FILES;
  int exitStatus = 0;
  tryRemoval(files, [&] {
    std::istringstream in(names);
    CollectedText out;
    CollectedText err;
    exitStatus = execRoot(line.str(), in, out, err, false, true);
    if (exitStatus != 0 && !isNotThere(exitStatus)) {
      logRemovals(files, exitStatus, out.str(), errorTextOf(err));
    }
  });
  if (!isNotThere(exitStatus)) return;
  for (const DumpFile* file : files) removeRemoteFile(*file);
}

/// Records which of the removals failed, by what the command has told.
void RetrieveContentAction::logRemovals(const std::vector<const DumpFile*>& files, int exitStatus,
                                        const std::string& told, const std::string& errorText) {
  std::vector<std::string> reasons;
  boost::split(reasons, told, [](char c) { return c == '\0'; });
  const bool isTold = exitStatus == SOME_NOT_REMOVED && reasons.size() > files.size();
  for (std::size_t i = 0; i < files.size(); ++i) {
    // A login shell may have said something in front.
    const std::string& reason = isTold ? reasons[reasons.size() - files.size() + i] : errorText;
    if (!isTold || !reason.empty()) logRemovalFailure(*files[i], maskSecrets(reason));
  }
}

std::string RetrieveContentAction::targetDir() const {
  return getConfig().dumps_dir.empty() ? theSession->getCidFilesDir() : getConfig().dumps_dir;
}

ContentFolder RetrieveContentAction::contentFolder() const {
  const ServiceAccount& owner = serviceAccount();
  return ContentFolder(targetDir(), owner.user, owner.group);
}

/// The MD5 sum of the local file; empty when it is not there.
std::string RetrieveContentAction::localSum(const DumpFile& file) {
  constexpr std::size_t BUFFER_BYTES = 65536;
  UniqueFd fd = contentFolder().openExisting(file.name);
  if (!fd) return {};
  __gnu_cxx::stdio_filebuf<char> buffer(fd.release(), std::ios::in | std::ios::binary,
                                        BUFFER_BYTES);
  std::istream stream(&buffer);
  // A large file takes minutes, in which the server must not take us for dead.
  return countMd5Sum(stream, [this] { getSsh().keepAlive(); });
}

bool RetrieveContentAction::checkMD5(const DumpFile& file) {
  return !file.md5.empty() && localSum(file) == file.md5;
}

void RetrieveContentAction::checkFile(const DumpFile& file) {
  if (file.md5.empty()) return;
  const std::string sum = localSum(file);
  // This record has the two sums the other way round, and its readers know it so.
  if (sum != file.md5) theLog->log(Exc<&WrongMd5Sum>(HERE) % file.name % file.md5 % sum);
}

// --- RemoveAgentAction ---

void RemoveAgentAction::execute() {
  const ArgsBuilder line = ArgsBuilder("rm") << "-rf" << getConfig().agent_dir;
  CollectedText out;
  CollectedText err;
  try {
    execRoot(line.str(), out, err, false);
  } catch (const ExTraceable&) {
    // Clean-up never fails a migration.
  }
}
