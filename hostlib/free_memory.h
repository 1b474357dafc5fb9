#pragma once

#include <cstdlib>

/// Lets a unique_ptr own what a C function allocated with malloc.
struct FreeMemory {
  void operator()(char* memory) const noexcept { std::free(memory); }
};
