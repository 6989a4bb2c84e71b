#pragma once

#include <functional>
#include <string>

namespace installer {

/// The worker's result.
struct Ending {
    bool succeeded = false;
    std::string cause; ///< of a failure, in one line
};

/// Handles the signals that ask this process to end (SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU) by printing a
/// failure before it exits: callers take output without one for success.
void reportWhenStopped();

/// Runs `work` in a child process, waits for it, kills its remaining descendants and returns the result. The
/// work has failed when it throws, is killed or runs out of memory, or when this process receives one of the
/// signals above, which then kills the child; after the return those signals are ignored. If this process is
/// killed with SIGKILL, the child prints a failure and exits. Call it once, in a process with one thread.
Ending supervise(const std::function<void()>& work);

} // namespace installer
