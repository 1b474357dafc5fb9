#include "sondrel/dump_selection.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const MemoryFile file(asText(data, size));
  mayRefuse([&] {
    std::string domains;
    std::string clients;
    std::string resellers;
    int onlyMode = ALL_DATA;
    int compression = DEFAULT_COMPRESSION;
    bool server = false;
    bool adminInfo = false;
    bool noLicense = false;
    parseSelectedObjectsFile(file.path(), domains, clients, resellers, onlyMode, compression,
                             server, adminInfo, noLicense);
    require(onlyMode >= ALL_DATA && onlyMode <= ONLY_HOSTING);
    require(compression >= DEFAULT_COMPRESSION && compression <= NO_COMPRESSION);
    require(server || !noLicense);
  });
  return 0;
}
