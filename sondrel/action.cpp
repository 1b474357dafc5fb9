#include "sondrel/action.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <sstream>
#include <utility>

#include "commons/ProgramTerminatedException.h"
#include "commons/files.h"
#include "commons/secrets.h"
#include "commons/session.h"
#include "commons/sh_quoting.h"
#include "sondrel/host_policy.h"
#include "sondrel/result_file.h"

namespace {

constexpr std::uint16_t DEFAULT_SSH_PORT = 22;
constexpr unsigned int REFRESH_INTERVAL_S = 5;

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

/// The destructor removes the file, unless the guard was told to keep it.
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

}  // namespace

std::string errorTextOf(const CollectedText& err) {
  return maskSecrets(err.str());
}

ArgsBuilder::ArgsBuilder(const std::string& firstWord) : line_(sh_quote(firstWord)) {}

ArgsBuilder& ArgsBuilder::operator<<(const std::string& word) {
  line_ += " " + sh_quote(word);
  return *this;
}

AlarmSignalGuard::AlarmSignalGuard() {
  sigset_t alarmSignal;
  sigemptyset(&alarmSignal);
  sigaddset(&alarmSignal, SIGALRM);
  sigprocmask(SIG_BLOCK, &alarmSignal, &oldMask_);
}

AlarmSignalGuard::~AlarmSignalGuard() {
  sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
}

StatusRefreshGuard::StatusRefreshGuard(Action* action) {
  pAction = action;
  handleAlarm();
  alarm(REFRESH_INTERVAL_S);
}

StatusRefreshGuard::~StatusRefreshGuard() {
  pAction = nullptr;
}

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
    ssh_ = std::make_unique<Ssh>(
        config_->host, config_->login, config_->password.reveal(), config_->no_encryption, port,
        configuredHostKeyRules(config_->host), identityOf(*config_), jumpHostOf(*config_));
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
  if (config_->sudo_password.isEmpty()) {
    return execUser(sudoCommand, in, out, err, quietOutput, quietInput);
  }
  std::stringstream withPassword;
  withPassword << config_->sudo_password.reveal() << '\n' << in.rdbuf();
  // Copying nothing sets the stream's failure bit.
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
    std::istringstream password(config_->sudo_password.reveal());
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
  return config_->remotePathOf(name);
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
  // The signal arrives only while the connection waits, so no other call is using it. Without a
  // connection the next alarm will do.
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
    // A failed refresh of the status must not end the dump.
    return;
  }
  alarm(REFRESH_INTERVAL_S);
  pAction = refreshed;
}

/// Downloads the dumping status and moves it over the local copy, so that readers never see a part
/// of it. False when the agent has none.
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
