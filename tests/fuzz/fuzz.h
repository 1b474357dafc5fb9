#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <boost/lexical_cast.hpp>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "commons/exceptions.h"
#include "commons/unique_fd.h"

/// What the fuzz targets share. Each feeds arbitrary bytes to one reader of data that
/// comes from elsewhere: the sanitizers watch, and what a reader promises is checked.

/// The function that libFuzzer calls.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline std::string asText(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

/// Ends the process, which libFuzzer takes for a finding.
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

/// Runs a reader that may refuse what it is given, but only by the errors it promises.
template <class Read>
void mayRefuse(Read read) {
  try {
    read();
  } catch (const ExTraceable&) {
  } catch (const boost::bad_lexical_cast&) {
  }
}
