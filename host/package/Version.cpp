#include "package/Version.h"

#include <algorithm>

namespace package {

namespace {

std::string_view takeComponent(std::string_view& version) {
    const std::size_t end = std::min(version.find('.'), version.size());
    const std::string_view component = version.substr(0, end);
    version.remove_prefix(std::min(end + 1, version.size()));
    return component;
}

// The digits at the beginning, without leading zeros.
std::string_view takeNumber(std::string_view& component) {
    const std::size_t end = std::min(component.find_first_not_of("0123456789"), component.size());
    std::string_view number = component.substr(0, end);
    component.remove_prefix(end);
    number.remove_prefix(std::min(number.find_first_not_of('0'), number.size()));
    return number;
}

} // namespace

std::strong_ordering compareVersions(std::string_view a, std::string_view b) {
    while (!a.empty() || !b.empty()) {
        std::string_view left = takeComponent(a);
        std::string_view right = takeComponent(b);
        const std::string_view leftNumber = takeNumber(left);
        const std::string_view rightNumber = takeNumber(right);
        if (const auto order = leftNumber.size() <=> rightNumber.size(); order != 0) {
            return order;
        }
        if (const auto order = leftNumber <=> rightNumber; order != 0) {
            return order;
        }
        if (const auto order = left <=> right; order != 0) {
            return order;
        }
    }
    return std::strong_ordering::equal;
}

} // namespace package
