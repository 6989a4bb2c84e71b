#pragma once

#include <string>

/// Usage statistics. Each call starts the tool `WebStatistics`, beside the executable, without waiting for
/// it; a tool that is missing or can't be executed is ignored. Calls may overlap, and the tool may see them
/// in any order. Any thread.

/// The events' codes.
namespace event {
inline constexpr char kDownloadStarted[] = "814"; ///< by start, by retry, or by continue after a failure
inline constexpr char kDownloaded[] = "815";
inline constexpr char kInstallStarted[] = "817";
inline constexpr char kInstalled[] = "818";
inline constexpr char kDownloadFailed[] = "821"; ///< the length probe or the transfer
inline constexpr char kInstallFailed[] = "822";
inline constexpr char kDriverBlocked[] = "823";     ///< not loaded; the user is sent to the security settings
inline constexpr char kDriverNotAccepted[] = "824"; ///< not loaded; the user is sent to the help page
inline constexpr char kDriverStarted[] = "825";     ///< by a retry; the product is launched next
inline constexpr char kDriverFound[] = "826";       ///< the product is launched next
} // namespace event

/// Records an event: starts the tool with "14" and the code, a short decimal text.
void executeWebStatic(const char* code);

/// Submits what the tool has gathered: starts it with "13".
void submitWebStatic();

/// The tool's path for an executable at `executablePath`. The ".." in it is resolved lexically.
std::string webStatisticsPath(const std::string& executablePath);
