#pragma once

#include <string>

/// A random identifier in the form of a version 4 UUID, drawn from rand().
///
/// 37 characters: the 36 visible ones and a terminating zero byte that is part of the string. Text
/// output contains that byte, and callers compare it; in XML the text ends before it.
std::string newUUID();
