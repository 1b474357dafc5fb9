#include "migrate/status.h"

#include <string>

#include "commons/human_readable.h"
#include "migrate/documents.h"
#include "migrate/errors.h"
#include "migrate/session_lock.h"
#include "migrate/sondrel_command.h"
#include "migrate/state.h"

namespace migrate {

namespace {

std::string runningText(const std::string& session) {
  const auto pid = SessionLock::holder(State::directoryIn(session));
  return pid ? "running, process " + std::to_string(*pid) : "running";
}

/// Describes a migration that is not running.
std::string restingText(const State& state) {
  for (const Step step : state.plan()) {
    const std::string at = std::string(" at ") + nameOf(step);
    switch (state.of(step).progress) {
      case Progress::FAILED:
        return "failed" + at + " with exit code " + std::to_string(state.of(step).exitCode);
      case Progress::STOPPED: return "stopped" + at;
      case Progress::RUNNING: return "cut short" + at;
      case Progress::WAITING: return "waiting" + at;
      case Progress::DONE: break;
    }
  }
  return "finished";
}

/// The problems of a step that is done.
std::string problemsText(const std::string& session, Step step) {
  const std::string inDump = step == Step::DUMP ? readDumpProblems(session).summary() : "";
  if (!inDump.empty()) return ", " + inDump;
  const int problems = step == Step::CONTENT ? countProblems(session, step) : 0;
  if (problems > 0) return ", problems in transfer.result: " + std::to_string(problems);
  return "";
}

std::string stepText(const State& state, Step step, bool isRunning, const std::string& session) {
  const StepRecord& record = state.of(step);
  const bool isCutShort = record.progress == Progress::RUNNING && !isRunning;
  std::string text = isCutShort ? "cut short" : nameOf(record.progress);
  if (!record.started.empty()) text += ", begun " + record.started;
  if (!record.ended.empty()) {
    text += ", took " + formatDuration(secondsBetween(record.started, record.ended));
  }
  if (!record.reason.empty()) text += ": " + record.reason;
  if (record.progress == Progress::DONE) text += problemsText(session, step);
  if (record.progress == Progress::RUNNING && isRunning) {
    const std::string progress = describeProgress(session, step, record.started);
    if (!progress.empty()) text += ": " + progress;
  }
  return text;
}

void showPlaces(const State& state, const std::string& session, Console& console) {
  if (state.isDone(Step::DUMP)) console.say("description: " + dumpFileIn(session));
  if (state.of(Step::CONTENT).progress != Progress::WAITING) {
    console.say("files: " + contentDirOf(state.settings, session));
  }
  console.say("log: " + session + "/migration.log");
}

void showState(const std::string& session, Console& console) {
  // Asks for the lock before reading the state: a run that ends in between has recorded its end.
  const bool isRunning = SessionLock::isHeld(State::directoryIn(session));
  const State state = State::load(session);
  console.say("host: " + state.settings.get(setting::HOST));
  console.say("agent: " + agentNameOf(state.settings) + " in " + state.agentDir());
  console.say("state: " + (isRunning ? runningText(session) : restingText(state)));
  for (const Step step : state.plan()) {
    console.say(std::string(nameOf(step)) + ": " + stepText(state, step, isRunning, session));
  }
  showPlaces(state, session, console);
}

void showProgressOnly(const std::string& session, Console& console) {
  bool isAnythingThere = false;
  for (const Step step : {Step::DUMP, Step::CONTENT}) {
    const std::string progress = describeProgress(session, step, "");
    if (progress.empty()) continue;
    console.say(std::string(nameOf(step)) + ": " + progress);
    isAnythingThere = true;
  }
  if (!isAnythingThere) {
    throw Exc<&MigrateImpossible>(HERE) % ("There is no migration in " + session);
  }
}

}  // namespace

void showStatus(const std::string& session, Console& console) {
  if (State::exists(session)) {
    showState(session, console);
  } else {
    showProgressOnly(session, console);
  }
}

}  // namespace migrate
