#pragma once

#include <optional>
#include <string>

/// The string for `key` in the outermost dictionary of the XML property list at `path`; nothing when the file
/// or the key is missing, or the XML before it is malformed. Any thread.
std::optional<std::string> propertyListString(const std::string& path, const std::string& key);
