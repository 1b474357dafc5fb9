#include "migrate/migration.h"

#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string/trim.hpp>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "commons/commons.h"
#include "commons/human_readable.h"
#include "commons/session.h"
#include "commons/xml_wrap.h"
#include "migrate/documents.h"
#include "migrate/earlier_dump.h"
#include "migrate/session_access.h"

namespace migrate {

namespace {

constexpr mode_t DIRECTORY_MODE = 0750;
/// Often enough for a line that is redrawn at most ten times a second.
constexpr int PROGRESS_TICK_MS = 200;
constexpr int NO_TICK = -1;
/// Not shorter, because each query about an earlier dump is a login on the source host.
constexpr std::chrono::seconds TIME_BETWEEN_LOOKS{5};
/// From the last status of a dump to the end of its process.
constexpr std::chrono::seconds TIME_TO_END{1};
constexpr std::size_t LARGEST_HELD_BYTES = std::size_t{1} << 20;
/// How long a sondrel may take to end after a signal.
constexpr std::chrono::seconds ORPHAN_WAIT{10};
constexpr int ORPHAN_TICK_MS = 50;
/// How much of sondrel-restore's error output is kept; its last line becomes the reason of a
/// failure.
constexpr std::size_t LONGEST_REASON_BYTES = 2000;
/// sondrel-restore's exit status when the administrator must decide.
constexpr int EXIT_OF_NEEDED_DECISIONS = 3;
/// For a restore, which connects to no other host.
const Passwords NO_PASSWORDS;

std::string now() {
  return formatTime(std::time(nullptr));
}

std::string lastLineOf(const std::string& text) {
  const std::string trimmed = boost::trim_right_copy(text);
  const std::string::size_type end = trimmed.rfind('\n');
  return end == std::string::npos ? trimmed : trimmed.substr(end + 1);
}

/// Why a restore has failed. `said` is the last line of its error output.
std::string reasonOfRestore(Step step, bool needsDecisions, const std::string& said) {
  if (needsDecisions) {
    return "The restore needs decisions or packages: sondrel-restore plan names them. Packages are "
           "installed with --restore-install; decide with sondrel-restore apply (see its --help)";
  }
  if (step == Step::VERIFY) {
    return "What is here is not what was fetched: sondrel-restore verify names the differences";
  }
  return "The restore failed" + (said.empty() ? "" : ": " + toXmlSafeText(said));
}

}  // namespace

Migration::Migration(const Request& request, Passwords environment, Console& console,
                     Signals& signals)
    : request_(request),
      environment_(std::move(environment)),
      console_(console),
      signals_(signals),
      report_(request.sessionPath, state_, console) {}

int Migration::execute() {
  program_ = findSondrel();
  prepareSession();
  loadState();
  takeSettings();
  if (state_.isFinished()) return report_.finished("Finished already.");
  if (state_.settings.isOn(setting::RESTORE)) restoreProgram_ = findSondrelRestore();
  passwords_.emplace(needsSourceHost() ? obtainPasswords(request_, state_.settings,
                                                         std::move(environment_), signals_)
                                       : Passwords());
  report_.introduce();
  return makeSteps();
}

void Migration::prepareSession() {
  // Creates the session directory as sondrel does.
  const SessionFiles session(request_.sessionPath);
  const std::string directory = State::directoryIn(request_.sessionPath);
  if (make_dir(directory, geteuid(), serviceAccount().group, DIRECTORY_MODE) != 0) {
    throw Exc<&MigrateImpossible>(HERE) % (directory + ": " + std::strerror(errno));
  }
  refuseForeignGroup(request_.sessionPath, console_);
  takeLock(directory);
}

/// Takes the lock. A sondrel of a killed run may just be ending: waits for it, so that the user
/// need not start this program again.
void Migration::takeLock(const std::string& directory) {
  const auto deadline = std::chrono::steady_clock::now() + ORPHAN_WAIT;
  while (SessionLock::isHeldByOrphan(directory) && std::chrono::steady_clock::now() < deadline) {
    std::vector<pollfd> nothing;
    signals_.wait(nothing, ORPHAN_TICK_MS);
    signals_.check();
  }
  lock_.emplace(directory);
}

void Migration::loadState() {
  if (State::exists(request_.sessionPath)) state_ = State::load(request_.sessionPath);
  // A failed verify means that objects are missing or have changed. Verifying alone would fail
  // again, so go back to the step that makes them.
  if (state_.of(Step::VERIFY).progress == Progress::FAILED) state_.goBackTo(Step::APPLY);
  if (request_.from) state_.goBackTo(*request_.from);
  if (request_.full && state_.isDone(Step::DUMP)) {
    throw Exc<&MigrateBadSettings>(HERE) %
        "--full is for a dump, and that is done: give --from=dump with it";
  }
}

void Migration::takeSettings() {
  Settings settings = state_.settings;
  settings.overrideBy(request_.settings);
  planStepToGoBackTo(settings);
  planEndOfAgent(settings);
  if (const auto name = findForbiddenChange(state_.settings, settings, state_.doneSteps())) {
    throw Exc<&MigrateBadSettings>(HERE) %
        (std::string("--") + name->text + " was \"" + state_.settings.effectiveValue(*name) +
         "\" in the steps that are done. Use another session directory, or --from");
  }
  checkComplete(settings);
  state_.settings = settings;
  state_.save(request_.sessionPath);
}

/// A step that the user names with --from is made even if earlier runs left it out.
void Migration::planStepToGoBackTo(Settings& settings) const {
  if (request_.from == Step::REMOVE) planRemoval(settings);
  if (request_.from == Step::CONTENT && settings.isOn(setting::NO_CONTENT)) {
    throw Exc<&MigrateBadSettings>(HERE) %
        (request_.settings.isOn(setting::NO_CONTENT)
             ? "--from=content and --no-content exclude each other"
             : "there is no content to fetch: the dump was made with --no-content. Make it again "
               "with --from=dump --no-content=no");
  }
}

void Migration::planRemoval(Settings& settings) const {
  if (request_.settings.isOn(setting::KEEP_AGENT)) {
    throw Exc<&MigrateBadSettings>(HERE) % "--from=remove and --keep-agent exclude each other";
  }
  settings.set(setting::KEEP_AGENT, "no");
}

/// Of --final and --keep-agent the one that was given last, in this run or an earlier one, counts.
void Migration::planEndOfAgent(Settings& settings) const {
  const bool isFinal = request_.settings.isOn(setting::FINAL);
  const bool isKept = request_.settings.isOn(setting::KEEP_AGENT);
  if (isFinal && isKept) {
    throw Exc<&MigrateBadSettings>(HERE) % "--final and --keep-agent exclude each other";
  }
  if (isFinal) settings.set(setting::KEEP_AGENT, "no");
  if (isKept) settings.set(setting::FINAL, "no");
}

/// False when only steps of the restore are left: those need no login.
bool Migration::needsSourceHost() const {
  const std::vector<Step> steps = state_.plan();
  return std::any_of(steps.begin(), steps.end(),
                     [&](Step step) { return !isOfRestore(step) && !state_.isDone(step); });
}

int Migration::makeSteps() {
  for (const Step step : state_.plan()) {
    if (state_.isDone(step)) {
      report_.stepIsDone(step);
      continue;
    }
    if (const int code = makeStep(step)) return code;
  }
  return report_.finished("Finished.");
}

int Migration::makeStep(Step step) {
  signals_.check();
  report_.stepBegins(step);
  recordBegin(step);
  const RunOutcome outcome = runStep(step);
  recordEnd(step, outcome);
  return report_.stepEnded(step, outcome, signals_.requested());
}

/// Makes the step. If a dump of an earlier run still runs on the source host, waits for its end and
/// tries again.
RunOutcome Migration::runStep(Step step) {
  if (step == Step::REMOVE) return runRemoval();
  if (isOfRestore(step)) return runRestore(step);
  RunOutcome outcome = runAction(step);
  bool wasTold = false;
  while (isBlockedByEarlierDump(request_.sessionPath, step, outcome)) {
    if (!wasTold) {
      console_.say(std::string(nameOf(step)) +
                   ": a dump that an earlier run started is still at "
                   "work on " +
                   state_.settings.get(setting::HOST) + "; waiting for its end");
    }
    wasTold = true;
    if (const auto ended = waitForEarlierDump(step)) return *ended;
    outcome = runAction(step);
  }
  return outcome;
}

RunOutcome Migration::runAction(Step step) {
  const Places places{request_.sessionPath, state_.agentDir()};
  // These steps fail while an earlier dump runs, which is no error then: their error output waits
  // until the outcome is known. With --verbose it has the log, which must be seen at once.
  const bool isHeld =
      (step == Step::DUMP || step == Step::CONTENT) && !state_.settings.isOn(setting::VERBOSE);
  std::string held;
  const TextSink relay = [this](const std::string& text) { console_.relay(text); };
  const TextSink hold = [&](const std::string& text) {
    held += text;
    if (held.size() > LARGEST_HELD_BYTES) relay(std::exchange(held, ""));
  };
  const auto runOnce = [&] {
    return run(step, commandOf(step, state_.settings, places), isHeld ? hold : relay,
               [this](const std::string& line) { console_.say(line); });
  };
  RunOutcome outcome = runOnce();
  while (askForWhatIsWanted(step, outcome)) {
    held.clear();
    outcome = runOnce();
  }
  if (!isBlockedByEarlierDump(request_.sessionPath, step, outcome)) relay(held);
  console_.finishRelay();
  return outcome;
}

/// True when a login by key failed because a password is missing, and a person at the terminal has
/// entered it now. A signal during the question ends the step.
bool Migration::askForWhatIsWanted(Step step, RunOutcome& outcome) {
  if (outcome.kind != RunOutcome::FAILED) return false;
  const std::string causes = joined(causesOf(request_.sessionPath, step, outcome));
  console_.finishRelay();
  try {
    return migrate::askForWhatIsWanted(causes, state_.settings, *passwords_, signals_);
  } catch (const Exc<&MigrateImpossible>& e) {
    // There is no terminal to ask on: the step stays failed, for this reason.
    console_.complain(e.what());
  } catch (const Interrupted&) {
    outcome = {RunOutcome::STOPPED, exitCodeForRequest(signals_.requested())};
  }
  return false;
}

/// A removal ends with 0 even when it failed or the connection was lost. So this asks for the
/// dumping status afterwards: it lies in the directory that the removal removes.
RunOutcome Migration::runRemoval() {
  RunOutcome removed = runAction(Step::REMOVE);
  if (removed.kind != RunOutcome::DONE) return removed;
  std::string held;
  std::string status;
  RunOutcome asked = fetchDumpingStatus(
      Step::REMOVE, [&](const std::string& text) { held += text; }, status);
  const bool couldNotAsk =
      asked.kind == RunOutcome::FAILED && asked.exitCode != EXIT_OF_FAILED_ACTION;
  if (asked.kind == RunOutcome::STOPPED || couldNotAsk) {
    console_.relay(held);
    console_.finishRelay();
    return asked;
  }
  if (status.find("<dumping-status") == std::string::npos) return removed;
  return {RunOutcome::FAILED, EXIT_OF_FAILED_ACTION,
          state_.agentDir() + " is still there on " + state_.settings.get(setting::HOST)};
}

/// Runs sondrel-restore. Its need for decisions gets an exit code of its own; all other failures
/// have the same one.
RunOutcome Migration::runRestore(Step step) {
  std::string said;
  RunOutcome outcome = run(
      step, commandOf(step, state_.settings, {request_.sessionPath, state_.agentDir()}),
      [&](const std::string& text) {
        console_.relay(text);
        said.append(text).erase(0, said.size() - std::min(said.size(), LONGEST_REASON_BYTES));
      },
      [this](const std::string& line) { console_.say(line); });
  console_.finishRelay();
  if (outcome.kind != RunOutcome::FAILED || outcome.exitCode > EXIT_OF_FIRST_SIGNAL) return outcome;
  const bool needsDecisions = step != Step::VERIFY && outcome.exitCode == EXIT_OF_NEEDED_DECISIONS;
  outcome.reason = reasonOfRestore(step, needsDecisions, lastLineOf(said));
  outcome.exitCode = needsDecisions ? EXIT_NEEDS_DECISIONS : EXIT_NOT_RESTORED;
  return outcome;
}

/// Waits for the end of an earlier dump. Nothing when the step can be tried again; else how the
/// waiting ended.
std::optional<RunOutcome> Migration::waitForEarlierDump(Step step) {
  EarlierDump dump(EarlierDump::Clock::now());
  for (;;) {
    std::string status;
    RunOutcome asked = fetchDumpingStatus(
        step, [this](const std::string& text) { console_.relay(text); }, status);
    console_.finishRelay();
    if (asked.kind != RunOutcome::DONE) return asked;
    dump.note(status, EarlierDump::Clock::now());
    dump.publish(request_.sessionPath);
    const bool isOver = dump.saysItsEnd() || dump.isSilent(EarlierDump::Clock::now());
    // The process of a finished dump may not have ended yet.
    if (!pause(step, isOver ? TIME_TO_END : TIME_BETWEEN_LOOKS)) {
      return RunOutcome{RunOutcome::STOPPED, exitCodeForRequest(signals_.requested())};
    }
    if (isOver) return std::nullopt;
  }
}

RunOutcome Migration::fetchDumpingStatus(Step step, const TextSink& onError, std::string& status) {
  const Places places{request_.sessionPath, state_.agentDir()};
  return run(step, dumpingStatusCommand(state_.settings, places), onError,
             [&](const std::string& line) {
               if (status.size() < LARGEST_HELD_BYTES) status += line + "\n";
             });
}

/// Waits for `time`. False when a termination signal arrived meanwhile.
bool Migration::pause(Step step, std::chrono::milliseconds time) {
  const auto end = EarlierDump::Clock::now() + time;
  while (signals_.requested() == 0 && EarlierDump::Clock::now() < end) {
    showProgress(step);
    std::vector<pollfd> nothing;
    signals_.wait(nothing, PROGRESS_TICK_MS);
  }
  console_.eraseProgress();
  return signals_.requested() == 0;
}

RunOutcome Migration::run(Step step, const ArgList& arguments, const TextSink& onError,
                          const TextSink& onOutput) {
  const bool needsLogin = !isOfRestore(step);
  const SondrelRun run{needsLogin ? program_ : restoreProgram_,
                       arguments,
                       needsLogin ? *passwords_ : NO_PASSWORDS,
                       needsLogin ? state_.settings.get(setting::IDENTITY) : "",
                       needsLogin ? state_.settings.get(setting::JUMP) : "",
                       !request_.full && knowsIncrements(state_.settings),
                       lock_->descriptor(),
                       onError,
                       onOutput,
                       [this, step] { showProgress(step); },
                       console_.showsProgress() ? PROGRESS_TICK_MS : NO_TICK};
  RunOutcome outcome = runSondrel(run, signals_);
  console_.eraseProgress();
  return outcome;
}

void Migration::showProgress(Step step) {
  console_.showProgress([&] {
    const std::string progress =
        describeProgress(request_.sessionPath, step, state_.of(step).started);
    return progress.empty() ? progress : nameOf(step) + (": " + progress);
  });
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
      record.reason = joined(causesOf(request_.sessionPath, step, outcome));
      break;
  }
  state_.save(request_.sessionPath);
}

}  // namespace migrate
