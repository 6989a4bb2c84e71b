#pragma once

#include <compare>
#include <string_view>

namespace package {

/// Orders version numbers: 2.0.10 is above 2.0.9, and 2.0 equals 2.0.0. Components between dots are compared
/// as numbers of any length, then by the text behind the number: 2.0b is above 2.0a, and both are above 2.0.
std::strong_ordering compareVersions(std::string_view a, std::string_view b);

} // namespace package
