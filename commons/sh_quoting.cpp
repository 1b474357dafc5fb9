#include "commons/sh_quoting.h"

#include <algorithm>
#include <array>
#include <stdexcept>

namespace {

constexpr char PLAIN = '-';
constexpr char SPECIAL = '*';
constexpr char NEWLINE = 'n';

/// The class of each byte value. Values above the table are parts of UTF-8 characters and plain.
/// Also plain, on purpose, are the exclamation mark, braces, "=", "%", ",", "^", "@" and the
/// carriage return.
constexpr std::array<char, 140> makeShellEscapeChars() {
  std::array<char, 140> classes{};
  for (char& c : classes) c = PLAIN;
  constexpr char special[] = " \t\"#$&'()*;<>?[\\`|~";
  for (std::size_t i = 0; special[i] != '\0'; ++i) {
    classes[static_cast<unsigned char>(special[i])] = SPECIAL;
  }
  classes['\n'] = NEWLINE;
  return classes;
}

constexpr std::array<char, 140> shell_escape_chars = makeShellEscapeChars();

char classOf(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < shell_escape_chars.size() ? shell_escape_chars[byte] : PLAIN;
}

bool isPlain(char c) {
  return classOf(c) == PLAIN;
}

}  // namespace

std::string sh_quote(const std::string& text) {
  std::string quoted;
  for (const char c : text) {
    switch (classOf(c)) {
      case SPECIAL:
        quoted += '\\';
        quoted += c;
        break;
      case NEWLINE:
        // A backslash before a line feed would make the shell drop both.
        quoted += "'\n'";
        break;
      default: quoted += c;
    }
  }
  return quoted;
}

bool hasBraceExpansion(const std::string& text) {
  const std::string::size_type open = text.find('{');
  const std::string::size_type close = text.rfind('}');
  if (open == std::string::npos || close == std::string::npos || close < open) return false;
  const std::string inside = text.substr(open, close - open);
  return inside.find(',') != std::string::npos || inside.find("..") != std::string::npos;
}

void check_shell_arg(const std::string& argument) {
  if (!std::all_of(argument.begin(), argument.end(), isPlain)) {
    throw std::runtime_error("Internal error: bad escape_chars value");
  }
}

int check_shell_arg_nothrow(const char* argument) noexcept {
  if (!argument) return 1;
  for (; *argument != '\0'; ++argument) {
    if (!isPlain(*argument)) return 0;
  }
  return 1;
}
