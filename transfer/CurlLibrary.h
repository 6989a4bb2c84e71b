#pragma once

/// The transfer library's process-wide state. Main thread for the first; the second also when another thread
/// ends the process.

/// Once, before any transfer: initialises all of libcurl's subsystems.
void initialiseCurlLibrary();

/// Once, when no new transfer will start.
void cleanUpCurlLibrary();
