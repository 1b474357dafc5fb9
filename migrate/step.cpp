#include "migrate/step.h"

#include <algorithm>

namespace migrate {

namespace {

constexpr std::array<const char*, ALL_STEPS.size()> NAMES = {"scout",  "deploy", "dump",  "content",
                                                             "remove", "plan",   "apply", "verify"};

}  // namespace

const char* nameOf(Step step) {
  return NAMES[indexOf(step)];
}

std::optional<Step> stepNamed(const std::string& name) {
  const auto* const found = std::find(NAMES.begin(), NAMES.end(), name);
  if (found == NAMES.end()) return std::nullopt;
  return ALL_STEPS[static_cast<std::size_t>(found - NAMES.begin())];
}

}  // namespace migrate
