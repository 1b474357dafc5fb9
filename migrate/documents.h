#pragma once

#include <string>
#include <vector>

#include "migrate/step.h"

namespace migrate {

/// What the documents say that sondrel and the agent write into the session directory. They
/// may be missing, in the middle of something or odd: then nothing is said.

/// The descriptions of the last error of a step's result log, from what failed to what
/// caused it.
std::vector<std::string> readCauses(const std::string& session, Step step);

/// How many problems the result log of a step holds; 0 for one of more than 256 MiB.
int countProblems(const std::string& session, Step step);

/// How many things the description of the dump says to be missing from it; 0 for one of more
/// than 256 MiB. Agents of others may say so in another way.
int countDumpErrors(const std::string& session);

/// The name of the step's result log in the session directory.
const char* resultLogOf(Step step);

/// How far the step is, in one line, as "3 of 10 files, 1.2 of 3.4 MB (35 %), 1.1 MB/s, 0:02
/// left, content/a". Only what was written at `since` (as formatTime) or later counts: an
/// older document tells of another run. Empty when there is nothing to say.
std::string describeProgress(const std::string& session, Step step, const std::string& since);

}  // namespace migrate
