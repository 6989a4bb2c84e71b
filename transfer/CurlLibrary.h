#pragma once

#include <string>

/// The transfer library's process-wide state. Main thread for the first; the second also when another thread
/// ends the process.

/// Once, before any transfer: initialises all of libcurl's subsystems.
void initialiseCurlLibrary();

/// The versions of libcurl and of the libraries that it uses. Any thread.
std::string curlLibraryVersion();

/// Once, when no new transfer will start.
void cleanUpCurlLibrary();
