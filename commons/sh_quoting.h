#pragma once

#include <string>

/// `text` as one word of a command line that a POSIX shell parses: special
/// characters get a backslash, a line feed stands in single quotes.
///
/// The whole text gets no quotes, so the empty string stays empty and would vanish from a command
/// line; callers never pass it.
std::string sh_quote(const std::string& text);

/// True for a word that some shells expand to several words, such as "{a,b}" or "{1..3}": sh_quote
/// leaves braces as they are, which is enough for POSIX shells only. True in doubtful cases.
bool hasBraceExpansion(const std::string& text);

/// Throws std::runtime_error unless every byte of `argument` may stand unquoted in
/// a command line.
void check_shell_arg(const std::string& argument);

/// The same test: 1 when acceptable, else 0. Null and "" are acceptable.
int check_shell_arg_nothrow(const char* argument) noexcept;
