#pragma once

/// How the program ends. Any thread.

/// Submits the statistics and cleans up the transfer library: once per process; a concurrent call blocks
/// until that is done.
void shutDown();

/// Shuts down and ends the process with status 0, without waiting for running threads.
[[noreturn]] void leave();
