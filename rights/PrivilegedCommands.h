#pragma once

#include <optional>
#include <string>
#include <vector>

/// The only commands that an installation runs as root. The pipeline composes them and the root side accepts
/// them from this one table.
enum class PrivilegedCommand { RemoveApplication, InstallPackage, QueryDriver, StartDriver };

inline constexpr char kApplicationPath[] = "/Applications/Pellomar.app";   ///< the installed product
inline constexpr char kDriverIdentifier[] = "com.norvik.emu.kext.VBoxDrv"; ///< the emulator's driver

/// The tool's path, then its arguments. `package` is the package's path; only InstallPackage uses it.
std::vector<std::string> commandLine(PrivilegedCommand command, const std::string& package = {});

/// The command whose command line equals `line`, argument by argument; nullopt if there is none. The package
/// of InstallPackage may be any absolute path, without "..", of a file named Pellomar.pkg.
std::optional<PrivilegedCommand> findCommand(const std::vector<std::string>& line);
