#pragma once

#include <string>

/// The passwords of this run, as far as text from outside is concerned: a remote
/// command may repeat what it was fed, and what it prints ends up in error texts.

/// Remembers a password for maskSecrets. One of fewer than 8 characters is not
/// remembered: it would be found in innocent text.
void rememberSecret(const std::string& secret);

/// `text`, which a remote command printed, with eight asterisks in place of each
/// remembered password.
std::string maskSecrets(const std::string& text);
