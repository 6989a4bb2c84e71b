#pragma once

#include "base/BusObjects.h"
#include "base/FileDescriptor.h"

#include <systemd/sd-event.h>

#include <functional>
#include <memory>

namespace rights {

using EventSource = std::unique_ptr<sd_event_source, Unref<sd_event_source_disable_unref>>;

/// Calls `action` on the event loop each time the descriptor can be read, the end of file included, or once
/// where it is not open. Ends with the object, which the action may destroy.
class Watch {
  public:
    Watch(sd_event* loop, FileDescriptor descriptor, std::function<void(int descriptor)> action);

  private:
    void act() const;

    FileDescriptor descriptor_;
    std::function<void(int)> action_;
    EventSource source_;
};

} // namespace rights
