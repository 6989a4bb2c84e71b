// Packs a folder into a flat package: a xar archive with PackageInfo and Payload, a gzip-compressed cpio
// archive of the folder. All entries belong to root and have one time stamp, so that the payload depends on
// the contents alone.
#include "base/Owner.h"

#include <archive.h>
#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr std::time_t kTime = 1554422400; // 2019-04-05 00:00:00 UTC

constexpr char kUsage[] = "Usage: make-package --identifier ID --version VERSION FOLDER PACKAGE\n";

using Writer = Owner<archive, archive_write_free>;
using ArchiveEntry = Owner<archive_entry, archive_entry_free>;

void expect(int result, archive* writer) {
    if (result != ARCHIVE_OK) {
        throw std::runtime_error(archive_error_string(writer));
    }
}

// A file that is removed on every return and exception.
struct Scratch {
    fs::path path;
    ~Scratch() {
        std::error_code ignored;
        fs::remove(path, ignored);
    }
};

ArchiveEntry makeEntry(const std::string& name, mode_t mode, la_int64_t size) {
    ArchiveEntry entry(archive_entry_new());
    archive_entry_copy_pathname(entry.get(), name.c_str());
    archive_entry_set_mode(entry.get(), mode);
    archive_entry_set_size(entry.get(), size);
    archive_entry_set_mtime(entry.get(), kTime, 0);
    archive_entry_set_uid(entry.get(), 0);
    archive_entry_set_gid(entry.get(), 0);
    return entry;
}

void writeBytes(archive* writer, const char* bytes, std::size_t size) {
    if (archive_write_data(writer, bytes, size) != static_cast<la_ssize_t>(size)) {
        throw std::runtime_error(archive_error_string(writer));
    }
}

void writeFile(archive* writer, const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::vector<char> block(262144);
    while (in.read(block.data(), static_cast<std::streamsize>(block.size())) || in.gcount() > 0) {
        writeBytes(writer, block.data(), static_cast<std::size_t>(in.gcount()));
    }
    if (in.bad() || !in.eof()) {
        throw std::runtime_error("cannot read " + file.string());
    }
}

struct Contents {
    std::size_t files = 0;
    std::uintmax_t bytes = 0;
};

Contents makePayload(const fs::path& folder, const fs::path& out) {
    // Folders precede their contents, since their paths are shorter.
    std::vector<fs::path> paths(fs::recursive_directory_iterator(folder), {});
    std::sort(paths.begin(), paths.end());

    const Writer writer(archive_write_new());
    expect(archive_write_add_filter_gzip(writer.get()), writer.get());
    expect(archive_write_set_filter_option(writer.get(), "gzip", "timestamp", nullptr), writer.get());
    expect(archive_write_set_format_cpio(writer.get()), writer.get());
    expect(archive_write_open_filename(writer.get(), out.c_str()), writer.get());
    expect(archive_write_header(writer.get(), makeEntry(".", S_IFDIR | 0755, 0).get()), writer.get());
    Contents contents;
    for (const fs::path& path : paths) {
        struct stat status{};
        if (lstat(path.c_str(), &status) != 0) {
            throw std::runtime_error("cannot examine " + path.string());
        }
        const bool isFile = S_ISREG(status.st_mode);
        if (!isFile && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)) {
            throw std::runtime_error("neither a file, a folder nor a link: " + path.string());
        }
        const bool runs = S_ISDIR(status.st_mode) || (status.st_mode & S_IXUSR) != 0;
        const auto entry =
            makeEntry("./" + path.lexically_relative(folder).string(),
                      (status.st_mode & S_IFMT) | (runs ? 0755 : 0644), isFile ? status.st_size : 0);
        if (S_ISLNK(status.st_mode)) {
            archive_entry_copy_symlink(entry.get(), fs::read_symlink(path).c_str());
        }
        expect(archive_write_header(writer.get(), entry.get()), writer.get());
        if (isFile) {
            writeFile(writer.get(), path);
        }
        ++contents.files;
        contents.bytes += isFile ? static_cast<std::uintmax_t>(status.st_size) : 0;
    }
    expect(archive_write_close(writer.get()), writer.get());
    return contents;
}

void makePackage(const std::string& identifier, const std::string& version, const fs::path& folder,
                 const fs::path& out) {
    const Scratch payload{out.string() + ".payload"};
    const Scratch unfinished{out.string() + ".part"};
    const Contents contents = makePayload(folder, payload.path);
    const std::string info = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<pkg-info format-version=\"2\" identifier=\"" +
                             identifier + "\" version=\"" + version +
                             "\" install-location=\"/\" auth=\"root\">\n"
                             "  <payload numberOfFiles=\"" +
                             std::to_string(contents.files) + "\" installKBytes=\"" +
                             std::to_string(contents.bytes / 1024) + "\"/>\n</pkg-info>\n";

    const Writer writer(archive_write_new());
    expect(archive_write_set_format_xar(writer.get()), writer.get());
    expect(archive_write_set_options(writer.get(), "compression=none"), writer.get());
    expect(archive_write_open_filename(writer.get(), unfinished.path.c_str()), writer.get());
    const auto infoEntry = makeEntry("PackageInfo", S_IFREG | 0644, static_cast<la_int64_t>(info.size()));
    expect(archive_write_header(writer.get(), infoEntry.get()), writer.get());
    writeBytes(writer.get(), info.data(), info.size());
    const auto payloadEntry =
        makeEntry("Payload", S_IFREG | 0644, static_cast<la_int64_t>(fs::file_size(payload.path)));
    expect(archive_write_header(writer.get(), payloadEntry.get()), writer.get());
    writeFile(writer.get(), payload.path);
    expect(archive_write_close(writer.get()), writer.get());
    fs::rename(unfinished.path, out);
}

bool isPlainWord(const std::string& text) {
    return !text.empty() && text.find_first_of("<>&\"' \t\n") == std::string::npos;
}

} // namespace

int main(int argc, char** argv) try {
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    if (arguments.size() != 6 || arguments[0] != "--identifier" || arguments[2] != "--version" ||
        !isPlainWord(arguments[1]) || !isPlainWord(arguments[3])) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    makePackage(arguments[1], arguments[3], arguments[4], arguments[5]);
    return 0;
} catch (const std::exception& problem) {
    std::fprintf(stderr, "make-package: %s\n", problem.what());
    return 1;
}
