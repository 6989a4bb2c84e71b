#include "host/package/Contents.h"

#include "host/package/EntryReader.h"
#include "host/package/Failure.h"
#include "host/package/Package.h"
#include "host/package/Payload.h"
#include "host/package/Text.h"

#include <archive_entry.h>
#include <sys/stat.h>

#include <limits>
#include <utility>

namespace package {

namespace {

constexpr std::size_t kLargestPackageInfo = 1 << 20;

class SizeLimit : public PayloadSink {
  public:
    explicit SizeLimit(std::uint64_t most) : left_(most) {}

    void data(const void*, std::size_t size, std::int64_t) override {
        if (size > left_) {
            throw Failure("the package's payload is far larger than it states");
        }
        left_ -= size;
    }
    void end() override {}

  private:
    std::uint64_t left_;
};

class PayloadCheck : public SizeLimit {
  public:
    explicit PayloadCheck(const PackageInfo& info)
        : SizeLimit(largestPayload(info)), prefix_(info.location.empty() ? "" : info.location + "/") {}

    void begin(const PayloadEntry& entry) override {
        isEmpty = false;
        requireNotReserved(prefix_ + entry.path, S_ISDIR(entry.type));
    }

    bool isEmpty = true;

  private:
    std::string prefix_;
};

class ScriptsCheck : public SizeLimit {
  public:
    explicit ScriptsCheck(std::vector<std::string> named)
        : SizeLimit(kLargestScripts), missing(std::move(named)) {}

    void begin(const PayloadEntry& entry) override {
        const std::string top = entry.path.substr(0, entry.path.find('/'));
        if (isScript(top)) {
            requireProgram(top, entry.path == top ? archive_entry_mode(entry.entry) : S_IFDIR);
            std::erase(missing, top);
        }
    }

    std::vector<std::string> missing;
};

} // namespace

void requireNotReserved(const std::string& place, bool isFolder) {
    for (const std::string reserved : {kStagingName, kReceiptsParent}) {
        if ((place + "/").starts_with(reserved + "/")) {
            throw Failure("the package has an entry in the installer's own folder: " + inQuotes(place));
        }
        if (!isFolder && reserved.starts_with(place + "/")) {
            throw Failure("the package has a file or link on the way to the installer's own folder: " +
                          inQuotes(place));
        }
    }
}

const Entry& requireEntry(const Package& package, const char* name) {
    const Entry* entry = package.find(name);
    if (entry == nullptr) {
        throw Failure(std::string("the package has no ") + name);
    }
    return *entry;
}

PackageInfo readPackageInfo(const Package& package) {
    if (package.find("Distribution") != nullptr && package.find("PackageInfo") == nullptr) {
        throw Failure(
            "the package is a product archive, with a Distribution; a flat package is wanted, as it has "
            "inside");
    }
    for (const Entry& entry : package.table().entries) {
        if (entry.isFolder && entry.path == "Scripts") {
            throw Failure(
                "the package's Scripts is a folder, which would not be run; pack it with cpio and gzip");
        }
    }
    return parsePackageInfo(package.text(requireEntry(package, "PackageInfo"), kLargestPackageInfo));
}

std::uint64_t largestPayload(const PackageInfo& info) {
    constexpr std::uint64_t kTolerance = 1 << 20;
    // Some tools count in blocks, some in bytes.
    return info.kilobytes ? 2 * (*info.kilobytes * 1024) + kTolerance
                          : std::numeric_limits<std::uint64_t>::max();
}

void requireProgram(const std::string& script, mode_t mode) {
    if (!S_ISREG(mode) || (mode & S_IXUSR) == 0) {
        throw Failure("the package's " + script + " script is not a program");
    }
}

void requireNamedScripts(const std::vector<std::string>& missing) {
    if (!missing.empty()) {
        throw Failure("the package's " + missing.front() +
                      " script is named in PackageInfo and missing in Scripts");
    }
}

void checkContents(const Package& package) {
    const PackageInfo info = readPackageInfo(package);
    PayloadCheck payload(info);
    readPayload(*package.open(requireEntry(package, "Payload")), payload);
    if (payload.isEmpty) {
        throw Failure("the package's payload holds nothing");
    }
    ScriptsCheck scripts(info.scripts);
    if (const Entry* entry = package.find("Scripts")) {
        readPayload(*package.open(*entry), scripts);
    }
    requireNamedScripts(scripts.missing);
}

} // namespace package
