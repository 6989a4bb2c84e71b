#pragma once

#include <functional>
#include <string>

namespace installer {

// What the worker came to.
struct Ending {
    bool succeeded = false;
    std::string cause; // of a failure, in one line
};

// From here on, a signal that asks this process to end makes it say so first: silence would pass for success.
void sayWhenStopped();

// Runs `work` in a child process and waits for it. However the child ends (it throws, is killed, or finds no
// memory), or when this process is asked to end, the caller learns it; from then on, such requests are
// ignored. Should this process be killed itself, the child says so in its place, and ends. To be called once,
// by a process with one thread.
Ending supervise(const std::function<void()>& work);

} // namespace installer
