#include "PackageMaker.h"

#include "Process.h"

#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>

namespace {

// Writes the entries through a file, which the xar writer and large payloads need.
std::string write(archive* writer, const std::vector<Entry>& entries) {
    const TemporaryFolder scratch;
    const std::string path = scratch / "archive";
    EXPECT_EQ(archive_write_open_filename(writer, path.c_str()), ARCHIVE_OK);
    for (const Entry& item : entries) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, item.name.c_str());
        archive_entry_set_mode(entry, item.mode);
        archive_entry_set_mtime(entry, item.time, 0);
        archive_entry_set_uid(entry, kEntryOwner);
        archive_entry_set_gid(entry, kEntryOwner);
        if (S_ISLNK(item.mode)) {
            archive_entry_set_symlink(entry, item.content.c_str());
        }
        archive_entry_set_size(entry, S_ISREG(item.mode) ? static_cast<la_int64_t>(item.content.size()) : 0);
        if (!item.hardLink.empty()) { // in cpio, names of one inode
            archive_entry_set_ino(entry, 77);
            archive_entry_set_dev(entry, 1);
            archive_entry_set_nlink(entry, 2);
        }
        EXPECT_EQ(archive_write_header(writer, entry), ARCHIVE_OK) << archive_error_string(writer);
        if (S_ISREG(item.mode)) {
            EXPECT_EQ(archive_write_data(writer, item.content.data(), item.content.size()),
                      static_cast<la_ssize_t>(item.content.size()));
        }
        archive_entry_free(entry);
    }
    EXPECT_EQ(archive_write_close(writer), ARCHIVE_OK) << archive_error_string(writer);
    archive_write_free(writer);
    return readFile(path);
}

} // namespace

std::string makePayload(const std::vector<Entry>& entries, const std::string& format) {
    archive* writer = archive_write_new();
    archive_write_add_filter_gzip(writer);
    EXPECT_EQ(archive_write_set_format_by_name(writer, format.c_str()), ARCHIVE_OK);
    return write(writer, entries);
}

std::string makeXar(const std::vector<Entry>& entries, const std::string& compression) {
    archive* writer = archive_write_new();
    EXPECT_EQ(archive_write_set_format_xar(writer), ARCHIVE_OK);
    EXPECT_EQ(archive_write_set_options(writer, ("compression=" + compression).c_str()), ARCHIVE_OK);
    return write(writer, entries);
}

std::string makePackage(const std::string& payload, const std::string& info,
                        const std::vector<Entry>& scripts) {
    std::vector<Entry> entries{file("PackageInfo", info), file("Payload", payload)};
    if (!scripts.empty()) {
        entries.push_back(file("Scripts", makePayload(scripts)));
    }
    return makeXar(entries);
}
