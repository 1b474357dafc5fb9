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

/// Progress display for interactive runs. Without a terminal
/// nothing of it is made.

/// The line of progress of this process; null where there is no observer.
extern ProgressLine* theProgressLine;

/// Sets theProgressLine, to the line of a terminal, and takes it away again.
class ProgressLineController {
 public:
  explicit ProgressLineController(int descriptor);
  ~ProgressLineController();
  ProgressLineController(const ProgressLineController&) = delete;
  ProgressLineController& operator=(const ProgressLineController&) = delete;

 private:
  std::unique_ptr<ProgressLine> line_;
};

/// While it lives, what `describe` says is on the line, and drawn over again while the
/// connection is in use. A signal that ends the process erases it first.
class ProgressDisplay : public ProgressObserver {
 public:
  /// Null when there is no thread to be had for it. `ssh`, `line` and what `describe`
  /// uses, must outlive the display.
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

/// How fast something is, as of the last seconds.
class RateMeter {
 public:
  using Clock = std::chrono::steady_clock;

  /// Takes down the number of bytes so far; at times that only grow.
  void note(Clock::time_point now, std::int64_t bytes);
  /// Bytes in a second; none before some time has passed.
  std::optional<std::int64_t> rate() const;

 private:
  struct Sample {
    Clock::time_point time;
    std::int64_t bytes;
  };
  std::deque<Sample> samples_;
};

/// How far a content run is. What is here already counts as done, unlike in the migration
/// status, so that the time left is that of what is still to come.
class ContentProgress {
 public:
  explicit ContentProgress(const std::vector<DumpFile>& files);

  void startFile(const std::string& name, std::int64_t size);
  void receive(int bytes);
  void finishFile();
  std::string describe(RateMeter::Clock::time_point now);

  /// The bytes that are listed, and those of them that are still to come; none where the list
  /// has impossible sizes.
  std::optional<std::int64_t> bytesTotal() const { return bytesTotal_; }
  std::optional<std::int64_t> bytesLeft() const;

 private:
  std::int64_t filesTotal_;
  std::int64_t filesLeft_;
  /// None where the list has impossible sizes.
  std::optional<std::int64_t> bytesTotal_;
  std::int64_t bytesOfDoneFiles_ = 0;
  std::int64_t bytesReceived_ = 0;
  std::int64_t bytesOfFile_ = 0;
  std::int64_t sizeOfFile_ = 0;
  std::string file_;
  RateMeter rate_;
};

/// How far a dump is: how long it takes, and what the agent's status says, as the alarm
/// fetches it. Nothing else is asked of the source host.
class DumpProgress {
 public:
  explicit DumpProgress(std::string statusFile);
  std::string describe() const;

 private:
  std::string statusFile_;
  std::time_t started_;
};
