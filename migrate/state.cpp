#include "migrate/state.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <boost/lexical_cast.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "commons/atomic_replacement.h"
#include "commons/commons.h"
#include "commons/output_file.h"
#include "commons/xml_wrap.h"

namespace migrate {

namespace {

const char* const ROOT = "sondrel-migration";
const char* const VERSION = "1";
const char* const DIRECTORY_PREFIX = "sondrel-agent-";
constexpr mode_t DOCUMENT_MODE = 0640;

constexpr std::array<Progress, 5> ALL_PROGRESS = {
    Progress::WAITING, Progress::RUNNING, Progress::DONE, Progress::FAILED, Progress::STOPPED};
constexpr std::array<const char*, ALL_PROGRESS.size()> PROGRESS_NAMES = {
    "waiting", "running", "done", "failed", "stopped"};

[[noreturn]] void fail(const std::string& text) {
  throw Exc<&MigrateImpossible>(HERE) % text;
}

[[noreturn]] void failWithErrno(const std::string& what) {
  fail(what + ": " + std::strerror(errno));
}

std::string randomDirectoryName() {
  std::uint32_t number = 0;
  // getrandom never returns only a part of so few bytes.
  if (getrandom(&number, sizeof number, 0) != sizeof number) failWithErrno("no random number");
  char digits[9];
  std::snprintf(digits, sizeof digits, "%08x", number);
  return std::string(DIRECTORY_PREFIX) + digits;
}

/// Passwords go to the host that the document names, so no other account may have written it.
void refuseForeign(const std::string& path, mode_t kind) {
  struct stat status {};
  if (lstat(path.c_str(), &status) != 0) failWithErrno(path);
  if ((status.st_mode & S_IFMT) == kind && (status.st_uid == geteuid() || status.st_uid == 0) &&
      (status.st_mode & (S_IWGRP | S_IWOTH)) == 0) {
    return;
  }
  fail(path + " is owned or writable by another account; refusing to use it");
}

Progress progressNamed(const std::string& name) {
  const auto* const found = std::find(PROGRESS_NAMES.begin(), PROGRESS_NAMES.end(), name);
  if (found == PROGRESS_NAMES.end()) fail("unknown progress " + name);
  return ALL_PROGRESS[static_cast<std::size_t>(found - PROGRESS_NAMES.begin())];
}

StepRecord readRecord(const tXmlDtmDocument& document, XmlNodeRef node) {
  StepRecord record;
  record.progress = progressNamed(document.getAttribute(node, "state"));
  record.started = document.findAttribute(node, "started").value_or("");
  record.ended = document.findAttribute(node, "ended").value_or("");
  const std::string code = document.findAttribute(node, "exit-code").value_or("");
  if (!code.empty()) record.exitCode = boost::lexical_cast<int>(code);
  record.reason = document.getNodeText(node);
  return record;
}

void writeRecord(tXmlDtmDocument& document, Step step, const StepRecord& record) {
  const XmlNodeRef node = document.newTextChild(document.root(), "step", record.reason);
  document.addAttribute(node, "name", nameOf(step));
  document.addAttribute(node, "state", nameOf(record.progress));
  if (!record.started.empty()) document.addAttribute(node, "started", record.started);
  if (record.ended.empty()) return;
  document.addAttribute(node, "ended", record.ended);
  document.addAttribute(node, "exit-code", std::to_string(record.exitCode));
}

/// Writes the document as a file of root's that the service account can read.
void replaceFile(const tXmlDocument& document, const std::string& target) {
  AtomicReplacement replacement(target, "state.xml.",
                                {geteuid(), serviceAccount().group, DOCUMENT_MODE});
  OutputFile file(replacement.temporaryName());
  document.saveToStream(file.stream());
  if (!file.syncAndClose()) fail(replacement.temporaryName() + ": " + file.errorText());
  if (!replacement.tryCommit()) failWithErrno(target);
}

}  // namespace

const char* nameOf(Progress progress) {
  return PROGRESS_NAMES[static_cast<std::size_t>(progress)];
}

std::string State::directoryIn(const std::string& session) {
  return session + "/migrate";
}

std::string State::documentIn(const std::string& session) {
  return directoryIn(session) + "/state.xml";
}

State State::fresh() {
  State state;
  state.agentDirectoryName_ = randomDirectoryName();
  return state;
}

bool State::exists(const std::string& session) {
  struct stat status {};
  return lstat(documentIn(session).c_str(), &status) == 0;
}

State State::load(const std::string& session) {
  const std::string path = documentIn(session);
  refuseForeign(directoryIn(session), S_IFDIR);
  refuseForeign(path, S_IFREG);
  try {
    tXmlDtmDocument document(path.c_str());
    document.initFileDoc(ROOT);
    if (document.getAttribute(document.root(), "version") != VERSION) fail("unknown version");
    State state;
    state.agentDirectoryName_ = document.getAttribute(document.root(), "agent-folder");
    for (const XmlNodeRef node : document.root().elements()) {
      const std::string name = document.getAttribute(node, "name");
      if (node.name() == "setting") {
        state.settings.set(name, document.getNodeText(node));
      } else if (const auto step = stepNamed(name)) {
        state.of(*step) = readRecord(document, node);
      } else {
        fail("unknown step " + name);
      }
    }
    return state;
  } catch (const std::exception& e) {
    fail(path + " cannot be used: " + e.what());
  }
}

void State::save(const std::string& session) const {
  tXmlDtmDocument document;
  document.initNewDoc(ROOT);
  document.addAttribute(document.root(), "version", VERSION);
  document.addAttribute(document.root(), "agent-folder", agentDirectoryName_);
  for (const auto& [name, value] : settings.values()) {
    const XmlNodeRef node = document.newTextChild(document.root(), "setting", value);
    document.addAttribute(node, "name", name);
  }
  for (const Step step : ALL_STEPS) {
    // The steps of a restore are left out if there is none: some programs that read this do not
    // know them.
    const bool isSaid = !isOfRestore(step) || settings.isOn(setting::RESTORE) ||
                        of(step).progress != Progress::WAITING;
    if (isSaid) writeRecord(document, step, of(step));
  }
  replaceFile(document, documentIn(session));
}

std::vector<Step> State::doneSteps() const {
  std::vector<Step> done;
  std::copy_if(ALL_STEPS.begin(), ALL_STEPS.end(), std::back_inserter(done),
               [&](Step step) { return isDone(step); });
  return done;
}

std::vector<Step> State::plan() const {
  std::vector<Step> steps;
  for (const Step step : ALL_STEPS) {
    const bool leftOut = (step == Step::CONTENT && settings.isOn(setting::NO_CONTENT)) ||
                         (step == Step::REMOVE && !isAgentRemoved(settings)) ||
                         (isOfRestore(step) && !settings.isOn(setting::RESTORE));
    if (!leftOut) steps.push_back(step);
  }
  return steps;
}

bool State::isFinished() const {
  const std::vector<Step> steps = plan();
  return std::all_of(steps.begin(), steps.end(), [&](Step step) { return isDone(step); });
}

void State::goBackTo(Step step) {
  const bool agentIsGone = of(Step::REMOVE).progress != Progress::WAITING;
  const bool needsAgent = !isOfRestore(step);
  const Step first = agentIsGone && needsAgent ? std::min(step, Step::DEPLOY) : step;
  for (const Step later : ALL_STEPS) {
    if (later >= first) of(later) = {};
  }
}

std::string State::agentDir() const {
  return agentParentOf(settings) + "/" + agentDirectoryName_;
}

}  // namespace migrate
