#include "commons/log.h"

#include <unistd.h>

#include <cstdlib>
#include <log4cpp/Category.hh>
#include <log4cpp/PropertyConfigurator.hh>
#include <optional>

#include "commons/cmd_line.h"
#include "commons/commons.h"
#include "commons/files.h"
#include "commons/session.h"
#include "commons/umask_guard.h"
#include "hostlib/messlog.h"

namespace {

log4cpp::Category& debugCategory = log4cpp::Category::getInstance("k.log");

constexpr const char* LOG_FILE_VARIABLE = "LOG_FILE_NAME";
/// The log may hold what remote commands printed: for the owner and the group only.
/// The library ignores a mode in the properties.
constexpr mode_t LOG_UMASK = 027;

/// Sets an environment variable and restores it.
class EnvironmentVariableGuard {
 public:
  EnvironmentVariableGuard(const char* name, const std::string& value) : name_(name) {
    if (const char* old = getenv(name)) old_ = old;
    setenv(name, value.c_str(), 1);
  }
  ~EnvironmentVariableGuard() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }
  EnvironmentVariableGuard(const EnvironmentVariableGuard&) = delete;
  EnvironmentVariableGuard& operator=(const EnvironmentVariableGuard&) = delete;

 private:
  const char* name_;
  std::optional<std::string> old_;
};

void configureLog4Cpp() {
  const std::string propertiesFile = files::getDtmLogConfigFileName();
  // log4cpp reads variables from the environment. Putting the path into the text of the file
  // instead would let a line feed in the path add properties.
  const EnvironmentVariableGuard variable(LOG_FILE_VARIABLE, theSession->getLogFileName());
  const UmaskGuard mask(LOG_UMASK);
  try {
    log4cpp::PropertyConfigurator::configure(propertiesFile);
  } catch (const std::exception& e) {
    messlog2("unable to configure the log from " + propertiesFile + ": " + e.what());
    // Some of the appenders may exist. A log with gaps misleads more than no log.
    log4cpp::Category::shutdown();
  }
}

}  // namespace

Log* theLog = nullptr;
DebugLog* theDebugLog = nullptr;

XmlLog::XmlLog(const std::string& name)
    : path_(name.empty() ? theSession->getResultFileName() : theSession->getDir() + "/" + name),
      hasErrors_{false} {
  initNewDoc("execution-result");
  current_ = root();
}

XmlLog::~XmlLog() {
  try {
    addAttribute(root(), "status", success_ ? "success" : "error");
    saveToFileAtomically(path_);
  } catch (const ExTraceable& e) {
    if (theDebugLog) theDebugLog->log(e);
  }
}

void XmlLog::log(const ExTraceable& error) {
  XmlMsgFormatter formatter(*this, newChild(current_, "message"));
  error.accept(formatter);
  hasErrors_.back() = true;
}

void XmlLog::pushObject(const std::string& name, const std::string& type) {
  current_ = newChild(current_, "object");
  addAttribute(current_, "name", name);
  addAttribute(current_, "type", type);
  hasErrors_.push_back(false);
}

void XmlLog::popObject() {
  const XmlNodeRef parent = current_.parentElement();
  if (!parent) throw Exc<&NoParentNode>(HERE);
  const bool hadErrors = hasErrors_.back();
  hasErrors_.pop_back();
  if (hadErrors) {
    hasErrors_.back() = true;
  } else {
    current_.remove();
  }
  current_ = parent;
}

void XmlMsgFormatter::setCode(const std::string& code) {
  document_.addAttribute(element_, "code", code);
}

void XmlMsgFormatter::setId(const std::string& id) {
  // The id ends with a zero byte (see newUUID), which XML cannot hold.
  document_.addAttribute(element_, "id", id.substr(0, id.find('\0')));
}

void XmlMsgFormatter::setMessage(const std::string& message) {
  document_.newTextChild(element_, "description", message);
}

void XmlMsgFormatter::setSeverity(int severity) {
  document_.addAttribute(element_, "severity", severity == SEVERITY_WARNING ? "warning" : "error");
}

void XmlMsgFormatter::advanceToInnerException() {
  element_ = document_.newChild(element_, "message");
}

void Log4cppDebugLog::log(const std::string& text) {
  if (debugCategory.isInfoEnabled()) debugCategory.info(text);
}

void Log4cppDebugLog::log(const boost::format& text) {
  log(text.str());
}

void Log4cppDebugLog::log(const ExTraceable& error) {
  log(formatPlainTextMessage(error));
}

LogLifetimeController::LogLifetimeController(const std::string& name) {
  theLog = new XmlLog(name);
}

LogLifetimeController::~LogLifetimeController() {
  delete theLog;
  theLog = nullptr;
}

DebugLogLifetimeController::DebugLogLifetimeController(bool debug, bool verbose) {
  initializeLog4Cpp(verbose);
  theDebugLog = new Log4cppDebugLog(debug, verbose);
}

DebugLogLifetimeController::~DebugLogLifetimeController() {
  delete theDebugLog;
  theDebugLog = nullptr;
}

void initializeLog4Cpp(bool verbose) {
  static bool configured = false;
  if (configured) return;
  configureLog4Cpp();
  if (!verbose) {
    log4cpp::Category& root = log4cpp::Category::getRoot();
    if (log4cpp::Appender* console = root.getAppender("A2")) root.removeAppender(console);
  }
  configured = true;
}

StartStopLogger::StartStopLogger(const std::string& name, int argc, const char* const* argv)
    : name_(name), pid_(getpid()) {
  const CmdLine commandLine(ArgList(argv, argv + argc));
  theDebugLog->log(name_ + " started : " + commandLine.getString());
  handler_ = childDaemonHandlers().insert(childDaemonHandlers().end(), [this] { daemonized(); });
}

StartStopLogger::~StartStopLogger() {
  childDaemonHandlers().erase(handler_);
  theDebugLog->log(name_ + " finished. " +
                   (exitCode_ == -1 ? " (exit code is not reported)"
                                    : "Exit code: " + std::to_string(exitCode_)));
}

void StartStopLogger::daemonized() {
  const pid_t newPid = getpid();
  theDebugLog->log(boost::format("%1% %2% -> (%3% daemon)") % name_ % pid_ % newPid);
  pid_ = newPid;
}

log4cpp::CategoryStream& operator<<(log4cpp::CategoryStream& stream, const memchunk_log& chunk) {
  if (stream.getPriority() == log4cpp::Priority::NOTSET) return stream;
  for (std::size_t i = 0; i < chunk.size; ++i) stream << chunk.bytes[i];
  return stream;
}
