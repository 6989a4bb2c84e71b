#pragma once

#include <functional>
#include <string>

/// A process-wide list of observers, keyed by name. Delivery is synchronous, on the posting thread, in the
/// order of registration; nothing is queued.
class NotificationCenter {
  public:
    /// Receives the object that was posted; it belongs to the poster and is gone when the handler returns.
    using Handler = std::function<void(const void* object)>;
    struct Observer;

    static NotificationCenter& defaultCenter();

    /// Any thread. The registration stays until removed; the returned handle names it.
    Observer* addObserver(std::string name, Handler handler);

    /// Ends a registration. The caller sees to it that no post to this observer is under way.
    void removeObserver(Observer* observer);

    /// Any thread, and several at once. Returns when every observer of `name` has handled the object.
    void postNotification(const std::string& name, const void* object);
};
