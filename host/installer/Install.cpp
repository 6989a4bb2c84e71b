#include "installer/Install.h"

#include "installer/Output.h"
#include "installer/Scripts.h"
#include "installer/Staging.h"
#include "installer/StagingLayout.h"
#include "installer/Unpacker.h"
#include "package/Contents.h"
#include "package/Failure.h"
#include "package/Package.h"
#include "package/Payload.h"
#include "package/Trust.h"

#include <sys/statvfs.h>

#include <limits>

namespace installer {

using namespace package;

namespace {

constexpr std::uint64_t kUnlimited = std::numeric_limits<std::uint64_t>::max();

std::uint64_t freeBytes(const Staging& staging) {
    struct statvfs fileSystem{};
    if (fstatvfs(staging.folder(), &fileSystem) != 0) {
        throw systemFailure("the target cannot be examined");
    }
    if (fileSystem.f_blocks == 0) { // keeps no count
        return kUnlimited;
    }
    // What only root may use is left for the system to live on.
    return static_cast<std::uint64_t>(fileSystem.f_bavail) * fileSystem.f_frsize;
}

void reportSigner(const Package& package, const TrustedCertificates& trusted) {
    const std::optional<std::string> signer = verifySigner(package, trusted);
    if (!signer) {
        print("installer: The package is not signed.\n");
        return;
    }
    print("installer: Signed by " + *signer + "\n");
    if (trusted.isEmpty()) {
        print("installer: No certificate is trusted on this machine, so anybody could be the signer.\n");
    }
}

Allowance allowanceFor(const PackageInfo& info, const Staging& staging) {
    const std::uint64_t available = freeBytes(staging);
    if (info.kilobytes && *info.kilobytes * 1024 > available) {
        throw Failure("not enough free space on the target");
    }
    return {available, largestPayload(info)};
}

void unpackPayload(const Package& package, const PackageInfo& info, const Staging& staging) {
    const Entry& payload = requireEntry(package, "Payload");
    const FileDescriptor folder = staging.makeFolder(kNewFolder);
    const std::unique_ptr<EntryReader> reader = package.open(payload);
    unsigned quarters = 0;
    const auto tell = [&] {
        while (quarters < 4 && reader->consumed() * 4 >= payload.data->stored.length * (quarters + 1)) {
            print("installer: " + std::to_string(25 * ++quarters) + "%\n");
        }
    };
    Unpacker unpacker(folder.get(), info.location, allowanceFor(info, staging), tell);
    readPayload(*reader, unpacker);
    unpacker.finish();
    if (unpacker.entries() == 0) {
        throw Failure("the package's payload holds nothing");
    }
    print("installer: Installing " + std::to_string(unpacker.entries()) + " items, " +
          std::to_string(unpacker.bytes() / 1024) + " KiB\n");
}

FileDescriptor unpackScripts(const Package& package, const Staging& staging) {
    FileDescriptor folder = staging.makeFolder("scripts");
    if (const Entry* scripts = package.find("Scripts")) {
        const std::unique_ptr<EntryReader> reader = package.open(*scripts);
        Unpacker unpacker(folder.get(), "", {freeBytes(staging), kLargestScripts}, [] {});
        readPayload(*reader, unpacker);
        unpacker.finish();
    }
    return folder;
}

} // namespace

void install(const Request& request, const Staging& staging) {
    const TrustedCertificates trusted(request.trusted);
    print("installer: Checking the package\n");
    const Package package(takeCopy(request.package, staging.folder(), freeBytes(staging)));
    reportSigner(package, trusted);
    package.verifyEntries(!trusted.isEmpty());
    const PackageInfo info = readPackageInfo(package);

    unpackPayload(package, info, staging);
    const FileDescriptor scripts = unpackScripts(package, staging);
    const std::string slash = request.target.ends_with('/') ? "" : "/";
    const ScriptArguments arguments{request.package, request.target + slash + info.location, request.target};
    runScript(scripts.get(), "preinstall", arguments);
    staging.swapIn();
    runScript(scripts.get(), "postinstall", arguments);
    staging.markDone();
}

} // namespace installer
