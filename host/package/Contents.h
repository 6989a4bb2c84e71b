#pragma once

#include "host/package/PackageInfo.h"

#include <sys/types.h>

#include <cstdint>
#include <string>

/// What a package must hold to be installed. The signing tool applies the same rules as the installer.
namespace package {

class Package;
struct Entry;

/// The folders below a target where the installer keeps its own files.
inline constexpr char kStagingName[] = ".pellomar-installer";
inline constexpr char kReceiptsParent[] = "var/lib/pellomar-installer";

/// Throws Failure when a place, relative to the target, is in one of them, or would be a file or link on the
/// way to one.
void requireNotReserved(const std::string& place, bool isFolder);

/// The most bytes that all files in Scripts may hold together.
inline constexpr std::uint64_t kLargestScripts = 64 << 20;

/// The file of that name. Throws Failure when the package has none.
const Entry& requireEntry(const Package& package, const char* name);

/// Reads the entry PackageInfo. Throws Failure when it is missing or malformed, or when the archive has
/// scripts in a form in which they would not be run.
PackageInfo readPackageInfo(const Package& package);

/// The bytes that the payload's files may hold, from the size that the package states.
std::uint64_t largestPayload(const PackageInfo& info);

/// Throws Failure unless a script of that mode can be started.
void requireProgram(const std::string& script, mode_t mode);

/// Throws Failure unless `missing`, the scripts that PackageInfo names and Scripts lacks, is empty.
void requireNamedScripts(const std::vector<std::string>& missing);

/// Checks without writing anything whether the package could be installed. Throws Failure for every fault of
/// the package that an install would refuse, except in its signature and checksums, which Package verifies.
void checkContents(const Package& package);

} // namespace package
