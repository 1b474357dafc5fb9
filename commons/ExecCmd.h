#pragma once

#include <new>
#include <string>

#include "commons/cmd_line.h"
#include "commons/exceptions.h"
#include "commons/forkexec.h"

/// One run of a local program: its arguments (appended with <<, the program's name
/// first), what it reads, and, after the run, what it wrote and its exit status.
class ExecCmd : public CmdLine {
 public:
  /// A run that ended with a status other than 0.
  static ErrorTag ExFailed;

  /// `program` is searched in PATH. The first of `args` is the name that the program gets as
  /// argv[0].
  explicit ExecCmd(std::string program, ArgList args = {})
      : CmdLine(std::move(args)), program_(std::move(program)) {}

  void setInput(const std::string& input) { input_ = input; }
  /// Adds or replaces an environment variable for the child.
  void setEnv(const std::string& name, const std::string& value) { environment_[name] = value; }
  /// The account to run as. Empty, the default, means the present user.
  void setRunAs(const std::string& account) { account_ = account; }

  /// Runs the program. Throws ExFailed for a non-zero status (-1: ended by a
  /// signal), SystemError when it could not be run at all.
  void exec();
  /// Runs the program and returns its status; an exception ends the process.
  int exec(std::nothrow_t) noexcept;

  const std::string& output() const { return output_; }
  const std::string& errorOutput() const { return errorOutput_; }
  bool executed() const { return executed_; }
  bool errorRecorded() const { return errorRecorded_; }
  /// errno as the run left it.
  int savedErrno() const { return savedErrno_; }
  int status() const { return status_; }

 protected:
  /// The run itself; returns the status.
  virtual int execCmdLine();

 private:
  [[noreturn]] void reportError() const;

  std::string program_;
  std::string input_;
  Environment environment_;
  std::string output_;
  std::string errorOutput_;
  bool executed_ = false;
  bool errorRecorded_ = false;
  int savedErrno_ = 0;
  int status_ = 0;
  std::string account_;
};

DESCRIBE_ERROR_TAG(ExecCmd::ExFailed, "Execution of %1% failed with return code %2%.\n%3%%4%%5%");

/// A summary of a run for a person: its return code and what it printed.
std::string getReport(const ExecCmd& cmd);
