#include "commons/secrets.h"

#include <algorithm>
#include <boost/algorithm/string/replace.hpp>
#include <vector>

namespace {

constexpr std::size_t SHORTEST_SECRET = 8;
constexpr const char* MASK = "********";

std::vector<std::string>& secrets() {
  static std::vector<std::string> remembered;
  return remembered;
}

}  // namespace

void rememberSecret(const std::string& secret) {
  if (secret.size() < SHORTEST_SECRET) return;
  secrets().push_back(secret);
  // The longest first: one password may be the beginning of another.
  std::sort(secrets().begin(), secrets().end(),
            [](const std::string& a, const std::string& b) { return a.size() > b.size(); });
}

std::string maskSecrets(const std::string& text) {
  std::string masked = text;
  for (const std::string& secret : secrets()) boost::replace_all(masked, secret, MASK);
  return masked;
}
