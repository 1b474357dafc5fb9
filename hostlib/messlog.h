#pragma once

#include <string>

/// Writes one line to the system log, at error priority, as "sondrel".
///
/// For what must be reported when neither a debug log nor an error result can carry
/// it: an unreadable configuration file, an unknown account, the child side of a
/// fork. A line end at the end of `text` is dropped. Never fails.
void messlog2(const std::string& text) noexcept;
