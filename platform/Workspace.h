#pragma once

#include <optional>
#include <string>

/// Opens things for the user, with the desktop's own programs. None waits; failures to open a file or an
/// address are ignored. Any thread.

void openFile(const std::string& path);
void openUrl(const std::string& url);

/// Starts the application of the bundle at `bundlePath`, independent of this process: with null streams, a
/// session of its own and the home folder as its working folder. Returns nothing when it runs, else a
/// description of what was missing or failed.
std::optional<std::string> launchApplication(const std::string& bundlePath);
