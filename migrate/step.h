#pragma once

#include <array>
#include <optional>
#include <string>

namespace migrate {

/// The steps of a migration. Each is one run of sondrel; those of a restore, which come last and
/// only where they are asked for, are runs of sondrel-restore.
enum class Step { SCOUT, DEPLOY, DUMP, CONTENT, REMOVE, PLAN, APPLY, VERIFY };

/// In the order in which they are made.
constexpr std::array<Step, 8> ALL_STEPS = {Step::SCOUT,  Step::DEPLOY, Step::DUMP,  Step::CONTENT,
                                           Step::REMOVE, Step::PLAN,   Step::APPLY, Step::VERIFY};

constexpr std::size_t indexOf(Step step) {
  return static_cast<std::size_t>(step);
}

/// True for a step that is made on this host alone, by sondrel-restore.
constexpr bool isOfRestore(Step step) {
  return step >= Step::PLAN;
}

/// The name that people and documents use: "scout", "deploy" and so on.
const char* nameOf(Step step);

/// The step of that name; nothing when there is none.
std::optional<Step> stepNamed(const std::string& name);

}  // namespace migrate
