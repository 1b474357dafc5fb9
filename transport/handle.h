#pragma once

#include <cstdlib>

#include "commons/exceptions.h"

DECLARE_ERROR_TAG(InvalidHandle, "Invalid handle passed");

/// Refuses null, which the SSH library returns for every handle it cannot make.
struct DefaultValidationPolicy {
  template <class T>
  static void validate(T* handle) {
    if (!handle) throw Exc<&InvalidHandle>(HERE);
  }
};

/// Frees what was allocated with malloc.
template <class T>
void DefaultDestructionFunc(T* handle) {
  std::free(handle);
}

/// Owns one raw handle of a C library and frees it exactly once. Never null: wrap
/// the raw result in the statement that obtains it. Throws InvalidHandle.
template <class T, void (*DestructionFunc)(T*), class ValidationPolicy = DefaultValidationPolicy>
class Handle {
 public:
  explicit Handle(T* handle) : handle_(handle) { ValidationPolicy::validate(handle); }
  virtual ~Handle() { DestructionFunc(handle_); }
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  T* get() const { return handle_; }

 private:
  T* handle_;
};
