#include "commons/uuid.h"

#include <cstdlib>

std::string newUUID() {
  static const char pattern[] = "xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx";
  // sizeof counts the terminating zero byte, which belongs to the identifier.
  std::string uuid(pattern, sizeof pattern);
  for (char& c : uuid) {
    if (c == 'x') c = "0123456789abcdef"[std::rand() & 0x0f];
  }
  return uuid;
}
