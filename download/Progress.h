#pragma once

#include <cstdint>
#include <optional>
#include <string>

/// Share of `total` bytes that have been received, in percent. `total` is not 0.
double percentOf(std::int64_t received, std::int64_t total);

/// The speed label's text for `bytes` received in `seconds`, in whole kilobytes of 1,024 bytes per second;
/// nothing while the interval is not longer than a second: the label then keeps what it shows.
std::optional<std::string> speedText(std::int64_t bytes, double seconds);
