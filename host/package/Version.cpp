#include "host/package/Version.h"

#include <algorithm>

namespace package {

namespace {

constexpr std::string_view kDigits = "0123456789";

// The number before the next dot, without leading zeros; empty for zero.
std::string_view takeNumber(std::string_view& version) {
    const std::size_t end = std::min(version.find_first_not_of(kDigits), version.size());
    std::string_view number = version.substr(0, end);
    number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
    const bool hasMore = end < version.size() && version[end] == '.';
    version.remove_prefix(hasMore ? end + 1 : version.size());
    return number;
}

} // namespace

bool isVersion(std::string_view text) {
    char before = '.';
    for (const char c : text) {
        if (kDigits.find(c) == std::string_view::npos && (c != '.' || before == '.')) {
            return false;
        }
        before = c;
    }
    return before != '.';
}

std::strong_ordering compareVersions(std::string_view a, std::string_view b) {
    while (!a.empty() || !b.empty()) {
        const std::string_view left = takeNumber(a);
        const std::string_view right = takeNumber(b);
        if (const auto order = left.size() <=> right.size(); order != 0) {
            return order;
        }
        if (const auto order = left <=> right; order != 0) {
            return order;
        }
    }
    return std::strong_ordering::equal;
}

} // namespace package
