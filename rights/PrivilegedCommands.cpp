#include "rights/PrivilegedCommands.h"

#include <algorithm>
#include <filesystem>

namespace {

struct CommandRow {
    PrivilegedCommand command;
    std::vector<std::string> line; // an empty word stands for the package's path
};

const std::vector<CommandRow>& table() {
    static const std::vector<CommandRow> rows{
        {PrivilegedCommand::RemoveApplication, {"/bin/rm", "-rf", kApplicationPath}},
        {PrivilegedCommand::InstallPackage, {"/usr/sbin/installer", "-pkg", "", "-target", "/"}},
        {PrivilegedCommand::QueryDriver, {"/usr/sbin/kextstat", "-b", kDriverIdentifier}},
        {PrivilegedCommand::StartDriver,
         {"/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh", "restart"}},
    };
    return rows;
}

bool isPackagePath(const std::filesystem::path& path) {
    return path.is_absolute() && std::ranges::find(path, "..") == path.end() &&
           path.filename() == "Pellomar.pkg";
}

} // namespace

std::vector<std::string> commandLine(PrivilegedCommand command, const std::string& package) {
    std::vector<std::string> line = std::ranges::find(table(), command, &CommandRow::command)->line;
    std::ranges::replace(line, std::string(), package);
    return line;
}

std::optional<PrivilegedCommand> findCommand(const std::vector<std::string>& line) {
    const auto isAllowed = [](const std::string& allowed, const std::string& word) {
        return allowed.empty() ? isPackagePath(word) : allowed == word;
    };
    const auto isWanted = [&](const CommandRow& row) {
        return std::ranges::equal(row.line, line, isAllowed);
    };
    const auto found = std::ranges::find_if(table(), isWanted);
    return found == table().end() ? std::nullopt : std::optional(found->command);
}
