#include "host/installer/SetAside.h"

#include "host/installer/StagingLayout.h"
#include "host/installer/Tree.h"
#include "host/package/Failure.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

namespace installer {

using namespace package;

namespace {

constexpr char kFolder[] = "Applications";
constexpr char kBundle[] = "Pellomar.app";
constexpr char kPieces[] = "pieces";

[[noreturn]] void failToWrite() {
    throw systemFailure("the target cannot be written to");
}

void moveBundle(int from, int to, int aside) {
    if (renameWhole(from, kBundle, to, kBundle)) {
        return;
    }
    if (errno != EXDEV) {
        throw systemFailure(std::string("cannot move ") + kBundle);
    }
    const FileDescriptor mark(openat(aside, kPieces, O_CREAT | O_WRONLY | O_CLOEXEC, S_IRUSR));
    if (!mark.isOpen() || fsync(mark.get()) != 0 || fsync(aside) != 0) {
        failToWrite();
    }
    moveTree(from, kBundle, to, kBundle);
    sync(aside); // the whole must be on disk before it counts as whole
    removeTree(aside, kPieces);
}

std::uint64_t bytesBelow(int folder, const std::string& name) {
    const auto status = statusOf(folder, name);
    if (!status) {
        return 0;
    }
    std::uint64_t bytes = status->st_nlink == 1 || S_ISDIR(status->st_mode)
                              ? static_cast<std::uint64_t>(status->st_blocks) * 512
                              : 0;
    if (S_ISDIR(status->st_mode)) {
        const FileDescriptor opened = openFolder(folder, name);
        for (const std::string& child : namesIn(opened.get())) {
            bytes += bytesBelow(opened.get(), child);
        }
    }
    return bytes;
}

} // namespace

bool isSetAside(StagingFolder staging) {
    return statusOf(staging, kAside) && statusOf(openFolder(staging, kAside).get(), kBundle);
}

bool isSetAsideInPart(StagingFolder staging) {
    return statusOf(staging, kAside) && statusOf(openFolder(staging, kAside).get(), kPieces);
}

bool isApplicationPresent(TargetFolder target) {
    return statusOf(target, kFolder) && statusOf(openFolder(target, kFolder).get(), kBundle);
}

void setAside(TargetFolder target, StagingFolder staging) {
    if (!isApplicationPresent(target)) {
        return;
    }
    const FileDescriptor applications = openFolder(target, kFolder);
    struct stat here{};
    struct stat there{};
    if (fstat(applications.get(), &here) != 0 || fstat(staging, &there) != 0 || here.st_dev != there.st_dev) {
        throw Failure(std::string("the folder ") + kFolder + " is on another file system",
                      FailureKind::Target);
    }
    if (mkdirat(staging, kAside, S_IRWXU) != 0) {
        failToWrite();
    }
    const FileDescriptor aside = openFolder(staging, kAside);
    try {
        moveBundle(applications.get(), aside.get(), aside.get());
        sync(staging);
    } catch (const Failure&) {
        putBack(target, staging);
        throw;
    }
}

void putBack(TargetFolder target, StagingFolder staging) {
    const FileDescriptor aside = openFolder(staging, kAside);
    if (statusOf(aside.get(), kBundle)) {
        if (mkdirat(target, kFolder, 0755) != 0 && errno != EEXIST) {
            failToWrite();
        }
        const FileDescriptor applications = openFolder(target, kFolder);
        if (statusOf(aside.get(), kPieces)) {
            moveTree(aside.get(), kBundle, applications.get(), kBundle);
        } else {
            moveBundle(aside.get(), applications.get(), aside.get());
        }
    }
    sync(staging);
    removeTree(staging, kAside);
}

void moveApplication(TargetFolder target, StagingFolder staging, const std::string& name) {
    if (isApplicationPresent(target)) {
        moveTree(openFolder(target, kFolder).get(), kBundle, staging, name);
    }
}

std::uint64_t bytesSetAside(StagingFolder staging) {
    return bytesBelow(staging, kAside);
}

} // namespace installer
