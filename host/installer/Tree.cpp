#include "host/installer/Tree.h"

#include "base/Owner.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace installer {

using namespace package;

namespace {

// A folder that moveTree makes, until it has its mode and owner.
constexpr char kUnfinishedFolder[] = ".pellomar-unfinished";

FileDescriptor openChild(int folder, const std::string& name) {
    return FileDescriptor(openat(folder, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Unlike openat, fails with EXDEV for a mount point.
FileDescriptor openWithinMount(int folder, const std::string& name, std::uint64_t flags) {
    open_how how{};
    how.flags = flags | O_NOFOLLOW | O_CLOEXEC;
    how.resolve = RESOLVE_NO_XDEV;
    return FileDescriptor(static_cast<int>(syscall(SYS_openat2, folder, name.c_str(), &how, sizeof how)));
}

// Opens a folder that is no mount point; fails with EXDEV if it is one.
FileDescriptor openOnSameMount(int folder, const std::string& name) {
    FileDescriptor opened = openWithinMount(folder, name, O_RDONLY | O_DIRECTORY);
    if (opened.isOpen() || (errno != ENOSYS && errno != EPERM)) {
        return opened;
    }
    // An old kernel, or a container that does not know the call. Device numbers do not distinguish bind
    // mounts.
    struct stat above{};
    struct stat below{};
    opened = openChild(folder, name);
    if (opened.isOpen() &&
        (fstat(folder, &above) != 0 || fstat(opened.get(), &below) != 0 || above.st_dev != below.st_dev)) {
        errno = EXDEV;
        return FileDescriptor();
    }
    return opened;
}

// Makes a folder that has its mode and owner as soon as it has its name.
bool makeFolderLike(const struct stat& status, int parent, const std::string& name) {
    removeTree(parent, kUnfinishedFolder); // of an interrupted move, or put there by another user
    if (mkdirat(parent, kUnfinishedFolder, S_IRWXU) != 0) {
        return false;
    }
    const FileDescriptor made = openOnSameMount(parent, kUnfinishedFolder);
    return made.isOpen() && (geteuid() != 0 || fchown(made.get(), status.st_uid, status.st_gid) == 0) &&
           fchmod(made.get(), status.st_mode & 07777) == 0 &&
           renameat(parent, kUnfinishedFolder, parent, name.c_str()) == 0;
}

enum class Missing { Refuse, Make };

FileDescriptor openEach(int folder, const std::string& path, Missing missing) {
    FileDescriptor opened = openChild(folder, ".");
    for (std::size_t begin = 0; opened.isOpen() && begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, end - begin);
        if (missing == Missing::Make && mkdirat(opened.get(), name.c_str(), 0755) != 0 && errno != EEXIST) {
            throw systemFailure("cannot make the folder " + inQuotes(path));
        }
        opened = openChild(opened.get(), name);
        begin = end + 1;
    }
    if (!opened.isOpen()) {
        throw systemFailure("cannot open the folder " + inQuotes(path));
    }
    return opened;
}

} // namespace

bool renameWhole(int fromFolder, const std::string& fromName, int toFolder, const std::string& toName) {
    if (renameat2(fromFolder, fromName.c_str(), toFolder, toName.c_str(), RENAME_NOREPLACE) == 0) {
        return true;
    }
    if (errno != EINVAL && errno != ENOSYS) {
        return false;
    }
    // A file system without that flag. The caller has seen that the new place is free, or no one else can
    // enter its folder.
    if (statusOf(toFolder, toName)) {
        errno = EEXIST;
        return false;
    }
    return renameat(fromFolder, fromName.c_str(), toFolder, toName.c_str()) == 0;
}

FileDescriptor openFolder(int folder, const std::string& path) {
    return openEach(folder, path, Missing::Refuse);
}

FileDescriptor makeFolders(int folder, const std::string& path) {
    return openEach(folder, path, Missing::Make);
}

std::optional<struct stat> statusOf(int folder, const std::string& name) {
    struct stat status{};
    if (fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        return status;
    }
    if (errno != ENOENT) {
        throw systemFailure("cannot examine " + inQuotes(name));
    }
    return std::nullopt;
}

bool isFolder(int folder, const std::string& name) {
    const auto status = statusOf(folder, name);
    if (!status) {
        throw systemFailure("cannot examine " + inQuotes(name));
    }
    return S_ISDIR(status->st_mode);
}

std::vector<std::string> namesIn(int folder) {
    FileDescriptor again = openChild(folder, ".");
    const Owner<DIR, closedir> list(again.isOpen() ? fdopendir(again.get()) : nullptr);
    if (!list) {
        throw systemFailure("cannot list a folder");
    }
    static_cast<void>(again.release()); // owned by the list
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

bool isMountPoint(int folder, const std::string& name) {
    return !openWithinMount(folder, name, O_PATH).isOpen() && errno == EXDEV;
}

void sync(int folder) {
    if (syncfs(folder) != 0) {
        throw systemFailure("the target cannot be written to");
    }
}

void removeTree(int folder, const std::string& name, unsigned depth) {
    constexpr unsigned kDeepest = 4096; // what a stack of some megabytes has room for
    if (unlinkat(folder, name.c_str(), 0) == 0 || errno == ENOENT) {
        return;
    }
    const FileDescriptor opened = errno == EISDIR ? openOnSameMount(folder, name) : FileDescriptor();
    if (!opened.isOpen()) {
        throw errno == EXDEV
            ? Failure("cannot remove " + inQuotes(name) + ": something is mounted there", FailureKind::Target)
            : systemFailure("cannot remove " + inQuotes(name));
    }
    if (geteuid() != 0) {
        fchmod(opened.get(), S_IRWXU);
    }
    if (depth == kDeepest) {
        throw Failure("cannot remove " + inQuotes(name) + ": it lies too deep", FailureKind::Target);
    }
    for (const std::string& child : namesIn(opened.get())) {
        removeTree(opened.get(), child, depth + 1);
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
    const FileDescriptor from = openOnSameMount(fromFolder, fromName);
    if ((cause != EXDEV && cause != EEXIST) || !from.isOpen()) {
        errno = cause;
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
    struct stat status{};
    const bool isNew = !statusOf(toFolder, toName);
    if (fstat(from.get(), &status) != 0 || (isNew && !makeFolderLike(status, toFolder, toName))) {
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
    const FileDescriptor to = openOnSameMount(toFolder, toName);
    if (!to.isOpen()) {
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
    removeTree(to.get(), kUnfinishedFolder);
    for (const std::string& child : namesIn(from.get())) {
        if (child == kUnfinishedFolder) {
            removeTree(from.get(), child);
        } else {
            moveTree(from.get(), child, to.get(), child);
        }
    }
    const timespec times[] = {status.st_atim, status.st_mtim};
    if ((isNew && futimens(to.get(), times) != 0) ||
        unlinkat(fromFolder, fromName.c_str(), AT_REMOVEDIR) != 0) {
        throw systemFailure("cannot move " + inQuotes(fromName));
    }
}

} // namespace installer
