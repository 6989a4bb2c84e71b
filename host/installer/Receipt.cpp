#include "installer/Receipt.h"

#include "base/ReadWrite.h"
#include "installer/StagingLayout.h"
#include "installer/Swap.h"
#include "installer/Tree.h"
#include "package/Contents.h"
#include "package/Digest.h"
#include "package/Failure.h"
#include "package/PackageInfo.h"
#include "package/Text.h"
#include "package/Version.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>

namespace installer {

using namespace package;

namespace {

constexpr char kReceipt[] = "receipt"; // in the staging folder
constexpr char kFolder[] = "receipts";
constexpr char kUnfinished[] = ".unfinished";
constexpr char kFirstLine[] = "pellomar-installer receipt 1";

std::string receiptsPath() {
    return std::string(kReceiptsParent) + "/" + kFolder;
}

std::string escaped(const std::string& place) {
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

std::string unescaped(std::string_view text) {
    std::string place;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            place += text[i];
            continue;
        }
        const std::optional<std::string> byte = fromHex(text.substr(i + 1, 2));
        if (!byte || byte->size() != 1) {
            throw Failure("a receipt is damaged");
        }
        place += *byte;
        i += 2;
    }
    return place;
}

std::string_view takeLine(std::string_view& text) {
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) {
        throw Failure("a receipt is damaged");
    }
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return line;
}

std::string takeField(std::string_view& text, std::string_view name) {
    const std::string_view line = takeLine(text);
    if (!line.starts_with(name) || line.size() < name.size() + 2 || line[name.size()] != ' ') {
        throw Failure("a receipt is damaged");
    }
    return std::string(line.substr(name.size() + 1));
}

std::string readFile(int folder, const std::string& name) {
    const FileDescriptor file(openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    std::optional<std::string> text = file.isOpen() ? readAll(file.get()) : std::nullopt;
    if (!text) {
        throw systemFailure("a receipt cannot be read");
    }
    return *std::move(text);
}

FileDescriptor openToWrite(int folder, const std::string& name) {
    FileDescriptor file(
        openat(folder, name.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (!file.isOpen()) {
        throw systemFailure("a receipt cannot be written");
    }
    return file;
}

void requireOursAlone(int folder) {
    struct stat status{};
    if (fstat(folder, &status) != 0 || status.st_uid != geteuid() ||
        (status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        throw Failure("the folder of receipts can be changed by others");
    }
}

// The folder at `path`; none where it does not exist and is not to be made.
FileDescriptor openReceipts(int target, bool isMade) {
    FileDescriptor folder = openFolder(target, "");
    const std::string path = receiptsPath();
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, end - begin);
        if (!isMade && !statusOf(folder.get(), name)) {
            return FileDescriptor();
        }
        if (isMade && mkdirat(folder.get(), name.c_str(), 0755) != 0 && errno != EEXIST) {
            throw systemFailure("a receipt cannot be written");
        }
        folder = openFolder(folder.get(), name);
        begin = end + 1;
    }
    requireOursAlone(folder.get());
    return folder;
}

// Writes in pieces: there may be many places.
class Writer {
  public:
    explicit Writer(int file) : file_(file) {}

    void add(const std::string& line) {
        constexpr std::size_t kBlock = 65536;
        text_ += line + '\n';
        if (text_.size() >= kBlock) {
            flush();
        }
    }

    void flush() {
        if (!writeAll(file_, text_)) {
            throw systemFailure("a receipt cannot be written");
        }
        text_.clear();
    }

  private:
    int file_;
    std::string text_;
};

void addPlaces(int folder, const std::string& path, Writer& writer) {
    for (const std::string& name : namesIn(folder)) {
        std::string place = path.empty() ? path : path + '/';
        place += name;
        if (isFolder(folder, name) && !isBundle(name)) {
            addPlaces(openFolder(folder, name).get(), place, writer);
        } else {
            writer.add(escaped(place));
        }
    }
}

} // namespace

Receipt parseReceipt(std::string text) {
    std::string_view rest = text;
    if (takeLine(rest) != kFirstLine) {
        throw Failure("a receipt is damaged");
    }
    Receipt receipt;
    receipt.identifier = takeField(rest, "identifier");
    receipt.version = takeField(rest, "version");
    receipt.time = takeField(rest, "time");
    receipt.signer = takeField(rest, "signer");
    text.erase(0, text.size() - rest.size());
    receipt.places = std::move(text);
    for (rest = receipt.places; !rest.empty();) {
        unescaped(takeLine(rest));
    }
    return receipt;
}

void forEachReceipt(int target, const std::function<void(const Receipt&)>& use) {
    const FileDescriptor folder = openReceipts(target, false);
    if (!folder.isOpen()) {
        return;
    }
    for (const std::string& name : namesIn(folder.get())) {
        if (name != kUnfinished) {
            use(parseReceipt(readFile(folder.get(), name)));
        }
    }
}

void requireNotOlder(int target, const PackageInfo& info) {
    forEachReceipt(target, [&](const Receipt& receipt) {
        if (receipt.identifier == info.identifier && compareVersions(info.version, receipt.version) < 0) {
            throw Failure("a newer version is installed: " + receipt.version);
        }
    });
}

void requireOwnPlaces(int target, int staging, const PackageInfo& info) {
    const FileDescriptor coming = openFolder(staging, kNewFolder);
    forEachReceipt(target, [&](const Receipt& receipt) {
        std::string_view places = receipt.places;
        while (receipt.identifier != info.identifier && !places.empty()) {
            const std::string place = unescaped(takeLine(places));
            struct stat status{};
            if (fstatat(coming.get(), place.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
                throw Failure("another product is installed in the same place: " +
                              inQuotes(receipt.identifier));
            }
        }
    });
}

void writeReceipt(int staging, const Receipt& receipt) {
    const FileDescriptor file = openToWrite(staging, kReceipt);
    Writer writer(file.get());
    writer.add(kFirstLine);
    writer.add("identifier " + receipt.identifier);
    writer.add("version " + receipt.version);
    writer.add("time " + receipt.time);
    writer.add("signer " + receipt.signer);
    addPlaces(openFolder(staging, kNewFolder).get(), "", writer);
    writer.flush();
}

void commitReceipt(int target, int staging) {
    if (!statusOf(staging, kReceipt)) {
        return;
    }
    const std::string text = readFile(staging, kReceipt);
    const std::string name = parseReceipt(text).identifier;
    const FileDescriptor folder = openReceipts(target, true);
    const FileDescriptor file = openToWrite(folder.get(), kUnfinished);
    if (!writeAll(file.get(), text) || fsync(file.get()) != 0 ||
        renameat(folder.get(), kUnfinished, folder.get(), name.c_str()) != 0 || fsync(folder.get()) != 0) {
        throw systemFailure("a receipt cannot be written");
    }
}

} // namespace installer
