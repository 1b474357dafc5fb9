#pragma once

#include <memory>
#include <string>

/// A password, or none; an empty password counts as one. It can be moved but not copied, and the
/// destructor wipes it from memory. It must never be printed or become an argument.
class Secret {
 public:
  Secret() = default;
  explicit Secret(const std::string& text) : text_(std::make_unique<std::string>(text)) {}
  /// Wipes `text`.
  explicit Secret(std::string&& text);
  Secret(Secret&&) noexcept = default;
  /// Wipes the old value first.
  Secret& operator=(Secret&& other) noexcept;
  ~Secret() { wipe(); }

  bool isGiven() const { return text_ != nullptr; }
  /// True also when there is no password.
  bool isEmpty() const { return reveal().empty(); }
  /// The password itself; empty when there is none.
  const std::string& reveal() const;

  /// Overwrites the password in memory and forgets it.
  void wipe();

 private:
  std::unique_ptr<std::string> text_;
};
