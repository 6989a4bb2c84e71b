#pragma once

#include <chrono>
#include <functional>
#include <thread>

/// Polls `condition` until it holds. False when it does not within `deadline`, which is long enough for a
/// busy machine under a sanitizer.
inline bool waitUntil(const std::function<bool()>& condition,
                      std::chrono::seconds deadline = std::chrono::seconds(30)) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}
