#include "installer/Staging.h"

#include "installer/StagingLayout.h"
#include "installer/Swap.h"
#include "installer/Tree.h"
#include "package/Failure.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace installer {

using namespace package;

namespace {

FileDescriptor openTarget(const std::string& path) {
    FileDescriptor target(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!target.isOpen()) {
        throw errno == ENOTDIR ? Failure("the target is not a folder")
                               : systemFailure("the target cannot be examined");
    }
    return target;
}

bool isSameFolder(int opened, int parent, const std::string& name) {
    struct stat status {};
    const auto named = statusOf(parent, name);
    return named && fstat(opened, &status) == 0 && status.st_ino == named->st_ino &&
           status.st_dev == named->st_dev;
}

FileDescriptor takeStagingFolder(int target) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        if (mkdirat(target, kStagingName, S_IRWXU) != 0 && errno != EEXIST) {
            throw systemFailure("the target cannot be written to");
        }
        FileDescriptor folder = openFolder(target, kStagingName);
        struct stat status {};
        if (fstat(folder.get(), &status) != 0 || status.st_uid != geteuid() ||
            (status.st_mode & 07777) != S_IRWXU) {
            throw Failure(std::string("the target has a folder of somebody else's named ") + kStagingName);
        }
        if (flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
            throw Failure("another install is under way in this target");
        }
        // The run that had it may have removed it between the two steps above.
        if (isSameFolder(folder.get(), target, kStagingName)) {
            return folder;
        }
    }
    throw Failure("another install is under way in this target");
}

} // namespace

Staging::Staging(const std::string& target)
    : target_(openTarget(target)), folder_(takeStagingFolder(target_.get())) {
    try {
        settle();
    } catch (const Failure& problem) {
        throw Failure(std::string("what an earlier install left in ") + kStagingName +
                      " cannot be put back: " + problem.what());
    }
}

FileDescriptor Staging::makeFolder(const std::string& name) const {
    if (mkdirat(folder(), name.c_str(), S_IRWXU) != 0) {
        throw systemFailure("the target cannot be written to");
    }
    return openFolder(folder(), name);
}

void Staging::sync() const {
    if (syncfs(folder()) != 0) {
        throw systemFailure("the target cannot be written to");
    }
}

void Staging::swapIn() const {
    makeFolder(kOldFolder);
    const SwapPlan plan = makeSwapPlan(target(), folder());
    writeSwapPlan(folder(), plan);
    sync(); // what moves in must be on disk before what moves out is gone
    swap(target(), folder(), plan);
}

void Staging::markDone() const {
    sync();
    const FileDescriptor mark(openat(folder(), kDone, O_CREAT | O_WRONLY | O_CLOEXEC, S_IRUSR));
    if (!mark.isOpen() || fsync(mark.get()) != 0 || fsync(folder()) != 0) {
        throw systemFailure("the target cannot be written to");
    }
}

bool Staging::isDone() const {
    return statusOf(folder(), kDone).has_value();
}

void Staging::settle() const {
    if (!isDone()) {
        undoSwap(target(), folder(), readSwapPlan(folder()));
    }
    // Without its plan, nothing would be undone again; without the mark, what is planned would be. So the one
    // goes first, and the other last.
    removeTree(folder(), kPlan);
    for (const std::string& name : namesIn(folder())) {
        if (name != kDone) {
            removeTree(folder(), name);
        }
    }
    removeTree(folder(), kDone);
}

void Staging::close() const {
    settle();
    removeTree(target(), kStagingName);
}

} // namespace installer
