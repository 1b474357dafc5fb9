#pragma once

#include <vector>

#include "commons/cmd_line.h"
#include "commons/unique_fd.h"

/// Helpers for every start of a program. The functions that start one choose its streams, signals
/// and account: forkexec.h for a program that gets an input and whose output is read to its end,
/// migrate/sondrel_run.h for sondrel.

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
