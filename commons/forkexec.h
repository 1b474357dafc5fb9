#pragma once

#include <sys/types.h>

#include <map>
#include <string>

#include "commons/cmd_line.h"

using Environment = std::map<std::string, std::string>;

/// Runs `program` (searched in PATH) with `args`, of which the first is the
/// program's name as it sees it, feeds it `input` and collects its output and error
/// output. With `account` named and known, runs as that account; `environment` is
/// added to the environment of this process.
///
/// Returns the exit code, or -1 when the child was ended by a signal or could not
/// be waited for. Throws SystemError when a system call fails; the child is ended then. SIGPIPE
/// must be ignored by the caller: a child may end before it has read all its input.
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
