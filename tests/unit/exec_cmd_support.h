#pragma once

#include <string>

#include "commons/ExecCmd.h"
#include "support.h"

/// What the tests of running programs share.

inline ExecCmd shell(const std::string& script) {
  return ExecCmd("sh", {"sh", "-c", script});
}

/// What the program prints, for one that succeeds.
inline std::string outputOf(ExecCmd cmd) {
  EXPECT_EQ(cmd.exec(std::nothrow), 0);
  EXPECT_EQ(cmd.errorOutput(), "");
  return cmd.output();
}
