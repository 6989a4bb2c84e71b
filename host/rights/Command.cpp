#include "rights/Command.h"

#include "base/PrivilegedCommands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace rights {

namespace {

std::string whyNotThePackage(const std::filesystem::path& path, uid_t owner) {
    if (!path.is_absolute() || std::ranges::find(path, "..") != path.end() ||
        path.filename() != "Pellomar.pkg") {
        return "not an absolute path to a Pellomar.pkg";
    }
    // Not opened for use: what lies there may be a device, or a pipe that makes its openers wait.
    const int file = open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
    struct stat status{};
    const bool isOwn =
        file >= 0 && fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == owner;
    close(file);
    return isOwn ? "" : "the package is not a regular file of the caller's own";
}

} // namespace

std::string whyRefused(const Command& command, uid_t caller) {
    const auto known = findCommand(command);
    if (!known) {
        return "not a command of an installation";
    }
    return known == PrivilegedCommand::InstallPackage ? whyNotThePackage(command[kPackageArgument], caller)
                                                      : "";
}

bool isRootsAlone(const std::filesystem::path& file) {
    std::error_code failure;
    const std::filesystem::path place = std::filesystem::canonical(file, failure);
    struct stat status{};
    return !failure && lstat(place.c_str(), &status) == 0 && status.st_uid == 0 &&
           (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 &&
           (place == place.root_path() || isRootsAlone(place.parent_path()));
}

std::string failureLine(const std::string& tool, int signal) {
    // The driver's start counts as failed where its output names the driver, too.
    const std::string subject = tool == commandLine(PrivilegedCommand::StartDriver)[0] ? " VBoxDrv" : "";
    return "\n" + tool + ": Error -" + subject + " ended by signal " + std::to_string(signal) + "\n";
}

} // namespace rights
