#pragma once

#include <functional>
#include <string>

namespace installer {

/// The worker's result.
struct Ending {
    bool succeeded = false;
    std::string cause; ///< of a failure, in one line
};

/// From here on, a signal that asks this process to end makes it print a failure first: callers take output
/// without one for success.
void reportWhenStopped();

/// Runs `work` in a child process, and waits until it and all its descendants have ended. However the child
/// ends (it throws, is killed, or runs out of memory), or when this process is asked to end, the caller is
/// told; from then on, such requests are ignored. Should this process itself be killed, the child prints the
/// failure, and ends. To be called once, by a process with one thread.
Ending supervise(const std::function<void()>& work);

} // namespace installer
