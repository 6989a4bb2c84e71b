#pragma once

#include <string>
#include <string_view>

struct archive;

namespace package {

// The text with every control character replaced, line feeds among them.
std::string oneLine(std::string_view text);

// A name from a package made fit for a message: one line, in quotes, cut to a sensible length.
std::string inQuotes(std::string_view name);

// What went wrong last in a libarchive handle: its text, and the system's where the text leaves it out.
std::string lastError(archive* handle);

// The same place as `name` without a leading "./", doubled or trailing slashes; empty for the folder itself.
// Throws Failure for a name that is absolute, empty or too long, or that climbs with "..".
std::string relativePath(std::string_view name);

} // namespace package
