#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "commons/cmd_line.h"

using Environment = std::map<std::string, std::string>;

/// Runs `program` (searched in PATH) with `args`, feeds it `input` and collects its output and
/// error output. The first of `args` is the name that the program gets as argv[0]. If `account` is
/// the name of an existing account, the program runs as that account. `environment` is added to the
/// environment of this process.
///
/// Returns the exit code, or -1 when a signal ended the child or it could not be waited for. Throws
/// SystemError when a system call fails; the child is killed then. The caller must ignore SIGPIPE:
/// a child may end before it has read all its input.
int forkExecvGetInOutErrSuidEnv(std::string input, std::string& output, std::string& errorOutput,
                                const std::string& program, const ArgList& args,
                                const std::string& account, const Environment& environment);

/// Starts `program` with the three descriptors as its standard input, output and
/// error; all other descriptors are closed there, signals have their default
/// dispositions and an empty mask. Returns the child's process id; throws
/// SystemError when there is no child.
///
/// The child never returns: when the program cannot be executed it reports that to
/// the system log and to its error output and ends with a non-zero status.
pid_t forkExecvPipes(int in, int out, int err, const std::string& program, const ArgList& args,
                     const std::string& account, const Environment& environment);
