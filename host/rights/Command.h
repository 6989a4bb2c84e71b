#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>
#include <vector>

namespace rights {

/// A program's path and its arguments.
using Command = std::vector<std::string>;

/// Why `caller` may not have this run as root; empty for exactly the four commands of an installation. The
/// package has to be a regular file of the caller's own, by the product's file name, at an absolute path.
std::string whyRefused(const Command& command, uid_t caller);

/// Whether the file exists, and it and every folder above it belong to root and are writable by nobody else.
bool isRootsAlone(const std::filesystem::path& file);

/// The line that makes the death of a tool by a signal count as its failure: silence is a success.
std::string failureLine(const std::string& tool, int signal);

} // namespace rights
