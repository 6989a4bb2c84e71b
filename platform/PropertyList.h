#pragma once

#include <optional>
#include <string>

/// The text that the XML property list at `path` gives for `key` in its outermost dictionary; nothing where
/// the file, the key or well-formed XML up to it is missing. Any thread.
std::optional<std::string> propertyListString(const std::string& path, const std::string& key);
