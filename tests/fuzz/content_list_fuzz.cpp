#include <memory>

#include "commons/formats.h"
#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  mayRefuse([&] {
    const std::unique_ptr<const AgentFileList> list(getFileList(asText(data, size)));
    for (const DumpFile& file : list->getFileList()) {
      require(file.sizeIsListed || file.size == 0);
      // The name is shown in the status document.
      require(toXmlSafeText(toXmlSafeText(file.name)) == toXmlSafeText(file.name));
    }
    list->getTotalSize();
    list->getUnpackedSize();
  });
  return 0;
}
