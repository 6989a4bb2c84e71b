#pragma once

/// How the program ends. Any thread.

/// Submits the statistics and cleans up the transfer library, once per process: a second call does nothing,
/// and waits if the first is still running. The process goes on.
void submitAndCleanUp();

/// The same, and then ends the process with status 0, without waiting for running threads.
[[noreturn]] void leave();
