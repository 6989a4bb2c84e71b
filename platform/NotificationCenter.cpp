#include "platform/NotificationCenter.h"

#include <utility>

/// An entry of a list that grows at its end, so that posts walk it without a lock. Entries are never freed,
/// since a post may be reading them; the program registers one observer in its life.
struct NotificationCenter::Observer {
    std::string name;
    Handler handler;
    std::atomic<bool> active{true};
    std::atomic<Observer*> next{nullptr};
};

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Observer* NotificationCenter::addObserver(std::string name, Handler handler) {
    auto* const observer = new Observer{std::move(name), std::move(handler)};
    std::atomic<Observer*>* end = &first_;
    Observer* occupant = nullptr;
    while (!end->compare_exchange_strong(occupant, observer)) {
        end = &occupant->next;
        occupant = nullptr;
    }
    return observer;
}

void NotificationCenter::removeObserver(Observer* observer) {
    observer->active = false;
}

void NotificationCenter::postNotification(std::string_view name, const void* object) {
    for (Observer* observer = first_; observer != nullptr; observer = observer->next) {
        if (observer->active && observer->name == name) {
            observer->handler(object);
        }
    }
}
