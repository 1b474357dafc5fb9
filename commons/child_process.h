#pragma once

#include <vector>

#include "commons/cmd_line.h"
#include "commons/unique_fd.h"

/// What every start of a program needs. What its streams are, which signals it gets and as which
/// account it runs is decided by the functions that start one: forkexec.h for a program that is
/// fed and read to its end, migrate/sondrel_run.h for sondrel.

struct Pipe {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};

/// A pipe that no other child inherits. Two closed ends, with errno set, when there is none.
Pipe makePipe();

/// Makes reads and writes return at once. False, with errno set, when that is impossible.
bool setNonBlocking(const UniqueFd& fd);

/// The arguments as execve wants them. Valid as long as `args` is.
std::vector<char*> pointersTo(const ArgList& args);

/// Closes every descriptor from `first` on. For a child before its exec.
void closeDescriptorsFrom(int first);
