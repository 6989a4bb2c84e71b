#pragma once

#include <atomic>
#include <functional>
#include <memory>

/// A thread of its own, at default priority, that nobody joins: it may still be running when the process
/// ends. Copies name the same thread; dropping them all does not stop it.
class WorkerThread {
  public:
    WorkerThread() = default;

    /// Starts `work`. Any thread. Ends the process where the system has no thread left to give.
    static WorkerThread start(std::function<void()> work);

    /// Whether the work has returned; true also where none was started. Any thread.
    [[nodiscard]] bool isFinished() const { return finished_ == nullptr || *finished_; }

    /// How many threads, of all that were started, have not finished their work. Any thread.
    static int running();

  private:
    std::shared_ptr<std::atomic<bool>> finished_;
};
