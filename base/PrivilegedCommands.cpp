#include "base/PrivilegedCommands.h"

#include <array>

std::vector<std::string> commandLine(PrivilegedCommand command, const std::string& package) {
    switch (command) {
    case PrivilegedCommand::RemoveApplication:
        return {"/bin/rm", "-rf", kApplicationPath};
    case PrivilegedCommand::InstallPackage:
        return {"/usr/sbin/installer", "-pkg", package, "-target", "/"};
    case PrivilegedCommand::QueryDriver:
        return {"/usr/sbin/kextstat", "-b", kDriverIdentifier};
    case PrivilegedCommand::StartDriver:
        return {"/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh", "restart"};
    }
    return {};
}

std::optional<PrivilegedCommand> findCommand(const std::vector<std::string>& line) {
    constexpr std::array kCommands{PrivilegedCommand::RemoveApplication, PrivilegedCommand::InstallPackage,
                                   PrivilegedCommand::QueryDriver, PrivilegedCommand::StartDriver};
    const std::string package = line.size() > kPackageArgument ? line[kPackageArgument] : "";
    for (const PrivilegedCommand command : kCommands) {
        if (line == commandLine(command, package)) {
            return command;
        }
    }
    return std::nullopt;
}
