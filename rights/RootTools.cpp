#include "rights/RootTools.h"

#include "base/ChildProcess.h"
#include "base/Pipe.h"
#include "base/ReadWrite.h"
#include "base/RootEnvironment.h"
#include "base/TransactionAnswer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

std::error_code whyNotRun(const std::string& path) {
    if (access(path.c_str(), F_OK) != 0) {
        return {errno, std::generic_category()};
    }
    return isRootsAlone(path) ? std::error_code() : std::make_error_code(std::errc::operation_not_permitted);
}

// Returns what the program writes to. It runs until its work is done and all copies of `hold` are closed.
FileDescriptor runTransactionProgram(const char* verb, FileDescriptor& hold, std::error_code& failure) {
    Pipe input;
    Pipe output;
    ChildProcess program = rootProgram("/usr/libexec/pellomar-installer-transaction", {verb});
    program.ownSession = true;
    program.standardInput = input.readEnd.get();
    program.standardOutput = output.writeEnd.get();
    failure = whyNotRun(program.path);
    if (!failure) {
        failure = program.startDetached();
    }
    if (failure) {
        return {};
    }
    hold = std::move(input.writeEnd);
    return std::move(output.readEnd);
}

} // namespace

bool isRootsAlone(const std::filesystem::path& file) {
    std::error_code failure;
    struct stat status{};
    if (!file.is_absolute() || !std::filesystem::exists(file, failure) || lstat(file.c_str(), &status) != 0 ||
        status.st_uid != 0) {
        return false;
    }
    if (file == file.root_path()) {
        return (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
    }
    const std::filesystem::path folder = file.parent_path();
    if (S_ISLNK(status.st_mode)) { // its mode has no meaning: who can write to its folder can replace it
        const std::filesystem::path target = std::filesystem::read_symlink(file, failure);
        return !failure && isRootsAlone(folder) && isRootsAlone(folder / target);
    }
    return (status.st_mode & (S_IWGRP | S_IWOTH)) == 0 && isRootsAlone(folder);
}

FileDescriptor endEarlierAttempts() {
    std::error_code ignored;
    FileDescriptor unused;
    return runTransactionProgram("end", unused, ignored);
}

FileDescriptor GrantedCommands::setAside(std::error_code& failure) {
    return runTransactionProgram("hold", hold_, failure);
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
                             std::optional<uid_t> user, FileDescriptor& output, std::error_code& failure) {
    failure = whyNotRun(line.front());
    Pipe pipe;
    if (!failure && !pipe.writeEnd.isOpen()) {
        failure = {errno, std::generic_category()};
    }
    if (failure) {
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
        tool.passedOn.push_back(hold_.get());
    }
    const pid_t process = tool.start(failure);
    if (process > 0) {
        output = std::move(pipe.readEnd);
        if (isInstaller) {
            hold_.reset();
        }
    }
    return process;
}
