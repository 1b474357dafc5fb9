#include "commons/jump_host.h"

#include <algorithm>

namespace {

constexpr long LARGEST_PORT = 65535;

/// True when ssh and its configuration take `text` as one word, and not as an option.
bool isPlainWord(const std::string& text) {
  constexpr const char* FORBIDDEN = "\"'`\\$;&<>|(){}*?!%,";
  return !text.empty() && text.front() != '-' &&
         text.find_first_of(FORBIDDEN) == std::string::npos &&
         std::all_of(text.begin(), text.end(),
                     [](unsigned char byte) { return byte > ' ' && byte < 0x7f; });
}

/// The port number in `text`; 0 when it is none.
std::uint16_t portIn(const std::string& text) {
  constexpr std::size_t MOST_DIGITS = 5;
  if (text.empty() || text.size() > MOST_DIGITS) return 0;
  if (text.find_first_not_of("0123456789") != std::string::npos) return 0;
  const long port = std::stol(text);
  return port > LARGEST_PORT ? std::uint16_t{0} : static_cast<std::uint16_t>(port);
}

}  // namespace

std::optional<JumpHost> parseJumpHost(const std::string& text) {
  JumpHost jump;
  const std::size_t at = text.rfind('@');
  if (at != std::string::npos) jump.login = text.substr(0, at);
  if (at != std::string::npos && !isPlainWord(jump.login)) return std::nullopt;
  const std::string place = at == std::string::npos ? text : text.substr(at + 1);
  const bool isBracketed = !place.empty() && place.front() == '[';
  const std::size_t end = isBracketed ? place.find(']') : place.find(':');
  if (isBracketed && end == std::string::npos) return std::nullopt;
  jump.host = isBracketed ? place.substr(1, end - 1) : place.substr(0, end);
  if (!isPlainWord(jump.host) || jump.host.find_first_of("[]/@") != std::string::npos) {
    return std::nullopt;
  }
  const std::string rest =
      end == std::string::npos ? "" : place.substr(isBracketed ? end + 1 : end);
  if (rest.empty()) return jump;
  jump.port = rest.front() == ':' ? portIn(rest.substr(1)) : std::uint16_t{0};
  if (jump.port == 0) return std::nullopt;
  return jump;
}
