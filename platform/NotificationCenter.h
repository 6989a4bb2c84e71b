#pragma once

#include <atomic>
#include <functional>
#include <string>
#include <string_view>

/// A process-wide list of observers, keyed by name. Delivery is synchronous, on the posting thread, in the
/// order of registration; nothing is queued.
class NotificationCenter {
  public:
    /// Receives the posted object, which belongs to the poster and is valid until the handler returns.
    using Handler = std::function<void(const void* object)>;
    struct Observer;

    static NotificationCenter& defaultCenter();

    /// Any thread. The registration, which the result names, lasts until it is removed.
    Observer* addObserver(std::string name, Handler handler);

    /// Ends a registration. No post to this observer may be in progress.
    void removeObserver(Observer* observer);

    /// Any thread, concurrently too. Returns when every observer of `name` has handled the object.
    void postNotification(std::string_view name, const void* object);

  private:
    std::atomic<Observer*> first_{nullptr};
};
