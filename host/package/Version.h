#pragma once

#include <compare>
#include <string_view>

namespace package {

/// Whether the text is a version: numbers of any length with dots between them.
bool isVersion(std::string_view text);

/// Orders versions: 2.0.10 is above 2.0.9, and 2.0 equals 2.0.0. Of a text that is none, the beginning up to
/// the first other character counts; older receipts may have one.
std::strong_ordering compareVersions(std::string_view a, std::string_view b);

} // namespace package
