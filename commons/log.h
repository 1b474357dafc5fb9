#pragma once

#include <sys/types.h>

#include <boost/format.hpp>
#include <deque>
#include <log4cpp/CategoryStream.hh>
#include <string>

#include "commons/daemonize.h"
#include "commons/exceptions.h"
#include "commons/xml_wrap.h"

DECLARE_ERROR_TAG(NoParentNode, "No parent node on requested XML element");

/// The result log: whether the run's action succeeded, and each reported error,
/// grouped by the objects that were being processed.
class Log {
 public:
  virtual ~Log() = default;
  virtual void setSuccess(bool success) = 0;
  virtual void log(const ExTraceable& error) = 0;
  /// Errors that are logged before the matching popObject belong to this object.
  virtual void pushObject(const std::string& name, const std::string& type) = 0;
  /// Leaves the object. An object without errors does not appear in the log. Throws NoParentNode
  /// when none is open.
  virtual void popObject() = 0;
  /// The number of open elements, the root included.
  virtual std::size_t getDepth() const = 0;
};

/// The result log as an XML document with the root "execution-result". The
/// destructor writes the file; it reports a failure to do so to the debug log.
class XmlLog : public Log, public tXmlDtmDocument {
 public:
  /// `name` is a file in the session directory; an empty one means the session's
  /// default result file.
  explicit XmlLog(const std::string& name);
  ~XmlLog() override;
  XmlLog(const XmlLog&) = delete;
  XmlLog& operator=(const XmlLog&) = delete;

  void setSuccess(bool success) override { success_ = success; }
  void log(const ExTraceable& error) override;
  void pushObject(const std::string& name, const std::string& type) override;
  void popObject() override;
  std::size_t getDepth() const override { return hasErrors_.size(); }

 private:
  std::string path_;
  bool success_ = false;
  XmlNodeRef current_;
  /// For each open element, whether an error was recorded in it.
  std::deque<bool> hasErrors_;
};

/// Fills a "message" element from an exception and, nested, from its causes.
class XmlMsgFormatter : public ExInfoVisitor {
 public:
  XmlMsgFormatter(tXmlDtmDocument& document, XmlNodeRef element)
      : document_(document), element_(element) {}

  void setCode(const std::string& code) override;
  void setId(const std::string& id) override;
  void setMessage(const std::string& message) override;
  void setSeverity(int severity) override;
  void advanceToInnerException() override;
  // The position is for the debug log only.
  void setContext(const std::string&) override {}
  void setFile(const std::string&) override {}
  void setLine(int) override {}

 private:
  tXmlDtmDocument& document_;
  XmlNodeRef element_;
};

/// The debug log, for the messages that belong to no class with a log of its own.
class DebugLog {
 public:
  virtual ~DebugLog() = default;
  virtual void log(const std::string& text) = 0;
  virtual void log(const boost::format& text) = 0;
  virtual void log(const ExTraceable& error) = 0;
  virtual bool isVerboseMode() const = 0;
  virtual bool isDebugMode() const = 0;
};

/// Writes to the category "k.log" at priority INFO.
class Log4cppDebugLog : public DebugLog {
 public:
  Log4cppDebugLog(bool debug, bool verbose) : debug_(debug), verbose_(verbose) {}

  void log(const std::string& text) override;
  void log(const boost::format& text) override;
  void log(const ExTraceable& error) override;
  // The names do not match the members; callers rely on these results.
  bool isVerboseMode() const override { return debug_ && !verbose_; }
  bool isDebugMode() const override { return verbose_; }

 private:
  bool debug_;
  bool verbose_;
};

/// The logs of this run; each null outside the life of its controller.
extern Log* theLog;
extern DebugLog* theDebugLog;

/// Creates theLog. The destructor deletes it, which writes the result file.
class LogLifetimeController {
 public:
  explicit LogLifetimeController(const std::string& name);
  ~LogLifetimeController();
  LogLifetimeController(const LogLifetimeController&) = delete;
  LogLifetimeController& operator=(const LogLifetimeController&) = delete;
};

/// Configures logging and creates theDebugLog; the destructor deletes it.
class DebugLogLifetimeController {
 public:
  DebugLogLifetimeController(bool debug, bool verbose);
  ~DebugLogLifetimeController();
  DebugLogLifetimeController(const DebugLogLifetimeController&) = delete;
  DebugLogLifetimeController& operator=(const DebugLogLifetimeController&) = delete;
};

/// Configures log4cpp from the product's properties file, once per process; in that file
/// ${LOG_FILE_NAME} is the session's log. Without `verbose` the root category loses its appender
/// "A2". theSession must exist. A missing or broken file is reported to the system log, and the run
/// goes on without appenders.
void initializeLog4Cpp(bool verbose);

/// Writes the start record of a run to the debug log and, when destroyed, the end
/// record with the exit code. theDebugLog must outlive it.
class StartStopLogger {
 public:
  StartStopLogger(const std::string& name, int argc, const char* const* argv);
  ~StartStopLogger();
  StartStopLogger(const StartStopLogger&) = delete;
  StartStopLogger& operator=(const StartStopLogger&) = delete;

  void setExitCode(int code) { exitCode_ = code; }
  /// Must be called in the child after this process has detached itself as a daemon.
  void daemonized();

 private:
  std::string name_;
  pid_t pid_;
  int exitCode_ = -1;
  DaemonHandlers::iterator handler_;
};

/// Bytes that go into a log line as they are.
struct memchunk_log {
  const char* bytes;
  std::size_t size;
};

log4cpp::CategoryStream& operator<<(log4cpp::CategoryStream& stream, const memchunk_log& chunk);
