#include "host/installer/Install.h"

#include "host/installer/Output.h"
#include "host/installer/PackageFile.h"
#include "host/installer/Receipt.h"
#include "host/installer/Scripts.h"
#include "host/installer/SetAside.h"
#include "host/installer/Staging.h"
#include "host/installer/StagingLayout.h"
#include "host/installer/Swap.h"
#include "host/installer/Tree.h"
#include "host/installer/Unpacker.h"
#include "host/package/Contents.h"
#include "host/package/Failure.h"
#include "host/package/Package.h"
#include "host/package/Payload.h"
#include "host/package/Trust.h"

#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <limits>

namespace installer {

using namespace package;

namespace {

constexpr unsigned kPatience = 60; // seconds for each answer of the file system that the package is on

std::uint64_t freeBytes(const Staging& staging) {
    struct statvfs fileSystem{};
    if (fstatvfs(staging.folder(), &fileSystem) != 0) {
        throw systemFailure("the target cannot be examined");
    }
    if (fileSystem.f_blocks == 0) { // does not count them
        return std::numeric_limits<std::uint64_t>::max();
    }
    // What is reserved for root is left to the system.
    return static_cast<std::uint64_t>(fileSystem.f_bavail) * fileSystem.f_frsize;
}

TrustedCertificates readTrusted(const Request& request) {
    TrustedCertificates trusted;
    if (request.isSignatureDemanded) {
        trusted.demandSignature();
    }
    if (!request.trusted.empty()) {
        trusted.addFolder(request.trusted);
        return trusted;
    }
    for (const char* folder : kTrustedFolders) {
        trusted.addFolder(folder);
    }
    return trusted;
}

void reportSigner(const Package& package, const TrustedCertificates& trusted) {
    if (package.signer().empty()) {
        print("installer: The package is not signed.\n");
        return;
    }
    print("installer: Signed by " + package.signer() + "\n");
    if (!trusted.demandsSignature()) {
        print("installer: No certificate is trusted on this machine, so anybody could be the signer.\n");
    }
}

class UsageCount : public PayloadSink {
  public:
    void begin(const PayloadEntry&) override { usage.addEntry(); }
    void data(const void*, std::size_t size, std::int64_t) override { usage.addData(size); }
    void end() override {}

    DiskUsage usage;
};

// Removes the application that is set aside if the payload fits on the disk only without it.
void makeRoom(const Package& package, const Entry& payload, const PackageInfo& info, Staging& staging) {
    const std::uint64_t available = freeBytes(staging);
    if (!isSetAside(staging.folder()) || (info.kilobytes && largestPayload(info) <= available)) {
        return;
    }
    UsageCount count;
    readPayload(*package.open(payload), count);
    const std::uint64_t needed = std::max(count.usage.bytes(), info.kilobytes.value_or(0) * 1024);
    if (needed > available && needed <= available + bytesSetAside(staging.folder())) {
        checkContents(package); // a package that would be refused must not cost the installed application
        std::fputs("installer: The disk has no room for the installed application and the new one; "
                   "the installed one is removed first.\n",
                   stderr);
        staging.discardAside();
    }
}

Allowance allowanceFor(const PackageInfo& info, const Staging& staging) {
    const std::uint64_t available = freeBytes(staging);
    if (info.kilobytes && *info.kilobytes * 1024 > available) {
        throw Failure("not enough free space on the target", FailureKind::Space);
    }
    return {available, largestPayload(info)};
}

void unpackPayload(const Package& package, const PackageInfo& info, Staging& staging) {
    const Entry& payload = requireEntry(package, "Payload");
    makeRoom(package, payload, info, staging);
    const FileDescriptor folder = staging.makeFolder(kNewFolder);
    const std::unique_ptr<EntryReader> reader = package.open(payload);
    unsigned quarters = 0;
    const auto report = [&] {
        while (quarters < 4 && reader->consumed() * 4 >= payload.data->stored.length * (quarters + 1)) {
            print("installer: " + std::to_string(25 * ++quarters) + "%\n");
        }
    };
    Unpacker unpacker(folder.get(), info.location, allowanceFor(info, staging), report);
    readPayload(*reader, unpacker);
    unpacker.finish();
    if (unpacker.entries() == 0) {
        throw Failure("the package's payload holds nothing");
    }
    print("installer: Installing " + std::to_string(unpacker.entries()) + " items, " +
          std::to_string(unpacker.bytes() / 1024) + " KiB\n");
}

FileDescriptor unpackScripts(const Package& package, const PackageInfo& info, Staging& staging) {
    FileDescriptor folder = staging.makeFolder("scripts");
    if (const Entry* scripts = package.find("Scripts")) {
        const std::unique_ptr<EntryReader> reader = package.open(*scripts);
        Unpacker unpacker(folder.get(), "", {freeBytes(staging), kLargestScripts}, [] {});
        readPayload(*reader, unpacker);
        unpacker.finish();
    }
    std::vector<std::string> missing = info.scripts;
    std::erase_if(missing, [&](const std::string& name) { return statusOf(folder.get(), name).has_value(); });
    requireNamedScripts(missing);
    return folder;
}

Receipt receiptFor(const Package& package, const PackageInfo& info) {
    const std::time_t now = std::time(nullptr);
    std::tm time{};
    gmtime_r(&now, &time);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &time);
    return {info.identifier, info.version, text, package.signer().empty() ? kNoSigner : package.signer()};
}

} // namespace

void install(const Request& request, PackageFile& file, Staging& staging) {
    const TrustedCertificates trusted = readTrusted(request);
    print("installer: Checking the package\n");
    // A file system that does not answer must not hold the target: SIGALRM ends this process.
    const auto expectAnswer = [] { alarm(kPatience); };
    expectAnswer();
    Package package(file.open(), trusted);
    reportSigner(package, trusted);
    package.makePrivate(staging.folder(), freeBytes(staging), expectAnswer);
    alarm(0);
    const PackageInfo info = readPackageInfo(package);
    const bool isSigned = !package.signer().empty();
    requireNotOlder(staging.target(), info, isSigned);

    unpackPayload(package, info, staging);
    requireOwnPlaces(staging.target(), staging.folder(), info, isSigned);
    const FileDescriptor scripts = unpackScripts(package, info, staging);
    writeReceipt(staging.folder(), receiptFor(package, info));
    makeSwapPlan(staging.target(), staging.folder()); // refuses before a script has run
    const std::string target =
        std::filesystem::canonical("/proc/self/fd/" + std::to_string(staging.target()));
    const std::string slash = target.ends_with('/') ? "" : "/";
    const ScriptArguments arguments{package.file(), target + slash + info.location, target};
    runScript(scripts.get(), kPreinstall, arguments);
    if (!statusOf(scripts.get(), kPostinstall)) {
        package.discardCopy(); // while its pages are dirty: a sync would write them
    }
    staging.swapIn();
    runScript(scripts.get(), kPostinstall, arguments);
    makeReceiptsFolder(staging.target()); // while its failure can still be undone
    staging.markDone();
}

} // namespace installer
