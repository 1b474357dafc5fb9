#include "commons/agent_spec.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile spec(asText(data, size));
  mayRefuse([&] {
    for (const std::string& value : Agent::parse(spec.path())) {
      require(value.find('\n') == std::string::npos);
      require(value.empty() || value.find_first_not_of(" \t\v\f\r") == 0);
    }
  });
  return 0;
}
