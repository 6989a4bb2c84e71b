#pragma once

#include <optional>
#include <string>

/// Opens files, addresses and applications with the desktop's own programs, without waiting. Any thread.

/// Failures are ignored.
void openFile(const std::string& path);
void openUrl(const std::string& url);

/// Starts the application of the bundle at `bundlePath` detached from this process, with null streams, its
/// own session and the home folder as working folder. Returns nothing on success, else a text that says what
/// was missing or failed.
std::optional<std::string> launchApplication(const std::string& bundlePath);
