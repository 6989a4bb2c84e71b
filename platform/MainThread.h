#pragma once

#include <functional>

/// Runs work on the main thread, which owns every view.
///
/// Calls from one thread run in order, also while a dialog's nested event loop runs.
class MainThread {
  public:
    /// Main thread, after the application object has been created and before any other call here.
    static void attach();

    static bool isCurrent();

    /// Runs `work` on the main thread and returns when it has finished; called on the main thread, runs it
    /// directly. Never returns once the main thread has left its event loop for good.
    static void performAndWait(const std::function<void()>& work);
};
