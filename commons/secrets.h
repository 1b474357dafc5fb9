#pragma once

#include <string>

/// Hides the passwords of this run in texts from outside: a remote command may repeat its input,
/// and what it prints becomes a part of error texts.

/// Remembers a password for maskSecrets. One of fewer than 8 characters is not
/// remembered: it would be found in innocent text.
void rememberSecret(const std::string& secret);

/// `text`, which a remote command printed, with eight asterisks in place of each
/// remembered password.
std::string maskSecrets(const std::string& text);
