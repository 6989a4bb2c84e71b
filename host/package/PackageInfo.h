#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace package {

/// What the package says of itself in its PackageInfo file.
struct PackageInfo {
    std::string identifier;
    std::string version;
    std::string
        location; ///< folder that the payload goes to, relative to the target; empty: the target itself
    std::optional<std::uint64_t> kilobytes; ///< size of the payload, if stated
};

/// Reads the XML text. Throws Failure when it is not well-formed, is not a flat package's description, lacks
/// an identifier or a version, or names a location that is not a plain path.
PackageInfo parsePackageInfo(std::string_view xml);

} // namespace package
