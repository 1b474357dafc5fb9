#pragma once

#include <optional>
#include <string>

/// The bytes as one line of base64, filled up by '='.
std::string toBase64(const std::string& bytes);

/// The bytes that a line of base64 stands for; nothing for what is no base64.
std::optional<std::string> fromBase64(const std::string& text);
