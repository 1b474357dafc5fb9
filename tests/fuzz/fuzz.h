#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "commons/exceptions.h"
#include "commons/unique_fd.h"

/// Helpers for the fuzz targets. Each target feeds arbitrary bytes to one reader of data from
/// elsewhere: the sanitizers watch it, and the target checks what the reader promises.

/// The function that libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline std::string asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Ends the process when a promise is broken; libFuzzer reports that as a finding.
inline void require(bool kept) {
  if (!kept) std::abort();
}

/// A file that holds the text, for readers that want a path.
class MemoryFile {
 public:
  explicit MemoryFile(const std::string& text) : file_(memfd_create("fuzz", MFD_CLOEXEC)) {
    require(write(file_.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()));
  }
  std::string path() const { return "/proc/self/fd/" + std::to_string(file_.get()); }

 private:
  UniqueFd file_;
};

/// Runs a reader that may refuse its input, but only by the errors that it promises.
template <class Read>
void mayRefuse(Read read) {
  try {
    read();
  } catch (const ExTraceable&) {
  } catch (const boost::bad_lexical_cast&) {
  }
}
