#include "commons/ExecCmd.h"

#include <cerrno>

namespace {

/// The labelled text, ending in a line feed; nothing for an empty text.
std::string section(const char* label, const std::string& text) {
  if (text.empty()) return {};
  const char* lineEnd = text.back() == '\n' ? "" : "\n";
  return (boost::format("%1% is\n%2%%3%") % label % text % lineEnd).str();
}

std::string streamReport(const std::string& stream, const std::string& text) {
  if (text.empty()) return "\nNo output on " + stream + " were performed by the utility";
  return "\nThe output on " + stream + " was: \n" + text;
}

}  // namespace

void ExecCmd::exec() {
  if (execCmdLine() != 0) reportError();
}

int ExecCmd::exec(std::nothrow_t) noexcept {
  return execCmdLine();
}

int ExecCmd::execCmdLine() {
  executed_ = true;
  output_.clear();
  errorOutput_.clear();
  status_ = forkExecvGetInOutErrSuidEnv(input_, output_, errorOutput_, program_, args(), account_,
                                        environment_);
  savedErrno_ = errno;
  errorRecorded_ = true;
  return status_;
}

void ExecCmd::reportError() const {
  throw Exc<&ExecCmd::ExFailed>(HERE) % getString() % status_ % section("Stdin", input_) %
      section("Stdout", output_) % section("Stderr", errorOutput_);
}

std::string getReport(const ExecCmd& cmd) {
  return "The return code was " + std::to_string(cmd.status()) +
         streamReport("STDOUT", cmd.output()) + streamReport("STDERR", cmd.errorOutput());
}
