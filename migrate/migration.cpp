#include "migrate/migration.h"

#include <unistd.h>

#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "commons/commons.h"
#include "commons/figures.h"
#include "commons/session.h"
#include "migrate/documents.h"

namespace migrate {

namespace {

constexpr mode_t FOLDER_MODE = 0750;
/// Often enough for a line that is redrawn at most ten times a second.
constexpr int PROGRESS_TICK_MS = 200;
constexpr int NO_TICK = -1;

std::string now() {
  return formatTime(std::time(nullptr));
}

std::string joined(const std::vector<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += (all.empty() ? "" : ": ") + text;
  return all;
}

/// The errors of a run that has ended with this code. Only the action phase writes them down:
/// after another end the result log is that of an earlier run.
std::vector<std::string> causesOf(const std::string& session, Step step, int exitCode) {
  const bool isWritten = exitCode > EXIT_IMPOSSIBLE && exitCode < EXIT_NOT_STARTED;
  return isWritten ? readCauses(session, step) : std::vector<std::string>();
}

}  // namespace

int exitCodeForRequest(int signal) {
  return signal == 0 || signal == SIGUSR1 ? EXIT_STOPPED : EXIT_OF_FIRST_SIGNAL + signal;
}

Migration::Migration(const Request& request, Passwords environment, Console& console,
                     Signals& signals)
    : request_(request),
      environment_(std::move(environment)),
      console_(console),
      signals_(signals) {}

int Migration::execute() {
  program_ = findSondrel();
  prepareSession();
  loadState();
  takeSettings();
  if (state_.isFinished()) return reportFinished("Finished already.");
  passwords_.emplace(obtainPasswords(request_, state_.settings, std::move(environment_), signals_));
  introduce();
  return makeSteps();
}

void Migration::prepareSession() {
  // Made as sondrel would make it.
  const SessionFiles session(request_.sessionPath);
  const std::string folder = State::folderIn(request_.sessionPath);
  if (make_dir(folder, geteuid(), serviceAccount().group, FOLDER_MODE) != 0) {
    throw Exc<&MigrateImpossible>(HERE) % (folder + ": " + std::strerror(errno));
  }
  lock_.emplace(folder);
}

void Migration::loadState() {
  if (State::exists(request_.sessionPath)) state_ = State::load(request_.sessionPath);
  if (request_.from) state_.goBackTo(*request_.from);
}

void Migration::takeSettings() {
  Settings settings = state_.settings;
  settings.overrideBy(request_.settings);
  if (const auto name = findForbiddenChange(state_.settings, settings, state_.doneSteps())) {
    throw Exc<&MigrateBadSettings>(HERE) %
        ("--" + *name + " was \"" + state_.settings.inForce(*name) +
         "\" in the steps that are done. Use another session directory, or --from");
  }
  checkComplete(settings);
  state_.settings = settings;
  state_.save(request_.sessionPath);
}

void Migration::introduce() {
  console_.say("Migration from " + state_.settings.get("host") + ", session " +
               request_.sessionPath);
}

int Migration::makeSteps() {
  for (const Step step : state_.plan()) {
    if (state_.isDone(step)) {
      console_.say(std::string(nameOf(step)) + ": done already");
      continue;
    }
    if (const int code = makeStep(step)) return code;
  }
  return reportFinished("Finished.");
}

int Migration::makeStep(Step step) {
  signals_.check();
  console_.say(std::string(nameOf(step)) + ": " + purposeOf(step));
  recordBegin(step);
  const RunOutcome outcome = runStep(step);
  recordEnd(step, outcome);
  return reportEnd(step, outcome);
}

RunOutcome Migration::runStep(Step step) {
  const Places places{request_.sessionPath, state_.agentDir()};
  const std::string since = state_.of(step).started;
  const SondrelRun run{
      program_,
      sondrelCommand(step, state_.settings, places),
      *passwords_,
      lock_->descriptor(),
      [this](const std::string& text) { console_.relay(text); },
      [this](const std::string& text) { console_.say(boost::trim_right_copy(text)); },
      [&] {
        console_.showProgress([&] {
          const std::string progress = describeProgress(request_.sessionPath, step, since);
          return progress.empty() ? progress : nameOf(step) + (": " + progress);
        });
      },
      console_.showsProgress() ? PROGRESS_TICK_MS : NO_TICK};
  const RunOutcome outcome = runSondrel(run, signals_);
  console_.finishRelay();
  console_.eraseProgress();
  return outcome;
}

void Migration::recordBegin(Step step) {
  state_.of(step) = {};
  state_.of(step).progress = Progress::RUNNING;
  state_.of(step).started = now();
  state_.save(request_.sessionPath);
}

void Migration::recordEnd(Step step, const RunOutcome& outcome) {
  StepRecord& record = state_.of(step);
  record.ended = now();
  record.exitCode = outcome.exitCode;
  switch (outcome.kind) {
    case RunOutcome::DONE: record.progress = Progress::DONE; break;
    case RunOutcome::STOPPED: record.progress = Progress::STOPPED; break;
    case RunOutcome::FAILED:
      record.progress = Progress::FAILED;
      record.reason = joined(causesOf(request_.sessionPath, step, outcome.exitCode));
      break;
  }
  state_.save(request_.sessionPath);
}

int Migration::reportEnd(Step step, const RunOutcome& outcome) {
  const StepRecord& record = state_.of(step);
  const std::string name = nameOf(step);
  if (outcome.kind == RunOutcome::DONE) {
    console_.say(name + ": done in " +
                 formatDuration(secondsBetween(record.started, record.ended)));
    return EXIT_DONE;
  }
  if (outcome.kind == RunOutcome::STOPPED) {
    console_.say(name + ": stopped. Run this again to go on");
    return exitCodeForRequest(signals_.requested());
  }
  reportFailure(step, outcome.exitCode);
  return outcome.exitCode;
}

/// sondrel itself has told the outermost error.
void Migration::reportFailure(Step step, int exitCode) {
  const std::vector<std::string> causes = causesOf(request_.sessionPath, step, exitCode);
  for (std::size_t i = 1; i < causes.size(); ++i) console_.complain("  because: " + causes[i]);
  console_.complain(std::string(nameOf(step)) + ": failed with exit code " +
                    std::to_string(exitCode) + "; " + request_.sessionPath +
                    "/migration.log tells more. Run this again to go on");
}

int Migration::reportFinished(const std::string& introduction) {
  std::string text = introduction + " Dump: " + request_.sessionPath + "/dump.xml";
  if (const int errors = countDumpErrors(request_.sessionPath)) {
    text += ", errors in it: " + std::to_string(errors);
  }
  if (!state_.settings.isOn("no-content")) {
    text += ", content: " + contentDirOf(state_.settings, request_.sessionPath);
    if (const int problems = countProblems(request_.sessionPath, Step::CONTENT)) {
      text += ", problems in " + std::string(resultLogOf(Step::CONTENT)) + ": " +
              std::to_string(problems);
    }
  }
  console_.say(text);
  return EXIT_DONE;
}

std::string Migration::purposeOf(Step step) const {
  const Settings& settings = state_.settings;
  switch (step) {
    case Step::SCOUT: return "asking " + settings.get("host") + " what it is";
    case Step::DEPLOY:
      return "copying the agent " + agentNameOf(settings) + " to " + state_.agentDir();
    case Step::DUMP:
      return settings.isOn("dump-all") ? "dumping everything" : "dumping a selection";
    case Step::CONTENT:
      return "fetching files into " + contentDirOf(settings, request_.sessionPath);
    case Step::REMOVE: return "removing " + state_.agentDir();
  }
  return "";
}

}  // namespace migrate
