#include "hostlib/env_password.h"

#include <string.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace {

constexpr std::size_t MAX_PASSWORD_BYTES = 4096;

/// One byte more than the longest password, for the terminating zero.
std::array<char, MAX_PASSWORD_BYTES + 1> savedPassword{};

}  // namespace

const char* get_env_noncrypted_password() {
  if (savedPassword[0] != '\0') return savedPassword.data();
  if (const char* value = getenv("QRV_PASSWORD")) {
    strncpy(savedPassword.data(), value, MAX_PASSWORD_BYTES);
  }
  wipe_env_variable("QRV_PASSWORD");
  return savedPassword.data();
}

void wipe_env_variable(const std::string& name) {
  const std::string prefix = name + "=";
  // A caller may hand down the same variable more than once; getenv shows only
  // the first of them.
  for (char** entry = environ; entry && *entry; ++entry) {
    if (strncmp(*entry, prefix.c_str(), prefix.size()) != 0) continue;
    char* value = *entry + prefix.size();
    explicit_bzero(value, strlen(value));
  }
  unsetenv(name.c_str());
}
