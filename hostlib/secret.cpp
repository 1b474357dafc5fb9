#include "hostlib/secret.h"

#include <string.h>

#include <utility>

Secret::Secret(std::string&& text) : text_(std::make_unique<std::string>(text)) {
  explicit_bzero(text.data(), text.size());
}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this == &other) return *this;
  wipe();
  text_ = std::move(other.text_);
  return *this;
}

const std::string& Secret::reveal() const {
  static const std::string none;
  return text_ ? *text_ : none;
}

void Secret::wipe() {
  if (text_) explicit_bzero(text_->data(), text_->size());
  text_.reset();
}
