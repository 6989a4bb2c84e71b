#pragma once

#include <sys/stat.h>

#include <ctime>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

constexpr std::time_t kEntryTime = 1'500'000'000;
constexpr uid_t kEntryOwner = 4321;

// Name of the folder in the target that installs are prepared in.
inline const std::string kStaging = ".pellomar-installer";

struct Entry {
    std::string name;
    mode_t mode;
    std::string content = {}; // of a file; target of a symbolic link
    std::string hardLink = {};
    std::time_t time = kEntryTime;
};

inline Entry file(const std::string& name, const std::string& content = "content", mode_t mode = 0644) {
    return {name, S_IFREG | mode, content};
}
inline Entry folder(const std::string& name, mode_t mode = 0755) {
    return {name, S_IFDIR | mode};
}
inline Entry symbolicLink(const std::string& name, const std::string& target) {
    return {name, S_IFLNK | 0777, target};
}

// The gzip'd cpio of these entries.
std::string makePayload(const std::vector<Entry>& entries, const std::string& format = "odc");

// A xar archive with these entries, stored as they are or compressed one by one.
std::string makeXar(const std::vector<Entry>& entries, const std::string& compression = "none");

inline const std::string kPackageInfo = "<pkg-info format-version=\"2\" identifier=\"com.example.thing\" "
                                        "version=\"1.0\" install-location=\"/\"/>";

// A flat package with that payload, and with scripts if there are any.
std::string makePackage(const std::string& payload, const std::string& info = kPackageInfo,
                        const std::vector<Entry>& scripts = {});
