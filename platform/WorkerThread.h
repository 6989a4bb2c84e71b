#pragma once

#include <functional>
#include <thread>

/// Starts a detached thread at default priority, which may still be running when the process ends. Returns
/// its id. Any thread. Terminates the process if no thread can be created.
std::thread::id startWorkerThread(std::function<void()> work);
