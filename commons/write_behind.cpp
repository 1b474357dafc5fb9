#include "commons/write_behind.h"

#include <algorithm>
#include <utility>

#include "commons/signal_mask.h"

namespace {

/// The most that is written in one call: room is free again before the whole queue is written.
constexpr std::size_t LARGEST_PIECE = std::size_t{256} << 10;

}  // namespace

WriteBehind::WriteBehind(Take take) : take_(std::move(take)), ring_(CAPACITY) {
  const SignalMaskGuard none(SIG_BLOCK, allSignals());
  thread_ = std::thread([this] { work(); });
}

WriteBehind::~WriteBehind() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    isClosing_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

bool WriteBehind::put(const char* bytes, std::size_t size) {
  while (size > 0) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return hasFailed_ || waiting_ < CAPACITY; });
    if (hasFailed_) return succeeded();
    const std::size_t end = (begin_ + waiting_) % CAPACITY;
    const std::size_t count = std::min({size, CAPACITY - waiting_, CAPACITY - end});
    lock.unlock();
    std::copy_n(bytes, count, ring_.begin() + static_cast<std::ptrdiff_t>(end));
    lock.lock();
    waiting_ += count;
    lock.unlock();
    changed_.notify_all();
    bytes += count;
    size -= count;
  }
  return true;
}

bool WriteBehind::drain() {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [this] { return hasFailed_ || waiting_ == 0; });
  return succeeded();
}

/// The caller must hold the mutex.
bool WriteBehind::succeeded() {
  if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
  return !hasFailed_;
}

void WriteBehind::work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] { return isClosing_ || waiting_ > 0; });
    if (waiting_ == 0 || hasFailed_) return;
    const std::size_t count = std::min({waiting_, CAPACITY - begin_, LARGEST_PIECE});
    lock.unlock();
    const bool isTaken = tryTake(count);
    lock.lock();
    begin_ = (begin_ + count) % CAPACITY;
    waiting_ -= count;
    hasFailed_ = !isTaken;
    changed_.notify_all();
  }
}

bool WriteBehind::tryTake(std::size_t size) {
  try {
    return take_(ring_.data() + begin_, size);
  } catch (...) {
    const std::lock_guard<std::mutex> lock(mutex_);
    error_ = std::current_exception();
    return false;
  }
}
