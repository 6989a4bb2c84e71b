#pragma once

#include <functional>
#include <thread>

/// A detached thread at default priority: it may still be running when the process ends. Copies name the same
/// thread; destroying them does not stop it.
class WorkerThread {
  public:
    WorkerThread() = default;

    /// Starts a thread that runs `work`. Any thread. Terminates the process when no thread can be created.
    static WorkerThread start(std::function<void()> work);

  private:
    explicit WorkerThread(std::thread::id id) : id_(id) {}

    std::thread::id id_;
};
