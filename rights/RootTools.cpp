#include "rights/RootTools.h"

#include "base/ChildProcess.h"
#include "base/Ownership.h"
#include "base/Pipe.h"
#include "base/ReadWrite.h"
#include "base/RootEnvironment.h"
#include "base/TransactionAnswer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <system_error>
#include <utility>

namespace {

ChildProcess rootProgram(const std::string& path, std::vector<std::string> arguments,
                         const std::vector<std::string>& settings = {}) {
    ChildProcess program;
    program.path = path;
    program.arguments = std::move(arguments);
    // Outcomes are judged by English words.
    std::vector<std::string> environment{kRootPath, "LC_ALL=C", kRootHome};
    environment.insert(environment.end(), settings.begin(), settings.end());
    program.environment = std::move(environment);
    program.workingFolder = "/";
    return program;
}

// True if only root can change the file, every folder above it, and every symbolic link on the way with what
// it leads to. False for a relative path.
bool isOursAloneAt(const std::filesystem::path& file) {
    struct stat status{};
    if (!file.is_absolute() || lstat(file.c_str(), &status) != 0) {
        return false;
    }
    const std::filesystem::path folder = file.parent_path();
    if (S_ISLNK(status.st_mode)) { // whoever can write to its folder can replace it
        std::error_code failure;
        const std::filesystem::path target = std::filesystem::read_symlink(file, failure);
        return !failure && isOursAloneAt(folder) && isOursAloneAt(folder / target);
    }
    return isOursAlone(status) && (file == folder || isOursAloneAt(folder));
}

// Sets errno if not.
bool mayRun(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0) { // also if its links form a circle
        return false;
    }
    errno = EPERM;
    return isOursAloneAt(path);
}

// Returns what the program writes to. It runs until its work is done and all copies of `hold` are closed.
FileDescriptor runTransactionProgram(const char* verb, FileDescriptor& hold) {
    Pipe input;
    Pipe output;
    ChildProcess program = rootProgram("/usr/libexec/pellomar-installer-transaction", {verb});
    program.ownSession = true;
    program.standardInput = input.readEnd.get();
    program.standardOutput = output.writeEnd.get();
    if (!input.readEnd.isOpen() || !output.writeEnd.isOpen() || !mayRun(program.path) ||
        !program.startDetached()) {
        return FileDescriptor();
    }
    hold = std::move(input.writeEnd);
    return std::move(output.readEnd);
}

} // namespace

FileDescriptor endEarlierAttempts() {
    FileDescriptor hold;
    return runTransactionProgram("end", hold);
}

FileDescriptor GrantedCommands::setAside() {
    return runTransactionProgram("hold", hold_);
}

bool GrantedCommands::isSetAside(int answer) {
    char byte = kNotSetAside;
    return read(answer, &byte, 1) == 1 && byte == kSetAside;
}

FileDescriptor GrantedCommands::outputOfNoRemoval() {
    Pipe pipe;
    return writeAll(pipe.writeEnd.get(), "rm: not run\n") ? std::move(pipe.readEnd) : FileDescriptor();
}

std::optional<PrivilegedCommand> GrantedCommands::take(const std::vector<std::string>& line,
                                                       std::string& refusal) {
    const auto command = findCommand(line);
    if (!command) {
        refusal = "not a command of an installation";
    } else if (std::ranges::find(taken_, *command) != taken_.end()) {
        refusal = "the command was already used in this attempt";
    } else {
        taken_.push_back(*command);
        return command;
    }
    return std::nullopt;
}

void GrantedCommands::endInstallation() {
    taken_.insert(taken_.end(), {PrivilegedCommand::RemoveApplication, PrivilegedCommand::InstallPackage,
                                 PrivilegedCommand::StartDriver});
}

pid_t GrantedCommands::start(PrivilegedCommand command, const std::vector<std::string>& line,
                             std::optional<uid_t> user, FileDescriptor& output) {
    Pipe pipe;
    if (!pipe.writeEnd.isOpen() || !mayRun(line.front())) {
        return -1;
    }
    const bool isInstaller = command == PrivilegedCommand::InstallPackage;
    std::vector<std::string> settings;
    if (isInstaller && user) {
        settings.push_back(std::string(kPackageUser) + "=" + std::to_string(*user));
    }
    ChildProcess tool = rootProgram(line.front(), {line.begin() + 1, line.end()}, settings);
    tool.standardInput = ChildProcess::kNull;
    tool.standardOutput = pipe.writeEnd.get();
    if ((isInstaller || command == PrivilegedCommand::RemoveApplication) && hold_.isOpen()) {
        tool.passedOn = hold_.get();
    }
    const pid_t process = tool.start();
    if (process > 0) {
        output = std::move(pipe.readEnd);
        if (isInstaller) {
            hold_.reset();
        }
    }
    return process;
}
