#pragma once

#include <condition_variable>
#include <cstddef>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

/// Has a second thread take bytes, in their order, while more are brought by the thread that
/// made it. No signal is handled on that thread.
class WriteBehind {
 public:
  /// How many bytes may wait to be taken.
  static constexpr std::size_t CAPACITY = std::size_t{1} << 20;
  /// Takes bytes; false when it could not take all of them. Called on the second thread only.
  using Take = std::function<bool(const char* bytes, std::size_t size)>;

  /// Throws std::system_error when there is no thread to be had.
  explicit WriteBehind(Take take);
  /// Waits until all that was brought is taken, or has failed to be.
  ~WriteBehind();
  WriteBehind(const WriteBehind&) = delete;
  WriteBehind& operator=(const WriteBehind&) = delete;

  /// Brings bytes, and waits for room for them. False once some could not be taken: what was
  /// brought behind those is dropped. Throws what `take` has thrown, once.
  bool put(const char* bytes, std::size_t size);
  /// Waits until all that was brought is taken. False, and throws, as `put`.
  bool drain();

 private:
  void work();
  bool tryTake(std::size_t size);
  bool succeeded();

  Take take_;
  std::vector<char> ring_;
  std::mutex mutex_;
  std::condition_variable changed_;
  /// All below belongs to who holds the mutex; of the ring's bytes those that wait to the
  /// second thread, and the others to the one that brings them.
  std::size_t begin_ = 0;
  std::size_t waiting_ = 0;
  bool hasFailed_ = false;
  bool isClosing_ = false;
  std::exception_ptr error_;
  std::thread thread_;
};
