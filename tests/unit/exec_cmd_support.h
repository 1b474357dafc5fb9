#pragma once

#include <string>

#include "commons/ExecCmd.h"
#include "support.h"

/// Helpers for the tests of running programs.

inline ExecCmd shell(const std::string& script) {
  return ExecCmd("sh", {"sh", "-c", script});
}

/// Runs a program that must succeed; returns its output.
inline std::string outputOf(ExecCmd cmd) {
  EXPECT_EQ(cmd.exec(std::nothrow), 0);
  EXPECT_EQ(cmd.errorOutput(), "");
  return cmd.output();
}
