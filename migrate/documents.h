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

/// What the description of a dump says to be wrong with it, by severity. Agents of others may
/// say it in another way, or not at all.
struct DumpProblems {
  enum Standing {
    /// There is no dump.xml, or it has no list of problems.
    NOT_SAID,
    COUNTED,
    /// It is no document, or has more than 256 MiB.
    UNREADABLE
  };

  Standing standing = NOT_SAID;
  int errors = 0;
  int warnings = 0;
  int notes = 0;
  /// The first errors, MOST_SHOWN of them at most, as "OBJECT: TEXT", each in one line.
  std::vector<std::string> firstErrors;

  static constexpr std::size_t MOST_SHOWN = 10;

  /// As "2 errors, 1 warning, 0 notes"; empty where nothing was said.
  std::string summary() const;
};

/// Reads dump.xml of the session.
DumpProblems readDumpProblems(const std::string& session);

/// The dump.xml of the session, and its dumping-status.xml.
std::string dumpFileIn(const std::string& session);
std::string dumpingStatusIn(const std::string& session);

/// The name of the step's result log in the session directory.
const char* resultLogOf(Step step);

/// How far the step is, in one line, as "3 of 10 files, 1.2 of 3.4 MB (35 %), 1.1 MB/s, 0:02
/// left, content/a". Only what was written at `since` (as formatTime) or later counts: an
/// older document is about another run. Empty when there is nothing to say.
std::string describeProgress(const std::string& session, Step step, const std::string& since);

}  // namespace migrate
