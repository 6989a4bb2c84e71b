#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Writes all of `bytes` to a blocking descriptor, resuming after interruptions and short writes. False, with
/// `errno` set, if only a part could be written. Any thread.
bool writeAll(int descriptor, std::string_view bytes);

/// Copies one blocking descriptor, from its position to its end, to another. False, with `errno` set, on
/// failure. Any thread.
bool copyAll(int from, int to);

/// Reads a blocking descriptor to its end. nullopt, with `errno` set, on failure. Any thread.
std::optional<std::string> readAll(int descriptor);
