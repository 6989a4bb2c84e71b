#pragma once

#include <functional>

/// Hands work to the main thread, which owns every view.
///
/// Calls made by one thread run in the order made. Work arrives also while a dialog's own event loop runs.
class MainThread {
  public:
    /// Main thread, once the application object exists and before any other call here.
    static void attach();

    static bool isCurrent();

    /// Runs `work` on the main thread and returns when it has finished; on the main thread, runs it at once.
    /// Where the main thread has left its event loop for good, never returns.
    static void performAndWait(const std::function<void()>& work);
};
