#include "host/installer/Staging.h"

#include "host/installer/Receipt.h"
#include "host/installer/SetAside.h"
#include "host/installer/StagingLayout.h"
#include "host/installer/Swap.h"
#include "host/installer/Tree.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <thread>

namespace installer {

using namespace package;

namespace {

constexpr char kDiscarded[] = "discarded.";
constexpr char kCannotWrite[] = "the target cannot be written to";
constexpr char kBusy[] = "another install is under way in this target";

FileDescriptor openTarget(const std::string& path) {
    FileDescriptor target(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!target.isOpen()) {
        throw errno == ENOTDIR ? Failure("the target is not a folder", FailureKind::Target)
                               : systemFailure("the target cannot be examined");
    }
    return target;
}

bool isSameFolder(int opened, int parent, const std::string& name) {
    struct stat status{};
    const auto named = statusOf(parent, name);
    return named && fstat(opened, &status) == 0 && status.st_ino == named->st_ino &&
           status.st_dev == named->st_dev;
}

// Uses up some of `patience`.
void lock(int folder, std::chrono::milliseconds& patience) {
    constexpr std::chrono::milliseconds kInterval{100};
    while (flock(folder, LOCK_EX | LOCK_NB) != 0) {
        if (patience < kInterval) {
            throw Failure(kBusy, FailureKind::Busy);
        }
        std::this_thread::sleep_for(kInterval);
        patience -= kInterval;
    }
}

FileDescriptor takeStagingFolder(int target, std::chrono::milliseconds patience) {
    constexpr int kTries = 100;
    for (int i = 0; i < kTries; ++i) {
        if (mkdirat(target, kStagingName, S_IRWXU) != 0 && errno != EEXIST) {
            throw systemFailure(kCannotWrite);
        }
        FileDescriptor folder = openFolder(target, kStagingName);
        struct stat status{};
        if (fstat(folder.get(), &status) != 0 || status.st_uid != geteuid() ||
            (status.st_mode & 07777 & ~S_ISGID) != S_IRWXU) {
            throw Failure(std::string("another user can change the target's folder ") + kStagingName,
                          FailureKind::Target);
        }
        // A set-group-id target passes its group and that bit on to what is made in it.
        if ((status.st_mode & S_ISGID) != 0 &&
            (fchown(folder.get(), -1U, getegid()) != 0 || fchmod(folder.get(), S_IRWXU) != 0)) {
            throw systemFailure(kCannotWrite);
        }
        lock(folder.get(), patience);
        // The process that had it may have removed it between the two steps above.
        if (isSameFolder(folder.get(), target, kStagingName)) {
            return folder;
        }
    }
    throw Failure(kBusy, FailureKind::Busy);
}

} // namespace

Staging::Staging(const std::string& target, std::chrono::seconds patience)
    : target_(openTarget(target)), folder_(takeStagingFolder(target_.get(), patience)) {
    try {
        settle();
        if (statusOf(folder(), kAside) && (isSetAsideInPart(folder()) || !isSetAside(folder()))) {
            putBack(this->target(), folder());
        }
    } catch (const Failure& problem) {
        throw Failure(std::string("what an earlier install left in ") + kStagingName +
                          " cannot be put back: " + problem.what(),
                      problem.kind());
    }
}

FileDescriptor Staging::makeFolder(const std::string& name) {
    if (mkdirat(folder(), name.c_str(), S_IRWXU) != 0) {
        throw systemFailure(kCannotWrite);
    }
    return openFolder(folder(), name);
}

void Staging::swapIn() {
    makeFolder(kOldFolder);
    const SwapPlan plan = makeSwapPlan(target(), folder());
    writeSwapPlan(folder(), plan);
    sync(folder()); // the new must be on disk before the old is moved
    swap(target(), folder(), plan);
}

void Staging::markDone() {
    sync(folder());
    const FileDescriptor mark(openat(folder(), kDone, O_CREAT | O_WRONLY | O_CLOEXEC, S_IRUSR));
    if (!mark.isOpen() || fsync(mark.get()) != 0) {
        throw systemFailure(kCannotWrite);
    }
    syncFolder();
}

bool Staging::isDone() const {
    return statusOf(folder(), kDone).has_value();
}

void Staging::discardAside() {
    discard(kAside);
    removeDiscarded();
}

void Staging::discardApplication() {
    moveApplication(target(), folder(), unusedName());
    removeDiscarded();
}

std::string Staging::unusedName() const {
    for (int i = 0;; ++i) {
        std::string name = kDiscarded + std::to_string(i);
        if (!statusOf(folder(), name)) {
            return name;
        }
    }
}

// Renaming first ensures that nothing partly removed is taken for the whole, and that what cannot be removed
// is not in the way of the next install.
void Staging::discard(const std::string& name) {
    if (renameat(folder(), name.c_str(), folder(), unusedName().c_str()) != 0 && errno != ENOENT) {
        throw systemFailure("cannot move " + inQuotes(name));
    }
}

void Staging::settle() {
    isDone() ? complete() : undo();
    clean();
}

void Staging::complete() {
    // What was replaced may take the space that the receipt needs. The mark must be on disk before it goes.
    syncFolder();
    for (const char* name : {kOldFolder, kAside, kNewFolder}) {
        discard(name);
    }
    removeDiscarded();
    commitReceipt(target(), folder());
}

void Staging::undo() {
    const SwapPlan plan = readSwapPlan(folder());
    undoSwap(target(), folder(), plan);
    if (!plan.empty()) {
        // Syncing this folder alone would let the plan's removal reach the disk before what was undone.
        sync(folder());
    }
}

// Removes the plan before the mark, also on disk: with a plan and no mark, the next run would undo a finished
// install.
void Staging::clean() {
    removeTree(folder(), kPlan);
    syncFolder();
    const bool wasDone = isDone();
    for (const std::string& name : namesIn(folder())) {
        if (name != kDone && (name != kAside || wasDone) && !name.starts_with(kDiscarded)) {
            discard(name);
        }
    }
    removeTree(folder(), kDone);
    removeDiscarded();
}

void Staging::syncFolder() {
    if (fsync(folder()) != 0) {
        throw systemFailure(kCannotWrite);
    }
}

void Staging::removeDiscarded() {
    for (const std::string& name : namesIn(folder())) {
        if (name.starts_with(kDiscarded)) {
            try {
                removeTree(folder(), name);
            } catch (const Failure& problem) {
                std::fprintf(stderr, "installer: %s\n", problem.what());
            }
        }
    }
}

void Staging::close() {
    settle();
    if (unlinkat(target(), kStagingName, AT_REMOVEDIR) != 0 && errno != ENOTEMPTY && errno != EEXIST) {
        throw systemFailure(std::string("cannot remove ") + kStagingName);
    }
}

} // namespace installer
