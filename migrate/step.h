#pragma once

#include <array>
#include <optional>
#include <string>

namespace migrate {

/// The steps of a migration; each is one run of sondrel.
enum class Step { SCOUT, DEPLOY, DUMP, CONTENT, REMOVE };

/// In the order in which they are made.
constexpr std::array<Step, 5> ALL_STEPS = {Step::SCOUT, Step::DEPLOY, Step::DUMP, Step::CONTENT,
                                           Step::REMOVE};

constexpr std::size_t indexOf(Step step) {
  return static_cast<std::size_t>(step);
}

/// The name that people and documents use: "scout", "deploy" and so on.
const char* nameOf(Step step);

/// The step of that name; nothing when there is none.
std::optional<Step> stepNamed(const std::string& name);

}  // namespace migrate
