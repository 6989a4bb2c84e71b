#pragma once

#include "host/package/Failure.h"

#include <functional>
#include <optional>

namespace installer {

/// Handles the signals that ask this process to end (SIGHUP, SIGINT, SIGQUIT, SIGTERM, SIGXCPU) by printing a
/// failure before it exits: callers take output without one for success.
void reportWhenStopped();

/// Runs `work` in a child process, waits for it, kills its remaining descendants and returns why it failed,
/// or nothing if it succeeded. It has failed if it throws, is killed or runs out of memory, or if this
/// process receives one of the signals above, which then kills the child; after the return those signals are
/// ignored. If this process is killed with SIGKILL, the child prints a failure and exits. Throws
/// package::Failure if no process can be started. Call it once, in a process with one thread.
std::optional<package::Failure> supervise(const std::function<void()>& work);

} // namespace installer
