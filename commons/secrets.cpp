#include "commons/secrets.h"

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <vector>

#include "hostlib/secret.h"

namespace {

constexpr std::size_t SHORTEST_SECRET = 8;
constexpr const char* MASK = "********";

std::vector<Secret>& secrets() {
  static std::vector<Secret> remembered;
  return remembered;
}

}  // namespace

void rememberSecret(const std::string& secret) {
  if (secret.size() < SHORTEST_SECRET) return;
  secrets().emplace_back(secret);
  // The longest first: one password may be the beginning of another.
  std::sort(secrets().begin(), secrets().end(),
            [](const Secret& a, const Secret& b) { return a.reveal().size() > b.reveal().size(); });
}

std::string maskSecrets(const std::string& text) {
  std::string masked = text;
  for (const Secret& secret : secrets()) boost::replace_all(masked, secret.reveal(), MASK);
  return masked;
}
