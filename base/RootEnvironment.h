#pragma once

/// The search path of programs that run as root: only folders that only root can change.
inline constexpr char kRootPath[] = "PATH=/usr/sbin:/usr/bin:/sbin:/bin";

inline constexpr char kRootHome[] = "HOME=/root";
