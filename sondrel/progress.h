#pragma once

#include <chrono>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "commons/ending_signals.h"
#include "commons/formats.h"
#include "commons/progress_line.h"
#include "transport/ssh-transfer.h"

/// Progress display for interactive runs. Without a terminal none of this is created.

/// The progress line of this process; null when there is no observer.
extern ProgressLine* theProgressLine;

/// Sets theProgressLine to the line of the terminal `descriptor`; the destructor resets it.
class ProgressLineController {
 public:
  explicit ProgressLineController(int descriptor);
  ~ProgressLineController();
  ProgressLineController(const ProgressLineController&) = delete;
  ProgressLineController& operator=(const ProgressLineController&) = delete;

 private:
  std::unique_ptr<ProgressLine> line_;
};

/// While it lives, the progress line shows the text of `describe`, redrawn while the connection is
/// in use. A termination signal erases the line before it ends the process.
class ProgressDisplay : public ProgressObserver {
 public:
  /// Null when its helper thread cannot be started. `ssh`, `line` and everything that `describe`
  /// uses must outlive the display.
  static std::unique_ptr<ProgressDisplay> on(ProgressLine& line, Ssh& ssh,
                                             std::function<std::string()> describe);
  ~ProgressDisplay() override;
  ProgressDisplay(const ProgressDisplay&) = delete;
  ProgressDisplay& operator=(const ProgressDisplay&) = delete;

  void tick() override { line_.show(describe_); }

 private:
  ProgressDisplay(ProgressLine& line, Ssh& ssh, std::function<std::string()> describe);

  ProgressLine& line_;
  Ssh& ssh_;
  std::function<std::string()> describe_;
  EndingSignals endingSignals_;
};

/// The speed of a transfer over the last seconds.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;

  /// Notes the number of bytes so far. `now` must not decrease.
  void note(Clock::time_point now, std::int64_t bytes);
  /// Bytes per second; nothing before enough time has passed.
  std::optional<std::int64_t> rate() const;

 private:
  struct Sample {
    Clock::time_point time;
    std::int64_t bytes;
  };
  std::deque<Sample> samples_;
};

/// How far a content run is. Files that were here before count as done, unlike in the migration
/// status, so that the time left is that of the missing files.
class ContentProgress {
 public:
  explicit ContentProgress(const std::vector<DumpFile>& files);

  void startFile(const std::string& name, std::int64_t size);
  void receive(int bytes);
  void finishFile();
  std::string describe(RateMeter::Clock::time_point now);

  /// The bytes of the content list, and those of them that are missing; nothing when the list has
  /// impossible sizes.
  std::optional<std::int64_t> bytesTotal() const { return bytesTotal_; }
  std::optional<std::int64_t> bytesLeft() const;

 private:
  std::int64_t filesTotal_;
  std::int64_t filesLeft_;
  /// Nothing when the list has impossible sizes.
  std::optional<std::int64_t> bytesTotal_;
  std::int64_t bytesOfDoneFiles_ = 0;
  std::int64_t bytesReceived_ = 0;
  std::int64_t bytesOfFile_ = 0;
  std::int64_t sizeOfFile_ = 0;
  std::string file_;
  RateMeter rate_;
};

/// How far a dump is: the time since it began, and the agent's dumping status as the alarm fetched
/// it last. Sends no command of its own to the source host.
class DumpProgress {
 public:
  explicit DumpProgress(std::string statusFile);
  std::string describe() const;

 private:
  std::string statusFile_;
  std::time_t started_;
};
