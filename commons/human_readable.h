#pragma once

#include <cstdint>
#include <ctime>
#include <string>

/// "999 B", "1.2 kB", "3.4 GB": powers of 1000.
std::string formatBytes(std::int64_t bytes);

/// "0:07", "12:34", "1:02:03".
std::string formatDuration(std::int64_t seconds);

/// UTC, as in "2026-11-21T10:00:00Z". Texts of this form sort by time.
std::string formatTime(std::time_t time);

/// The seconds between two such texts; 0 when one is not of that form.
std::int64_t secondsBetween(const std::string& earlier, const std::string& later);
