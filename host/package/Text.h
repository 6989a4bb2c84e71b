#pragma once

#include <cstddef>
#include <string>
#include <string_view>

struct archive;

namespace package {

/// The text with every control character, line feeds included, replaced.
std::string oneLine(std::string_view text);

/// A name from a package for use in a message: one line, in quotes, cut to a sensible length.
std::string inQuotes(std::string_view name);

/// The last failure of a libarchive handle: its text, and the system's text unless that is part of it.
std::string lastError(archive* handle);

/// In bytes; leaves room for the target's path, and limits the depth.
inline constexpr std::size_t kLongestPath = 1024;

/// The same place as `name` without a leading "./", doubled or trailing slashes; empty for the folder itself.
/// Throws Failure for a name that is absolute, empty, too long, not UTF-8, or contains "..".
std::string relativePath(std::string_view name);

} // namespace package
