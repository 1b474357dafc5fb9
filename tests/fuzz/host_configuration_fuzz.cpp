#include "hostlib/qrv_conf.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(asText(data, size));
  const auto values = readQrvConf(file.path().c_str());
  require(values != nullptr);
  for (const auto& [key, value] : *values) {
    require(!key.empty() && key.find_first_of(" \t#\n") == std::string::npos);
    require(value.find('\n') == std::string::npos);
    require(value.empty() || value.find_first_of(" \t") != 0);
  }
  return 0;
}
