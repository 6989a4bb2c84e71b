#include "package/Text.h"

#include "package/Failure.h"

#include <archive.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace package {

namespace {

constexpr std::size_t kLongestQuote = 200;
constexpr std::size_t kLongestName = 255;
constexpr std::size_t kLongestPath = 1024; // leaves room for where it goes, and bounds the depth

bool isControl(unsigned char c) {
    return c < 0x20 || c == 0x7f;
}

} // namespace

std::string oneLine(std::string_view text) {
    std::string line(text);
    std::replace_if(line.begin(), line.end(), isControl, '?');
    return line;
}

std::string inQuotes(std::string_view name) {
    return '"' + oneLine(name.substr(0, kLongestQuote)) + (name.size() > kLongestQuote ? "...\"" : "\"");
}

std::string lastError(archive* handle) {
    const char* text = archive_error_string(handle);
    std::string cause = text ? text : "no cause given";
    // EILSEQ stands for any malformed archive, and the system's text for it would mislead.
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
