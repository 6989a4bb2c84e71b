#pragma once

#include <string>

/// libcurl's process-wide state.

/// Initialises all of libcurl's subsystems. Main thread, once, before any transfer.
void initialiseCurlLibrary();

/// The versions of libcurl and of the libraries that it uses. Any thread.
std::string curlLibraryVersion();

/// Releases libcurl's process-wide state. Once, on the thread that ends the process; transfers may still be
/// running.
void cleanUpCurlLibrary();
