#include "commons/human_readable.h"

#include <array>
#include <cstdio>
#include <optional>

namespace {

const char* const TIME_FORMAT = "%Y-%m-%dT%H:%M:%SZ";

std::optional<std::time_t> parseTime(const std::string& text) {
  std::tm parts{};
  const char* const end = strptime(text.c_str(), TIME_FORMAT, &parts);
  if (!end || *end != '\0') return std::nullopt;
  return timegm(&parts);
}

}  // namespace

std::string formatBytes(std::int64_t bytes) {
  constexpr std::array<const char*, 6> UNITS = {"B", "kB", "MB", "GB", "TB", "PB"};
  if (bytes < 1000) return std::to_string(bytes) + " B";
  std::size_t unit = 1;
  std::int64_t unitBytes = 1000;
  // A size that would be shown as 1000.0 takes the next unit. Compared in whole numbers, because
  // 999.95 is not the same floating-point number on every processor.
  while (bytes >= unitBytes / 20 * 19999 && unit + 1 < UNITS.size()) {
    unitBytes *= 1000;
    ++unit;
  }
  const double figure = static_cast<double>(bytes) / static_cast<double>(unitBytes);
  std::array<char, 32> text;
  std::snprintf(text.data(), text.size(), "%.1f %s", figure, UNITS[unit]);
  return text.data();
}

std::string formatDuration(std::int64_t seconds) {
  std::array<char, 48> text;
  const auto hours = static_cast<long long>(seconds / 3600);
  const int minutes = static_cast<int>(seconds / 60 % 60);
  const int rest = static_cast<int>(seconds % 60);
  if (hours > 0) {
    std::snprintf(text.data(), text.size(), "%lld:%02d:%02d", hours, minutes, rest);
  } else {
    std::snprintf(text.data(), text.size(), "%d:%02d", minutes, rest);
  }
  return text.data();
}

std::string formatTime(std::time_t time) {
  std::tm parts{};
  gmtime_r(&time, &parts);
  std::array<char, 32> text;
  const std::size_t length = std::strftime(text.data(), text.size(), TIME_FORMAT, &parts);
  return {text.data(), length};
}

std::int64_t secondsBetween(const std::string& earlier, const std::string& later) {
  const auto begin = parseTime(earlier);
  const auto end = parseTime(later);
  return begin && end ? *end - *begin : 0;
}
