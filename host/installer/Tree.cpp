#include "installer/Tree.h"

#include "package/Failure.h"
#include "package/Text.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace installer {

using namespace package;

namespace {

struct CloseList {
    void operator()(DIR* list) const { closedir(list); }
};

FileDescriptor openChild(int folder, const std::string& name) {
    return FileDescriptor(openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Like rename, but never over anything.
bool renameWhole(int fromFolder, const std::string& fromName, int toFolder, const std::string& toName) {
    if (renameat2(fromFolder, fromName.c_str(), toFolder, toName.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    // A file system without that flag. The new place is in a folder of ours, or was seen to be free.
    if (statusOf(toFolder, toName)) {
        errno = EEXIST;
        return false;
    }
    return renameat(fromFolder, fromName.c_str(), toFolder, toName.c_str()) == 0;
}

} // namespace

FileDescriptor openFolder(int folder, const std::string& path) {
    FileDescriptor opened = openChild(folder, ".");
    for (std::size_t begin = 0; opened.isOpen() && begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        opened = openChild(opened.get(), path.substr(begin, end - begin));
        begin = end + 1;
    }
    if (!opened.isOpen()) {
        throw systemFailure("cannot open the folder " + inQuotes(path));
    }
    return opened;
}

std::optional<struct stat> statusOf(int folder, const std::string& name) {
    struct stat status {};
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return status;
    }
    if (errno != ENOENT) {
        throw systemFailure("cannot examine " + inQuotes(name));
    }
    return {};
}

std::vector<std::string> namesIn(int folder) {
    FileDescriptor again = openChild(folder, ".");
    const std::unique_ptr<DIR, CloseList> list(again.isOpen() ? fdopendir(again.get()) : nullptr);
    if (!list) {
        throw systemFailure("cannot list a folder");
    }
    (void)again.release(); // the list's by now
    std::vector<std::string> names;
    errno = 0;
    while (const dirent* entry = readdir(list.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") {
            names.push_back(name);
        }
        errno = 0;
    }
    if (errno != 0) {
        throw systemFailure("cannot list a folder");
    }
    std::sort(names.begin(), names.end());
    return names;
}

void removeTree(int folder, const std::string& name) {
    if (unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) {
        return;
    }
    const FileDescriptor opened = openChild(folder, name);
    if (!opened.isOpen()) {
        throw systemFailure("cannot remove " + inQuotes(name));
    }
    if (geteuid() != 0) {
        (void)fchmod(opened.get(), S_IRWXU);
    }
    for (const std::string& child : namesIn(opened.get())) {
        removeTree(opened.get(), child);
    }
    if (unlinkat(folder, name.c_str(), AT_REMOVEDIR) != 0) {
        throw systemFailure("cannot remove " + inQuotes(name));
    }
}

void moveTree(int fromFolder, const std::string& fromName, int toFolder, const std::string& toName) {
    if (renameWhole(fromFolder, fromName, toFolder, toName)) {
        return;
    }
    const int cause = errno;
    const FileDescriptor from = openChild(fromFolder, fromName);
    if ((cause != EXDEV && cause != EEXIST) || !from.isOpen()) {
        errno = cause;
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
    struct stat status {};
    const bool isNew = mkdirat(toFolder, toName.c_str(), S_IRWXU) == 0;
    const FileDescriptor to = isNew || errno == EEXIST ? openChild(toFolder, toName) : FileDescriptor();
    if (!to.isOpen() || fstat(from.get(), &status) != 0) {
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
    // Owner and mode come first, so that a new folder has them even if this is cut short. One that is there
    // already has its own.
    if (isNew && ((geteuid() == 0 && fchown(to.get(), status.st_uid, status.st_gid) != 0) ||
                  fchmod(to.get(), status.st_mode & 07777) != 0)) {
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
    for (const std::string& child : namesIn(from.get())) {
        moveTree(from.get(), child, to.get(), child);
    }
    const timespec times[] = {status.st_atim, status.st_mtim};
    if ((isNew && futimens(to.get(), times) != 0) ||
        unlinkat(fromFolder, fromName.c_str(), AT_REMOVEDIR) != 0) {
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
}

} // namespace installer
