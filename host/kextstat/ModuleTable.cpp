#include "host/kextstat/ModuleTable.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <system_error>

namespace kextstat {

namespace {

char lower(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::vector<Module> readList(std::ifstream& list) {
    std::vector<Module> modules;
    for (std::string line; std::getline(list, line);) {
        std::istringstream fields(line);
        Module module;
        std::string users;
        std::string state;
        // Not while it is being loaded or unloaded.
        if (fields >> module.name >> module.bytes >> module.references >> users >> state && state == "Live") {
            modules.push_back(std::move(module));
        }
    }
    return modules;
}

// The first word of one of a driver's attribute files; empty if it has none.
std::string attribute(const std::filesystem::path& file) {
    std::ifstream in(file);
    std::string text;
    in >> text;
    return text;
}

std::uint64_t number(const std::string& text) {
    std::uint64_t value = 0;
    std::istringstream(text) >> value;
    return value;
}

std::vector<Module> readFolder(const std::filesystem::path& folder) {
    std::vector<Module> modules;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        // Drivers that are part of the kernel have no state.
        const std::string state = attribute(entry.path() / "initstate");
        if (entry.is_directory() && (state.empty() || state == "live")) {
            modules.push_back({entry.path().filename().string(), number(attribute(entry.path() / "coresize")),
                               number(attribute(entry.path() / "refcnt"))});
        }
    }
    std::sort(modules.begin(), modules.end(),
              [](const Module& a, const Module& b) { return a.name < b.name; });
    return modules;
}

} // namespace

std::vector<Module> loadedModules(const Sources& sources) {
    errno = 0;
    std::ifstream list(sources.list);
    if (!list.is_open()) {
        if (errno == ENOENT) {
            return readFolder(sources.folder);
        }
        throw std::system_error(errno, std::generic_category(), "cannot read " + sources.list.string());
    }
    std::vector<Module> modules = readList(list);
    if (list.bad()) {
        throw std::system_error(EIO, std::generic_category(), "cannot read " + sources.list.string());
    }
    return modules;
}

std::string moduleName(std::string_view identifier) {
    std::string name(identifier.substr(identifier.rfind('.') + 1));
    std::transform(name.begin(), name.end(), name.begin(), [](char c) { return c == '-' ? '_' : lower(c); });
    return name;
}

std::string table(const std::vector<Module>& modules, const std::optional<std::string>& identifier) {
    std::string text = "Index Refs       Size Name\n";
    std::size_t index = 0;
    for (const Module& module : modules) {
        ++index;
        if (identifier && moduleName(*identifier) != moduleName(module.name)) {
            continue;
        }
        char figures[64];
        std::snprintf(figures, sizeof figures, "%5zu %4llu %10llu ", index,
                      static_cast<unsigned long long>(module.references),
                      static_cast<unsigned long long>(module.bytes));
        text += figures + (identifier ? *identifier : module.name) + "\n";
    }
    return text;
}

} // namespace kextstat
