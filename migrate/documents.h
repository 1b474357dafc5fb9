#pragma once

#include <string>
#include <vector>

#include "migrate/step.h"

namespace migrate {

/// Reads the documents that sondrel and the agent write into the session directory. They may be
/// missing, incomplete or malformed: the functions then return nothing, without an error.

/// The texts of the last error in the result log of a step: the error itself first, then its
/// causes.
std::vector<std::string> readCauses(const std::string& session, Step step);

/// The number of problems in the result log of a step; 0 when the log is larger than 256 MiB.
int countProblems(const std::string& session, Step step);

/// The problems that dump.xml reports, by severity. Agents of other makers may report them in
/// another form, or not at all.
struct DumpProblems {
  enum Standing {
    /// There is no dump.xml, or it has no list of problems.
    NOT_SAID,
    COUNTED,
    /// It is not well-formed, or larger than 256 MiB.
    UNREADABLE
  };

  Standing standing = NOT_SAID;
  int errors = 0;
  int warnings = 0;
  int notes = 0;
  /// The first errors, MOST_SHOWN of them at most, as "OBJECT: TEXT", each in one line.
  std::vector<std::string> firstErrors;

  static constexpr std::size_t MOST_SHOWN = 10;

  /// As "2 errors, 1 warning, 0 notes"; empty for NOT_SAID.
  std::string summary() const;
};

/// Reads dump.xml of the session.
DumpProblems readDumpProblems(const std::string& session);

/// The dump.xml of the session, and its dumping-status.xml.
std::string dumpFileIn(const std::string& session);
std::string dumpingStatusIn(const std::string& session);

/// The name of the step's result log in the session directory.
const char* resultLogOf(Step step);

/// How far the step is, in one line: the text of describeDump for a dump and of describeTransfer
/// for content, empty for other steps. Ignores a document that was written before `since` (in the
/// form of formatTime): it is about another run.
std::string describeProgress(const std::string& session, Step step, const std::string& since);

}  // namespace migrate
