#pragma once

/// The search path of programs that run as root: only folders that only root can change.
inline constexpr char kRootPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

inline constexpr char kRootHome[] = "HOME=/root";

/// The variable that names the user, by number, as whom the package installer opens its package.
inline constexpr char kPackageUser[] = "INSTALLER_PACKAGE_USER";
