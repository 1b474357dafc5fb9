#include "migrate/migration_report.h"

#include <utility>

#include "commons/human_readable.h"
#include "migrate/documents.h"
#include "migrate/exit_codes.h"
#include "migrate/sondrel_command.h"

namespace migrate {

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ": ") + text;
  return all;
}

/// Only a run that ended with one of these codes has written the result log; after other ends it is
/// the log of an earlier run.
std::vector<std::string> causesOf(const std::string& session, Step step,
                                  const RunOutcome& outcome) {
  if (!outcome.reason.empty()) return {outcome.reason};
  const bool isWritten = outcome.exitCode > EXIT_IMPOSSIBLE && outcome.exitCode < EXIT_NOT_STARTED;
  return isWritten ? readCauses(session, step) : std::vector<std::string>();
}

MigrationReport::MigrationReport(std::string session, const State& state, Console& console)
    : session_(std::move(session)), state_(state), console_(console) {}

void MigrationReport::introduce() {
  console_.say("Migration from " + state_.settings.get(setting::HOST) + ", session " + session_);
}

int MigrationReport::stepEnded(Step step, const RunOutcome& outcome, int requestedSignal) {
  const StepRecord& record = state_.of(step);
  const std::string name = nameOf(step);
  if (outcome.kind == RunOutcome::DONE) {
    const std::string problems = step == Step::DUMP ? readDumpProblems(session_).summary() : "";
    console_.say(name + ": done in " +
                 formatDuration(secondsBetween(record.started, record.ended)) +
                 (problems.empty() ? "" : ", " + problems));
    return EXIT_DONE;
  }
  if (outcome.kind == RunOutcome::STOPPED) {
    console_.say(name + ": stopped. Run this again to go on");
    return exitCodeForRequest(requestedSignal);
  }
  stepFailed(step, outcome);
  return outcome.exitCode;
}

/// Prints the causes from the second on: sondrel itself has printed the outermost error.
void MigrationReport::stepFailed(Step step, const RunOutcome& outcome) {
  if (!outcome.reason.empty()) console_.complain(outcome.reason);
  const std::vector<std::string> causes = causesOf(session_, step, outcome);
  for (std::size_t i = 1; i < causes.size(); ++i) console_.complain("  because: " + causes[i]);
  const std::string remedy = remedyFor(step, joined(causes));
  if (!remedy.empty()) console_.complain(remedy);
  console_.complain(std::string(nameOf(step)) + ": failed with exit code " +
                    std::to_string(outcome.exitCode) + "; " + session_ +
                    "/migration.log tells more. Run this again to go on");
}

int MigrationReport::finished(const std::string& introduction) {
  std::string text = introduction + " Dump: " + dumpFileIn(session_);
  if (!state_.settings.isOn(setting::NO_CONTENT)) {
    text += ", content: " + contentDirOf(state_.settings, session_);
    if (const int problems = countProblems(session_, Step::CONTENT)) {
      text += ", problems in " + std::string(resultLogOf(Step::CONTENT)) + ": " +
              std::to_string(problems);
    }
  }
  console_.say(text);
  explainKeptAgent();
  listProblems();
  return EXIT_DONE;
}

/// Prints which commands use or remove an agent that is still there.
void MigrationReport::explainKeptAgent() {
  if (isAgentRemoved(state_.settings)) return;
  // The agent has been removed: an earlier release did that unless --keep-agent was given.
  if (state_.of(Step::REMOVE).progress != Progress::WAITING) return;
  console_.say(
      "The agent stays on " + state_.settings.get(setting::HOST) + ", in " + state_.agentDir() +
      ", until the migration is final. What has changed since is fetched with --from=dump; "
      "with --from=dump --final for the last time. --final alone removes the agent");
}

/// Prints the number of problems in dump.xml, and the texts of the errors.
void MigrationReport::listProblems() {
  const DumpProblems problems = readDumpProblems(session_);
  const std::string summary = problems.summary();
  if (summary.empty()) return;
  console_.say("Problems in the dump: " + summary);
  for (const std::string& error : problems.firstErrors) console_.say("  error: " + error);
  const auto shown = static_cast<int>(problems.firstErrors.size());
  if (problems.errors > shown) {
    console_.say("  and " + std::to_string(problems.errors - shown) + " more errors");
  }
  if (problems.errors + problems.warnings + problems.notes > 0) {
    console_.say(
        "An error is something that is missing from the result, a warning something that "
        "may not work on the new host; what to do is said in dump.xml");
  }
}

/// What the user can do about causes whose texts do not say so; empty for other causes.
std::string MigrationReport::remedyFor(Step step, const std::string& causes) const {
  const auto tells = [&](const std::string& text) {
    return causes.find(text) != std::string::npos;
  };
  if (step == Step::CONTENT && tells("Selected filesystem has only")) {
    return "These are bytes. Make room for " + contentDirOf(state_.settings, session_) +
           ", name another directory by --dumps-dir, or do without the check by --no-check-space";
  }
  const bool needsAgent = step == Step::DUMP || step == Step::CONTENT;
  // The first text is a shell's that cannot enter the directory, the second that of the agent's
  // interpreter.
  if (needsAgent && tells(state_.agentDir()) &&
      (tells("can't cd to ") || tells("No such file or directory"))) {
    return "The agent is no longer in " + state_.agentDir() + " on " +
           state_.settings.get(setting::HOST) + ". Run this again with --from=deploy";
  }
  return "";
}

void MigrationReport::stepBegins(Step step) {
  console_.say(std::string(nameOf(step)) + ": " + purposeOf(step));
}

void MigrationReport::stepIsDone(Step step) {
  console_.say(std::string(nameOf(step)) + ": done already");
}

std::string MigrationReport::purposeOf(Step step) const {
  const Settings& settings = state_.settings;
  switch (step) {
    case Step::SCOUT: return "asking " + settings.get(setting::HOST) + " what it is";
    case Step::DEPLOY:
      return "copying the agent " + agentNameOf(settings) + " to " + state_.agentDir();
    case Step::DUMP:
      return settings.isOn(setting::DUMP_ALL) ? "dumping everything" : "dumping a selection";
    case Step::CONTENT: return "fetching files into " + contentDirOf(settings, session_);
    case Step::REMOVE: return "removing " + state_.agentDir();
    case Step::PLAN: return "finding out what a restore on this host needs";
    case Step::APPLY: return "restoring on this host";
    case Step::VERIFY: return "comparing what is here with what was fetched";
  }
  return "";
}

}  // namespace migrate
