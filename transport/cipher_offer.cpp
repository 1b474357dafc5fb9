#include "transport/cipher_offer.h"

#include <algorithm>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <cstdint>
#include <optional>

namespace {

/// More than the longest message that the protocol has every peer take, and a greeting.
constexpr std::size_t LONGEST_OFFER = 64 << 10;
constexpr std::size_t LENGTH_BYTES = 4;
/// The length of the padding, the kind of the message, and the random bytes behind it.
constexpr std::size_t LISTS_BEGIN = 1 + 1 + 16;
constexpr char KEY_EXCHANGE_INIT = 20;
/// Of the lists of names.
constexpr int CIPHERS_TO_SERVER = 2;
constexpr int CIPHERS_TO_CLIENT = 3;

std::size_t numberAt(const std::string& text, std::size_t place) {
  std::uint32_t number = 0;
  for (std::size_t i = 0; i < LENGTH_BYTES; ++i) {
    number = number << 8 | static_cast<unsigned char>(text[place + i]);
  }
  return number;
}

/// The list of names at `place`, which is moved behind it; nothing where the message ends before.
std::optional<std::string> takeList(const std::string& message, std::size_t& place) {
  if (message.size() - place < LENGTH_BYTES) return std::nullopt;
  const std::size_t size = numberAt(message, place);
  place += LENGTH_BYTES;
  if (message.size() - place < size) return std::nullopt;
  const std::string list = message.substr(place, size);
  place += size;
  return list;
}

std::vector<std::string> namesIn(const std::string& list) {
  std::vector<std::string> names;
  boost::split(names, list, boost::is_any_of(","));
  return names;
}

/// The cipher that both sides take: the client's order decides.
std::string chosen(const std::vector<std::string>& preferred,
                   const std::vector<std::string>& offered) {
  const auto found =
      std::find_first_of(preferred.begin(), preferred.end(), offered.begin(), offered.end());
  return found == preferred.end() ? "" : *found;
}

}  // namespace

bool isGcmCipher(const std::string& cipher) {
  return boost::ends_with(cipher, "-gcm@openssh.com");
}

void CipherOffer::add(const char* bytes, std::size_t size) {
  if (isOver_) return;
  text_.append(bytes, size);
  if (skipGreeting() && text_.size() >= LENGTH_BYTES) {
    const std::size_t length = numberAt(text_, 0);
    if (length > LONGEST_OFFER) return finish();
    if (text_.size() < LENGTH_BYTES + length) return;
    readMessage(text_.substr(LENGTH_BYTES, length));
    return finish();
  }
  if (text_.size() > LONGEST_OFFER) finish();
}

/// True when the greeting has come: text_ is what follows it. There may be other lines in front.
bool CipherOffer::skipGreeting() {
  while (!isGreeted_) {
    const std::size_t end = text_.find('\n', lineBegin_);
    if (end == std::string::npos) return false;
    isGreeted_ = text_.compare(lineBegin_, 4, "SSH-") == 0;
    lineBegin_ = end + 1;
    if (isGreeted_) text_.erase(0, lineBegin_);
  }
  return true;
}

void CipherOffer::readMessage(const std::string& message) {
  if (message.size() < LISTS_BEGIN || message[1] != KEY_EXCHANGE_INIT) return;
  std::size_t place = LISTS_BEGIN;
  std::vector<std::string> lists;
  while (lists.size() <= CIPHERS_TO_CLIENT) {
    const std::optional<std::string> list = takeList(message, place);
    if (!list) return;
    lists.push_back(*list);
  }
  toServer_ = namesIn(lists[CIPHERS_TO_SERVER]);
  toClient_ = namesIn(lists[CIPHERS_TO_CLIENT]);
  isKnown_ = true;
}

void CipherOffer::finish() {
  isOver_ = true;
  text_ = std::string();
}

bool CipherOffer::makesMixedPairOf(const std::vector<std::string>& preferred) const {
  return isKnown_ &&
         isGcmCipher(chosen(preferred, toServer_)) != isGcmCipher(chosen(preferred, toClient_));
}
