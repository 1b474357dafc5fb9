#include "commons/tar_archive.h"

#include "tests/fuzz/fuzz.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text = asText(data, size);
  bool given = false;
  mayRefuse([&] {
    TarReader reader([&] {
      const std::string_view piece = given ? std::string_view() : std::string_view(text);
      given = true;
      return piece;
    });
    while (reader.next()) {
      if (!reader.member().oddity.empty()) continue;
      std::size_t taken = 0;
      for (auto part = reader.content(); !part.empty(); part = reader.content()) {
        taken += part.size();
        // No member may be larger than the archive.
        require(taken <= size);
      }
      require(taken == static_cast<std::size_t>(reader.member().size));
    }
  });
  return 0;
}
