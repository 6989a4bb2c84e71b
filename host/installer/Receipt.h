#pragma once

#include <functional>
#include <string>

namespace package {
struct PackageInfo;
}

/// What is installed: one file for each package below var/lib/pellomar-installer/receipts of the target. It
/// is written to the staging folder before the install is committed, and moved to its place after that,
/// before anything else is done in the target; so the two agree whenever the run is interrupted. To allow
/// an older version or another product, remove the receipt as root. Every function throws package::Failure
/// when it fails.
namespace installer {

struct Receipt {
    std::string identifier;
    std::string version;
    std::string time;   ///< of the install, ISO 8601 in UTC
    std::string signer; ///< fingerprint of the certificate, or "none"
    /// Paths of the installed files, links and bundles, relative to the target, one a line; control
    /// characters and "%" are written as %XX.
    std::string places;
};

/// Reads a receipt's text. Throws Failure when it is not one.
Receipt parseReceipt(std::string text);

/// Calls `use` for each receipt of the target, by identifier; one at a time is in memory.
void forEachReceipt(int target, const std::function<void(const Receipt&)>& use);

/// Throws Failure when a higher version of the package is installed in the target.
void requireNotOlder(int target, const package::PackageInfo& info);

/// Throws Failure when the package, whose new files are in `staging`, would replace what another one has
/// installed.
void requireOwnPlaces(int target, int staging, const package::PackageInfo& info);

/// Writes the receipt to the staging folder. Its places are those of what is staged there; `receipt.places`
/// is ignored.
void writeReceipt(int staging, const Receipt& receipt);

/// Moves the receipt from the staging folder to its place. Does nothing where it has been moved already.
void commitReceipt(int target, int staging);

} // namespace installer
