#include "host/package/Text.h"

#include "host/package/Failure.h"

#include <archive.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace package {

namespace {

constexpr std::size_t kLongestQuote = 200;
constexpr std::size_t kLongestName = 255;

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7f;
}

bool isUtf8(std::string_view text) {
    while (!text.empty()) {
        const auto first = static_cast<unsigned char>(text.front());
        const std::size_t size = first < 0x80       ? 1
                                 : first >> 5 == 6  ? 2
                                 : first >> 4 == 14 ? 3
                                 : first >> 3 == 30 ? 4
                                                    : 0;
        if (size == 0 || size > text.size()) {
            return false;
        }
        std::uint32_t point = size == 1 ? first : first & (0x7fU >> size);
        for (std::size_t i = 1; i < size; ++i) {
            const auto next = static_cast<unsigned char>(text[i]);
            if (next >> 6 != 2) {
                return false;
            }
            point = point << 6 | (next & 0x3fU);
        }
        constexpr std::uint32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (point < kSmallest[size] || point > 0x10ffff || point >> 11 == 0x1b) { // the last are surrogates
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

} // namespace

std::string oneLine(std::string_view text) {
    std::string line(text);
    std::replace_if(line.begin(), line.end(), isControl, '?');
    return line;
}

std::string inQuotes(std::string_view name) {
    std::size_t size = std::min(name.size(), kLongestQuote);
    while (size > 0 && size < name.size() && (static_cast<unsigned char>(name[size]) & 0xc0) == 0x80) {
        --size; // not within a character
    }
    return '"' + oneLine(name.substr(0, size)) + (size < name.size() ? "...\"" : "\"");
}

std::string lastError(archive* handle) {
    const char* text = archive_error_string(handle);
    std::string cause = text != nullptr ? text : "no cause given";
    // EILSEQ is used for any malformed archive; the system's text for it would mislead.
    if (const int number = archive_errno(handle); number > 0 && number != EILSEQ) {
        const std::string system = std::generic_category().message(number);
        if (cause.find(system) == std::string::npos) {
            cause += " (" + system + ")";
        }
    }
    return cause;
}

std::string relativePath(std::string_view name) {
    if (name.empty()) {
        throw Failure("the package has an entry without a name");
    }
    if (name.front() == '/') {
        throw Failure("the package has an absolute path " + inQuotes(name));
    }
    if (!isUtf8(name)) {
        throw Failure("the package has a path that is not UTF-8");
    }
    const std::string_view whole = name;
    std::string path;
    while (!name.empty()) {
        const std::size_t slash = name.find('/');
        const std::string_view part = name.substr(0, slash);
        name.remove_prefix(slash == std::string_view::npos ? name.size() : slash + 1);
        if (part == "..") {
            throw Failure("the package has a path with \"..\": " + inQuotes(whole));
        }
        if (part.size() > kLongestName || whole.size() > kLongestPath) {
            throw Failure("the package has a path that is too long: " + inQuotes(whole));
        }
        if (part.empty() || part == ".") {
            continue;
        }
        if (!path.empty()) {
            path += '/';
        }
        path += part;
    }
    return path;
}

} // namespace package
