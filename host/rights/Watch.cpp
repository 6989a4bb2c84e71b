#include "rights/Watch.h"

#include <sys/epoll.h>

#include <utility>

namespace rights {

Watch::Watch(sd_event* loop, FileDescriptor descriptor, std::function<void(int)> action)
    : descriptor_(std::move(descriptor)), action_(std::move(action)) {
    sd_event_source* source = nullptr;
    const auto onReadable = [](sd_event_source*, int, std::uint32_t, void* data) {
        static_cast<Watch*>(data)->act();
        return 0;
    };
    const auto onDeferred = [](sd_event_source*, void* data) {
        static_cast<Watch*>(data)->act();
        return 0;
    };
    if (sd_event_add_io(loop, &source, descriptor_.get(), EPOLLIN, onReadable, this) < 0) {
        sd_event_add_defer(loop, &source, onDeferred, this);
    }
    source_.reset(source);
}

void Watch::act() const {
    const auto action = action_; // outlives the object
    action(descriptor_.get());
}

} // namespace rights
