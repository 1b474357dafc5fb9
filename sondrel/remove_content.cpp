#include <boost/algorithm/string/split.hpp>
#include <sstream>

#include "commons/ProgramTerminatedException.h"
#include "commons/log.h"
#include "commons/secrets.h"
#include "sondrel/retrieve_content.h"

/// The part of RetrieveContentAction that removes fetched files on the source host.

namespace {

/// A shell's exit status for a program that cannot be executed, and for one that does not exist.
constexpr int NOT_EXECUTABLE_STATUS = 126;
constexpr int NOT_FOUND_STATUS = 127;

/// A Perl script that removes files. It ignores its input up to the first zero byte; then come the
/// names, each with a zero byte behind it. A name without that byte may have been cut off and mean
/// another file, so it is ignored. When a removal failed, the script prints for each name a zero
/// byte and the reason, which is empty for a removed file, and ends with SOME_NOT_REMOVED. It has
/// no braces: quoting leaves them as they are, and the login's shell may expand them.
constexpr char REMOVE_FILES[] =
    R"($/ = "\0"; <STDIN>; )"
    R"(push @errors, unlink($_) ? "" : "$!" while defined($_ = <STDIN>) and chomp; )"
    R"(exit 0 unless grep length, @errors; )"
    R"(print map "\0$_", @errors; exit 3)";
constexpr int SOME_NOT_REMOVED = 3;

bool isNotThere(int exitStatus) {
  return exitStatus == NOT_EXECUTABLE_STATUS || exitStatus == NOT_FOUND_STATUS;
}

}  // namespace

void RetrieveContentAction::removeRemoteFile(const DumpFile& file) {
  const ArgsBuilder line = ArgsBuilder("rm") << remotePathOf(file.name);
  tryRemoval({&file}, [&] {
    CollectedText out;
    CollectedText err;
    if (execRoot(line.str(), out, err, false) != 0) logRemovalFailure(file, errorTextOf(err));
  });
}

/// The files are here, so a failed removal is recorded and the run goes on.
void RetrieveContentAction::tryRemoval(const std::vector<const DumpFile*>& files,
                                       const std::function<void()>& remove) {
  const auto logFailure = [&](const std::string& reason) {
    for (const DumpFile* file : files) logRemovalFailure(*file, reason);
  };
  try {
    remove();
  } catch (const MigrationTerminatedException&) {
    throw;
  } catch (const ExTraceable& e) {
    theLog->log(e);
  } catch (const std::exception& e) {
    logFailure(e.what());
  } catch (...) {
    logFailure("Unknown internal exception occured");
  }
}

void RetrieveContentAction::logRemovalFailure(const DumpFile& file,
                                              const std::string& reason) const {
  theLog->log(Exc<&UnableToRemoveRemoteFile>(HERE) % remotePathOf(file.name) % getConfig().host %
              reason);
}

// --- several files at once ---

void RetrieveContentAction::removeRemoteFiles(const std::vector<const DumpFile*>& files) {
  if (files.empty()) return;
  // A password that sudo does not read stays in front of the first zero byte, and is ignored.
  std::string names(1, '\0');
  for (const DumpFile* file : files) names.append(remotePathOf(file->name)).push_back('\0');
  const ArgsBuilder line = ArgsBuilder("perl") << "-e" << REMOVE_FILES;
  int exitStatus = 0;
  tryRemoval(files, [&] {
    std::istringstream in(names);
    CollectedText out;
    CollectedText err;
    exitStatus = execRoot(line.str(), in, out, err, false, true);
    if (exitStatus != 0 && !isNotThere(exitStatus)) {
      logRemovals(files, exitStatus, out.str(), errorTextOf(err));
    }
  });
  if (!isNotThere(exitStatus)) return;
  for (const DumpFile* file : files) removeRemoteFile(*file);
}

/// Records which of the removals failed, according to the script's output.
void RetrieveContentAction::logRemovals(const std::vector<const DumpFile*>& files, int exitStatus,
                                        const std::string& told, const std::string& errorText) {
  std::vector<std::string> reasons;
  boost::split(reasons, told, [](char c) { return c == '\0'; });
  const bool isTold = exitStatus == SOME_NOT_REMOVED && reasons.size() > files.size();
  for (std::size_t i = 0; i < files.size(); ++i) {
    // A login shell may have printed text first: counted from the end.
    const std::string& reason = isTold ? reasons[reasons.size() - files.size() + i] : errorText;
    if (!isTold || !reason.empty()) logRemovalFailure(*files[i], maskSecrets(reason));
  }
}
