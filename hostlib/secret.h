#pragma once

#include <memory>
#include <string>

/// A password, or none; an empty one is one. Moves and never copies, and is wiped from memory
/// when it goes. Never printed, never an argument.
class Secret {
 public:
  Secret() = default;
  explicit Secret(const std::string& text) : text_(std::make_unique<std::string>(text)) {}
  /// Wipes `text`.
  explicit Secret(std::string&& text);
  Secret(Secret&&) noexcept = default;
  /// What was here before is wiped.
  Secret& operator=(Secret&& other) noexcept;
  ~Secret() { wipe(); }

  bool isGiven() const { return text_ != nullptr; }
  /// True when there is none, too.
  bool isEmpty() const { return reveal().empty(); }
  /// The password itself; empty when there is none.
  const std::string& reveal() const;

  /// Forgets it, and leaves no trace of it in memory.
  void wipe();

 private:
  std::unique_ptr<std::string> text_;
};
