#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Writes all of `bytes` to a blocking descriptor, resuming after interruptions and short writes. False, with
/// `errno` set, when the descriptor took only a part. Any thread.
bool writeAll(int descriptor, std::string_view bytes);

/// Copies what is left of one blocking descriptor to another. False, with `errno` set, when that failed. Any
/// thread.
bool copyAll(int from, int to);

/// Reads a blocking descriptor to its end. Nothing, with `errno` set, when reading failed. Any thread.
std::optional<std::string> readAll(int descriptor);
