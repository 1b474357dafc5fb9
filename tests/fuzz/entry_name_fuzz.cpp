#include <boost/filesystem/path.hpp>

#include "commons/content_directory.h"
#include "tests/fuzz/fuzz.h"

namespace {

/// True when the system would stay below the directory with this name, if there were no symbolic
/// links. Computed in another way than by the check itself.
bool staysBelow(const std::string& directory, const std::string& name) {
  const boost::filesystem::path below = boost::filesystem::path(directory) / name.c_str();
  const std::string reached = below.lexically_normal().string();
  return reached.size() > directory.size() + 1 &&
         reached.compare(0, directory.size(), directory) == 0 && reached[directory.size()] == '/' &&
         reached.back() != '/' && below.filename() != ".";
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string name = asText(data, size);
  if (whyUnsafeName(name).empty()) {
    require(staysBelow("/directory", name));
    require(name.find('\0') == std::string::npos);
  }
  return 0;
}
