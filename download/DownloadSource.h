#pragma once

#include <string>

/// Where the package comes from: the address that the file ".config" beside the bundle at `bundlePath` names,
/// or, where no such file exists, the one at `fallbackPath`. The file's text is appended to the download base
/// as it is. "" when the chosen file cannot be read; both cases are logged. Any thread.
std::string downloadUrl(const std::string& bundlePath, const std::string& fallbackPath);

/// ".config" on the distribution disk image, under its volume name.
inline constexpr char kFallbackConfigurationPath[] = "/Volumes/Pellomar下载器/.config";
