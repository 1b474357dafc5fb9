#pragma once

#include <string>

/// The password given in the environment variable QRV_PASSWORD, cut to 4096
/// bytes, or the empty string.
///
/// The first call that finds the variable saves the value in a process-wide
/// buffer, wipes it from the environment block and unsets the variable, so that
/// neither a child nor a reader of /proc/PID/environ sees it; later calls return
/// the same buffer.
const char* get_env_noncrypted_password();

/// Overwrites every value of the variable `name` in the process's environment
/// block, then unsets it. Unsetting alone leaves the bytes readable in
/// /proc/PID/environ.
void wipe_env_variable(const std::string& name);
