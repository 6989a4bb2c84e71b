// The plan is a file in the staging folder. It lists the places that are swapped, in the order of the swap:
//
//     plan   = *( place %x00 )
//     place  = a path relative to the target; zero is the only byte that no path contains
//
// It is written as `plan.part` and renamed when it is on disk, so a plan is always whole. What exists
// shows how far a place has come: in new/, in the target, in old/ under the place's index in the plan.
#include "host/installer/Swap.h"

#include "base/FileDescriptor.h"
#include "base/ReadWrite.h"
#include "host/installer/StagingLayout.h"
#include "host/installer/Tree.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <string_view>

namespace installer {

using namespace package;

namespace {

constexpr char kUnfinishedPlan[] = "plan.part";

// Where an entry is found: an open folder and a name in it.
struct Place {
    Place(int root, const std::string& path) {
        const std::size_t slash = path.rfind('/');
        folder = openFolder(root, slash == std::string::npos ? std::string() : path.substr(0, slash));
        name = slash == std::string::npos ? path : path.substr(slash + 1);
    }

    bool isTaken() const { return statusOf(folder.get(), name).has_value(); }
    void moveTo(const Place& other) const { moveTree(folder.get(), name, other.folder.get(), other.name); }

    FileDescriptor folder;
    std::string name;
};

// The three places of the plan's entry of that index. Which of them are taken shows how far it has come.
struct Places {
    Places(TargetFolder target, StagingFolder staging, const SwapPlan& plan, std::size_t index)
        : inNew(staging, std::string(kNewFolder) + "/" + plan[index]), inTarget(target, plan[index]),
          inOld(staging, std::string(kOldFolder) + "/" + std::to_string(index)) {}

    Place inNew;
    Place inTarget;
    Place inOld;
};

class Planner {
  public:
    explicit Planner(dev_t device) : device_(device) {}

    // Both folders have this `path`: the one in new/, the other in the target.
    void visit(int coming, int present, const std::string& path) {
        for (const std::string& name : namesIn(coming)) {
            std::string place = path.empty() ? path : path + '/';
            place += name;
            const auto there = statusOf(present, name);
            const bool comesAsFolder = isFolder(coming, name);
            if (!there) {
                plan.push_back(place);
                continue;
            }
            if ((S_ISDIR(there->st_mode) && there->st_dev != device_) || isMountPoint(present, name)) {
                throw Failure("something is mounted in the target's place " + inQuotes(place),
                              FailureKind::Target);
            }
            if (!comesAsFolder) {
                if (S_ISDIR(there->st_mode)) {
                    throw Failure("the target has a folder in place of a file: " + inQuotes(place),
                                  FailureKind::Target);
                }
                plan.push_back(place);
                continue;
            }
            if (S_ISLNK(there->st_mode)) {
                throw Failure("the target has a symbolic link in place of a folder: " + inQuotes(place),
                              FailureKind::Target);
            }
            if (!S_ISDIR(there->st_mode)) {
                throw Failure("the target has a file in place of a folder: " + inQuotes(place),
                              FailureKind::Target);
            }
            if (isBundle(name)) {
                plan.push_back(place);
                continue;
            }
            visit(openFolder(coming, name).get(), openFolder(present, name).get(), place);
        }
    }

    SwapPlan plan;

  private:
    dev_t device_;
};

} // namespace

bool isBundle(std::string_view name) {
    constexpr std::array<std::string_view, 7> kExtensions{".app",    ".bundle",   ".framework", ".kext",
                                                          ".plugin", ".prefPane", ".xpc"};
    return std::any_of(kExtensions.begin(), kExtensions.end(), [&](std::string_view extension) {
        return name.size() > extension.size() && name.ends_with(extension);
    });
}

SwapPlan makeSwapPlan(TargetFolder target, StagingFolder staging) {
    struct stat status{};
    if (fstat(target, &status) != 0) {
        throw systemFailure("the target cannot be examined");
    }
    Planner planner(status.st_dev);
    planner.visit(openFolder(staging, kNewFolder).get(), target, "");
    return planner.plan;
}

void writeSwapPlan(StagingFolder staging, const SwapPlan& plan) {
    std::string text;
    for (const std::string& place : plan) {
        text += place;
        text += '\0';
    }
    const FileDescriptor file(
        openat(staging, kUnfinishedPlan, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0600));
    if (!file.isOpen() || !writeAll(file.get(), text) || fsync(file.get()) != 0 ||
        renameat(staging, kUnfinishedPlan, staging, kPlan) != 0 || fsync(staging) != 0) {
        throw systemFailure("the target cannot be written to");
    }
}

SwapPlan readSwapPlan(StagingFolder staging) {
    if (!statusOf(staging, kPlan)) {
        return SwapPlan();
    }
    const FileDescriptor file(openat(staging, kPlan, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    const std::optional<std::string> content = file.isOpen() ? readAll(file.get()) : std::nullopt;
    if (!content) {
        throw systemFailure("what an earlier install left cannot be read");
    }
    const std::string& text = *content;
    SwapPlan plan;
    for (std::size_t begin = 0; begin < text.size();) {
        const std::size_t end = text.find('\0', begin);
        plan.push_back(text.substr(begin, end - begin));
        begin = end == std::string::npos ? text.size() : end + 1;
    }
    return plan;
}

void swap(TargetFolder target, StagingFolder staging, const SwapPlan& plan) {
    for (std::size_t i = 0; i < plan.size(); ++i) {
        const Places places(target, staging, plan, i);
        if (places.inTarget.isTaken()) {
            places.inTarget.moveTo(places.inOld);
        }
        places.inNew.moveTo(places.inTarget);
    }
}

void undoSwap(TargetFolder target, StagingFolder staging, const SwapPlan& plan) {
    for (std::size_t i = plan.size(); i-- > 0;) {
        if (const std::size_t slash = plan[i].rfind('/'); slash != std::string::npos) {
            // A folder that was removed since must not keep the rest from being put back.
            makeFolders(target, plan[i].substr(0, slash));
        }
        const Places places(target, staging, plan, i);
        if (!places.inNew.isTaken() && places.inTarget.isTaken()) {
            places.inTarget.moveTo(places.inNew);
        }
        if (places.inOld.isTaken()) {
            places.inOld.moveTo(places.inTarget);
        }
    }
}

} // namespace installer
