#include "sondrel/progress.h"

#include <algorithm>
#include <log4cpp/Category.hh>
#include <system_error>
#include <utility>

#include "commons/human_readable.h"
#include "commons/progress_text.h"

namespace {

log4cpp::Category& progressLog = log4cpp::Category::getInstance("k.Action");

/// Long enough for a number that can be read, short enough to show a stall.
constexpr std::chrono::seconds RATE_WINDOW{5};
/// Shorter samples measure buffering.
constexpr std::chrono::milliseconds SHORTEST_MEASUREMENT{500};

/// Nothing when a size or the sum is impossible.
std::optional<std::int64_t> sumOfSizes(const std::vector<DumpFile>& files) {
  std::int64_t sum = 0;
  for (const DumpFile& file : files) {
    if (file.size < 0 || !file.sizeIsListed) return std::nullopt;
    if (__builtin_add_overflow(sum, file.size, &sum)) return std::nullopt;
  }
  return sum;
}

}  // namespace

ProgressLine* theProgressLine = nullptr;

ProgressLineController::ProgressLineController(int descriptor)
    : line_(ProgressLine::on(descriptor)) {
  theProgressLine = line_.get();
}

ProgressLineController::~ProgressLineController() {
  theProgressLine = nullptr;
}

std::unique_ptr<ProgressDisplay> ProgressDisplay::on(ProgressLine& line, Ssh& ssh,
                                                     std::function<std::string()> describe) {
  try {
    return std::unique_ptr<ProgressDisplay>(new ProgressDisplay(line, ssh, std::move(describe)));
  } catch (const std::system_error& e) {
    // Progress is optional; go on without.
    progressLog.debug(std::string("No progress is shown: ") + e.what());
    return nullptr;
  }
}

ProgressDisplay::ProgressDisplay(ProgressLine& line, Ssh& ssh,
                                 std::function<std::string()> describe)
    : line_(line),
      ssh_(ssh),
      describe_(std::move(describe)),
      endingSignals_([&line] { line.close(); }) {
  ssh_.setProgressObserver(this);
}

ProgressDisplay::~ProgressDisplay() {
  ssh_.setProgressObserver(nullptr);
  line_.erase();
}

// --- RateMeter ---

void RateMeter::note(Clock::time_point now, std::int64_t bytes) {
  samples_.push_back({now, bytes});
  // Keeps one sample that is as old as the window or older: the measurement begins there.
  while (samples_.size() > 2 && samples_[1].time <= now - RATE_WINDOW) samples_.pop_front();
}

std::optional<std::int64_t> RateMeter::rate() const {
  if (samples_.empty()) return std::nullopt;
  const auto time = std::chrono::duration_cast<std::chrono::milliseconds>(samples_.back().time -
                                                                          samples_.front().time);
  if (time < SHORTEST_MEASUREMENT) return std::nullopt;
  const auto bytes = static_cast<double>(samples_.back().bytes - samples_.front().bytes);
  return static_cast<std::int64_t>(bytes * 1000 / static_cast<double>(time.count()));
}

// --- ContentProgress ---

ContentProgress::ContentProgress(const std::vector<DumpFile>& files)
    : filesTotal_(static_cast<std::int64_t>(files.size())),
      filesLeft_(filesTotal_),
      bytesTotal_(sumOfSizes(files)) {}

void ContentProgress::startFile(const std::string& name, std::int64_t size) {
  file_ = name;
  sizeOfFile_ = size;
  bytesOfFile_ = 0;
}

void ContentProgress::receive(int bytes) {
  bytesOfFile_ += bytes;
  bytesReceived_ += bytes;
}

void ContentProgress::finishFile() {
  --filesLeft_;
  if (bytesTotal_) bytesOfDoneFiles_ += sizeOfFile_;
  sizeOfFile_ = 0;
  bytesOfFile_ = 0;
}

std::optional<std::int64_t> ContentProgress::bytesLeft() const {
  if (!bytesTotal_) return std::nullopt;
  // Of a file that is larger than listed only the listed size counts.
  return *bytesTotal_ - bytesOfDoneFiles_ - std::min(bytesOfFile_, sizeOfFile_);
}

std::string ContentProgress::describe(RateMeter::Clock::time_point now) {
  rate_.note(now, bytesReceived_);
  TransferFigures figures;
  figures.filesTotal = filesTotal_;
  figures.filesLeft = filesLeft_;
  figures.bytesTotal = bytesTotal_;
  figures.bytesLeft = bytesLeft();
  figures.bytesReceived = bytesReceived_;
  figures.rate = rate_.rate();
  figures.file = file_;
  return describeTransfer(figures);
}

// --- DumpProgress ---

DumpProgress::DumpProgress(std::string statusFile)
    : statusFile_(std::move(statusFile)), started_(std::time(nullptr)) {}

std::string DumpProgress::describe() const {
  std::string line = "dump, " + formatDuration(std::time(nullptr) - started_);
  // An older status is that of another dump.
  const auto status = readDocument(statusFile_, formatTime(started_));
  const std::string told = status ? describeDump(*status) : "";
  return told.empty() ? line : line + ": " + told;
}
