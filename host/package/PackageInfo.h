#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace package {

/// What the package says of itself in its PackageInfo file.
struct PackageInfo {
    std::string identifier;
    std::string version;
    std::string
        location; ///< folder that the payload goes to, relative to the target; empty: the target itself
    std::optional<std::uint64_t> kilobytes; ///< size of the payload, if stated
    std::vector<std::string> scripts;       ///< those that it names
};

/// The scripts that are run.
inline constexpr char kPreinstall[] = "preinstall";
inline constexpr char kPostinstall[] = "postinstall";
bool isScript(std::string_view name);

/// Reads the XML text. Throws Failure when it is not well-formed, is not a flat package's description, lacks
/// an identifier or a version, or names a location that is not a plain path or a script that would not be
/// run.
PackageInfo parsePackageInfo(std::string_view xml);

} // namespace package
