#pragma once

#include <string>

/// The package's address: the download base followed by the text, unchanged, of the file ".config" beside the
/// bundle at `bundlePath` or, when that does not exist, of the file at `fallbackPath`. "" when the chosen
/// file cannot be read. Both cases are logged. Any thread.
std::string downloadUrl(const std::string& bundlePath, const std::string& fallbackPath);

/// ".config" on the distribution disk image, under its volume name.
inline constexpr char kFallbackConfigurationPath[] = "/Volumes/Pellomar下载器/.config";
