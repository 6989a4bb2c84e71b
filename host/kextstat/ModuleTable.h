#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The kernel's drivers as a table, looked up by the identifiers that another platform uses.
namespace kextstat {

struct Module {
    std::string name;
    std::uint64_t bytes = 0;
    std::uint64_t references = 0;
};

/// Where the kernel lists its drivers.
struct Sources {
    std::filesystem::path list = "/proc/modules"; ///< one line a loadable driver
    std::filesystem::path folder = "/sys/module"; ///< one folder a driver; read if there is no list
};

/// The drivers that are ready for use: in the order of the list or, if there is no list, from the folder,
/// sorted by name. Throws std::system_error if the list cannot be read, or if there is neither.
std::vector<Module> loadedModules(const Sources& sources);

/// The kernel's name for a driver: the identifier's last component in lower case, with "_" for "-", as in
/// "vboxdrv" for one that ends in ".VBoxDrv". Empty when the last component is.
std::string moduleName(std::string_view identifier);

/// The table's head and a row for each driver; with an identifier, only for the driver that it means, whose
/// row then carries the identifier exactly as given.
std::string table(const std::vector<Module>& modules, const std::optional<std::string>& identifier);

} // namespace kextstat
