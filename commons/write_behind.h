#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Passes bytes, in order, to a second thread, while the caller produces more. The second thread
/// handles no signals.
class WriteBehind {
 public:
  /// How many bytes may be queued.
  static constexpr std::size_t CAPACITY = std::size_t{1} << 20;
  /// Takes bytes; false when it could not take all of them. Called on the second thread only.
  using Take = std::function<bool(const char* bytes, std::size_t size)>;

  /// Throws std::system_error when no thread can be started.
  explicit WriteBehind(Take take);
  /// Waits until the second thread has taken all queued bytes, or has failed to.
  ~WriteBehind();
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;

  /// Queues bytes; waits while the queue is full. False after the thread failed to take some: all
  /// later bytes are dropped. Throws what `take` has thrown, once.
  bool put(const char* bytes, std::size_t size);
  /// Waits until all queued bytes are taken. Returns false and throws as `put` does.
  bool drain();

 private:
  void work();
  bool tryTake(std::size_t size);
  bool succeeded();

  Take take_;
  std::vector<char> ring_;
  std::mutex mutex_;
  std::condition_variable changed_;
  /// The mutex guards the members below. In the ring, the queued bytes belong to the second thread
  /// and the others to the thread that calls `put`.
  std::size_t begin_ = 0;
  std::size_t waiting_ = 0;
  bool hasFailed_ = false;
  bool isClosing_ = false;
  std::exception_ptr error_;
  std::thread thread_;
};
