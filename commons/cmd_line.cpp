#include "commons/cmd_line.h"

#include "commons/sh_quoting.h"

std::string CmdLine::getString() const {
  std::string line;
  const char* separator = "";
  for (const std::string& argument : args_) {
    line += separator + (argument.empty() ? std::string("''") : sh_quote(argument));
    separator = " ";
  }
  return line;
}
