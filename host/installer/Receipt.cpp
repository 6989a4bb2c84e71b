// A receipt is a text file:
//
//     receipt = "pellomar-installer receipt 1" LF
//               "identifier " text LF
//               "version " text LF
//               "time " text LF             ; as 2025-11-25T12:34:56Z
//               "signer " text LF           ; 64 hexadecimal digits, or "none"
//               *( place LF )
//     text    = at least one byte other than LF
//     place   = a path relative to the target, with "%" and control characters as "%" and two hexadecimal
//     digits
//
// Only one of the current form is read; a line may have 8191 bytes.
#include "host/installer/Receipt.h"

#include "base/Ownership.h"
#include "base/ReadWrite.h"
#include "host/installer/StagingLayout.h"
#include "host/installer/Swap.h"
#include "host/installer/Tree.h"
#include "host/package/Contents.h"
#include "host/package/Digest.h"
#include "host/package/Failure.h"
#include "host/package/PackageInfo.h"
#include "host/package/Text.h"
#include "host/package/Version.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <string_view>
#include <vector>

namespace installer {

using namespace package;

namespace {

constexpr char kReceipt[] = "receipt"; // in the staging folder
constexpr char kReceiptsFolder[] = "receipts";
constexpr char kUnfinished[] = ".unfinished";
constexpr char kFirstLine[] = "pellomar-installer receipt 1";

std::string receiptsPath() {
    return std::string(kReceiptsParent) + "/" + kReceiptsFolder;
}

std::string percentEncoded(const std::string& place) {
    std::string text;
    for (const char c : place) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '%') {
            text += '%' + toHex({&c, 1});
        } else {
            text += c;
        }
    }
    return text;
}

// Otherwise whoever gets an unsigned package installed could block the publisher's.
bool binds(const Receipt& receipt, bool isSigned) {
    return !isSigned || receipt.signer != kNoSigner;
}

FileDescriptor openToWrite(int folder, const std::string& name) {
    FileDescriptor file(
        openat(folder, name.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.isOpen()) {
        throw systemFailure("a receipt cannot be written");
    }
    return file;
}

// Not open if that is no regular file.
FileDescriptor openToRead(int folder, const std::string& name) {
    FileDescriptor file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.isOpen()) {
        if (errno != ELOOP) {
            throw systemFailure("the receipt " + inQuotes(name) + " cannot be read");
        }
        return FileDescriptor();
    }
    struct stat status{};
    return fstat(file.get(), &status) == 0 && S_ISREG(status.st_mode) ? std::move(file) : FileDescriptor();
}

bool beginsLikeReceipt(int file) {
    std::array<char, sizeof kFirstLine - 1> begin{};
    return pread(file, begin.data(), begin.size(), 0) == static_cast<ssize_t>(begin.size()) &&
           std::string_view(begin.data(), begin.size()) == kFirstLine;
}

// Not open if there is none.
FileDescriptor openReceipts(TargetFolder target) {
    const auto status = statusOf(target, receiptsPath());
    if (!status) {
        return FileDescriptor();
    }
    if (!isOursAlone(*status)) {
        throw Failure("the folder of receipts can be changed by others", FailureKind::Target);
    }
    return openFolder(target, receiptsPath());
}

void requirePlaceForReceipts(TargetFolder target) {
    const std::string path = receiptsPath();
    std::string deepest = ".";
    for (std::size_t slash = 0; slash != std::string::npos;) {
        slash = path.find('/', slash + 1);
        const std::string folder = path.substr(0, slash);
        const auto status = statusOf(target, folder);
        if (!status) {
            break;
        }
        if (!S_ISDIR(status->st_mode)) {
            throw Failure("no receipt can be kept in the target: " + inQuotes(folder) + " is not a folder",
                          FailureKind::Target);
        }
        deepest = folder;
    }
    if (faccessat(target, deepest.c_str(), W_OK, 0) != 0) {
        throw systemFailure("no receipt can be kept in the target's folder " + inQuotes(deepest));
    }
}

void writeLine(std::FILE* file, const std::string& line) {
    if (std::fputs((line + '\n').c_str(), file) < 0) {
        throw systemFailure("a receipt cannot be written");
    }
}

void addPlaces(int folder, const std::string& path, std::FILE* file) {
    for (const std::string& name : namesIn(folder)) {
        std::string place = path.empty() ? path : path + '/';
        place += name;
        if (isFolder(folder, name) && !isBundle(name)) {
            addPlaces(openFolder(folder, name).get(), place, file);
        } else {
            writeLine(file, percentEncoded(place));
        }
    }
}

} // namespace

ReceiptReader::ReceiptReader(FileDescriptor file, const std::string& name)
    : file_(file.isOpen() ? fdopen(file.get(), "r") : nullptr), name_(inQuotes(name)) {
    if (!file_) {
        damaged();
    }
    static_cast<void>(file.release()); // owned by the stream
    if (nextLine() != kFirstLine) {
        damaged();
    }
    head_.identifier = field("identifier");
    head_.version = field("version");
    head_.time = field("time");
    head_.signer = field("signer");
}

void ReceiptReader::damaged() const {
    throw Failure("the receipt " + name_ + " is damaged", FailureKind::Target);
}

std::optional<std::string> ReceiptReader::nextLine() {
    std::array<char, std::size_t{4} * 2 * kLongestPath> line{}; // of two paths, with three bytes for each
    if (std::fgets(line.data(), line.size(), file_.get()) == nullptr) {
        if (std::ferror(file_.get()) != 0) {
            throw systemFailure("the receipt " + name_ + " cannot be read");
        }
        return std::nullopt;
    }
    std::string text = line.data();
    if (!text.ends_with('\n')) { // too long, not whole, or with a byte of zero
        damaged();
    }
    text.pop_back();
    return text;
}

std::string ReceiptReader::field(const std::string& name) {
    const std::string line = nextLine().value_or("");
    if (!line.starts_with(name + ' ') || line.size() < name.size() + 2) {
        damaged();
    }
    return line.substr(name.size() + 1);
}

std::optional<std::string> ReceiptReader::nextPlace() {
    const std::optional<std::string> line = nextLine();
    if (!line) {
        return std::nullopt;
    }
    std::string place;
    for (std::size_t i = 0; i < line->size(); ++i) {
        if ((*line)[i] != '%') {
            place += (*line)[i];
            continue;
        }
        const std::optional<std::string> byte = fromHex(std::string_view(*line).substr(i + 1, 2));
        if (!byte || byte->size() != 1) {
            damaged();
        }
        place += *byte;
        i += 2;
    }
    return place;
}

void forEachReceipt(TargetFolder target, const std::function<void(ReceiptReader&)>& use) {
    const FileDescriptor folder = openReceipts(target);
    for (const std::string& name : folder.isOpen() ? namesIn(folder.get()) : std::vector<std::string>()) {
        FileDescriptor file = name.front() == '.' ? FileDescriptor() : openToRead(folder.get(), name);
        if (file.isOpen() && beginsLikeReceipt(file.get())) {
            ReceiptReader receipt(std::move(file), name);
            use(receipt);
        }
    }
}

void requireNotOlder(TargetFolder target, const PackageInfo& info, bool isSigned) {
    requirePlaceForReceipts(target);
    const FileDescriptor folder = openReceipts(target);
    if (!folder.isOpen() || !statusOf(folder.get(), info.identifier)) {
        return;
    }
    const ReceiptReader receipt(openToRead(folder.get(), info.identifier), info.identifier);
    if (binds(receipt.head(), isSigned) && compareVersions(info.version, receipt.head().version) < 0) {
        throw Failure("a newer version is installed: " + receipt.head().version, FailureKind::Conflict);
    }
}

void requireOwnPlaces(TargetFolder target, StagingFolder staging, const PackageInfo& info, bool isSigned) {
    const FileDescriptor coming = openFolder(staging, kNewFolder);
    forEachReceipt(target, [&](ReceiptReader& receipt) {
        if (receipt.head().identifier == info.identifier || !binds(receipt.head(), isSigned)) {
            return;
        }
        while (const std::optional<std::string> place = receipt.nextPlace()) {
            struct stat status{};
            if (fstatat(coming.get(), place->c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
                throw Failure("another product is installed in the same place: " +
                                  inQuotes(receipt.head().identifier),
                              FailureKind::Conflict);
            }
        }
    });
}

void writeReceipt(StagingFolder staging, const Receipt& receipt) {
    FileDescriptor opened = openToWrite(staging, kReceipt);
    const Owner<std::FILE, std::fclose> file(fdopen(opened.get(), "w"));
    static_cast<void>(opened.release()); // owned by the stream
    writeLine(file.get(), kFirstLine);
    writeLine(file.get(), "identifier " + receipt.identifier);
    writeLine(file.get(), "version " + receipt.version);
    writeLine(file.get(), "time " + receipt.time);
    writeLine(file.get(), "signer " + receipt.signer);
    addPlaces(openFolder(staging, kNewFolder).get(), "", file.get());
    if (std::fflush(file.get()) != 0) {
        throw systemFailure("a receipt cannot be written");
    }
}

void makeReceiptsFolder(TargetFolder target) {
    makeFolders(target, receiptsPath());
}

void commitReceipt(TargetFolder target, StagingFolder staging) {
    if (!statusOf(staging, kReceipt)) {
        return;
    }
    FileDescriptor from = openToRead(staging, kReceipt);
    makeReceiptsFolder(target);
    const FileDescriptor folder = openReceipts(target);
    if (!from.isOpen() || !folder.isOpen()) { // removed meanwhile
        throw systemFailure("a receipt cannot be written");
    }
    const FileDescriptor file = openToWrite(folder.get(), kUnfinished);
    if (!copyAll(from.get(), file.get()) || lseek(from.get(), 0, SEEK_SET) != 0) {
        throw systemFailure("a receipt cannot be written");
    }
    const std::string name = ReceiptReader(std::move(from), kReceipt).head().identifier;
    if (fsync(file.get()) != 0 || renameat(folder.get(), kUnfinished, folder.get(), name.c_str()) != 0 ||
        fsync(folder.get()) != 0) {
        throw systemFailure("a receipt cannot be written");
    }
}

} // namespace installer
