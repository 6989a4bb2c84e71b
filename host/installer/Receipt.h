#pragma once

#include "base/FileDescriptor.h"
#include "base/Owner.h"
#include "host/installer/StagingLayout.h"

#include <cstdio>
#include <functional>
#include <optional>
#include <string>

namespace package {
struct PackageInfo;
}

/// What is installed: one file for each package below var/lib/pellomar-installer/receipts of the target,
/// named after its identifier. It is written to the staging folder before the install is committed, and moved
/// to its place after that, before anything else is done in the target; so the two agree whenever the run is
/// interrupted. To allow an older version or another product, remove the receipt as root. A receipt of a
/// package that was not signed binds only others that are not. Every function throws package::Failure when it
/// fails.
namespace installer {

struct Receipt {
    std::string identifier;
    std::string version;
    std::string time;   ///< of the install, ISO 8601 in UTC
    std::string signer; ///< fingerprint of the certificate, or kNoSigner
};

inline constexpr char kNoSigner[] = "none";

/// Reads a receipt, in memory that does not depend on its size.
class ReceiptReader {
  public:
    /// Reads the head. `name` is the file's, for messages. Throws Failure when this is no receipt.
    ReceiptReader(FileDescriptor file, const std::string& name);

    const Receipt& head() const { return head_; }

    /// The next path of an installed file, link or bundle, relative to the target; nullopt at the end.
    std::optional<std::string> nextPlace();

  private:
    [[noreturn]] void damaged() const;
    std::optional<std::string> nextLine();
    std::string field(const std::string& name);

    Owner<std::FILE, std::fclose> file_;
    std::string name_;
    Receipt head_;
};

/// Calls `use` for each receipt of the target, by identifier. Hidden files, and those that do not begin like
/// a receipt, are none.
void forEachReceipt(TargetFolder target, const std::function<void(ReceiptReader&)>& use);

/// Throws Failure if a higher version of the package is installed in the target, or if no receipt can be kept
/// there.
void requireNotOlder(TargetFolder target, const package::PackageInfo& info, bool isSigned);

/// Throws Failure when the package, whose new files are in `staging`, would replace what another one has
/// installed.
void requireOwnPlaces(TargetFolder target, StagingFolder staging, const package::PackageInfo& info,
                      bool isSigned);

/// Writes the receipt, with the places of what is staged, to the staging folder.
void writeReceipt(StagingFolder staging, const Receipt& receipt);

/// Makes the folder of receipts in the target, if it is missing.
void makeReceiptsFolder(TargetFolder target);

/// Moves the receipt, if there is one, from the staging folder to its place.
void commitReceipt(TargetFolder target, StagingFolder staging);

} // namespace installer
