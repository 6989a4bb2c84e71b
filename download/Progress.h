#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// How many percent of `total` bytes have been received. `total` must not be 0.
double percentOf(std::int64_t received, std::int64_t total);

/// The text of the speed label for `bytes` received in `seconds`, in whole units of 1,024 bytes per second;
/// below 2 TB/s. Nothing, so that the label keeps its text, if the interval is not longer than a second.
std::optional<std::string> speedText(std::int64_t bytes, double seconds);
