#pragma once

#include <string>
#include <vector>

/// The words of a command line, the program's name first.
using ArgList = std::vector<std::string>;

/// A command line under construction.
class CmdLine {
 public:
  CmdLine() = default;
  explicit CmdLine(ArgList args) : args_(std::move(args)) {}
  virtual ~CmdLine() = default;

  CmdLine& operator<<(const std::string& argument) {
    args_.push_back(argument);
    return *this;
  }

  const ArgList& args() const { return args_; }

  /// The command line as a person would type it: each word quoted for the shell,
  /// an empty word as two single quotes, one blank between words.
  std::string getString() const;

 private:
  ArgList args_;
};
