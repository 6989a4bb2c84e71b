#pragma once

#include <optional>
#include <string>
#include <vector>

/// The only commands that an installation runs as root. The pipeline composes them and the root side accepts
/// them from this one table.
enum class PrivilegedCommand { RemoveApplication, InstallPackage, QueryDriver, StartDriver };

inline constexpr char kApplicationPath[] = "/Applications/Pellomar.app";   ///< the installed product
inline constexpr char kDriverIdentifier[] = "com.norvik.emu.kext.VBoxDrv"; ///< the emulator's driver

/// The position of the package's path in the command line of InstallPackage.
inline constexpr std::size_t kPackageArgument = 2;

/// The tool's path, then its arguments. `package` is the package's path, used by InstallPackage alone.
std::vector<std::string> commandLine(PrivilegedCommand command, const std::string& package = {});

/// The command whose command line equals `line`, argument by argument; nothing if there is none. For
/// InstallPackage, any package path is accepted.
std::optional<PrivilegedCommand> findCommand(const std::vector<std::string>& line);
