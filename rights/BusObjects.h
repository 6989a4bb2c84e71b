#pragma once

#include <systemd/sd-bus.h>

#include <memory>

/// Owners of the system bus library's objects. One thread at a time uses a connection and what belongs to it.
template <auto unref>
struct Unref {
    template <typename Object>
    void operator()(Object* object) const {
        unref(object);
    }
};

using BusConnection = std::unique_ptr<sd_bus, Unref<sd_bus_flush_close_unref>>;
using BusMessage = std::unique_ptr<sd_bus_message, Unref<sd_bus_message_unref>>;
using BusSlot = std::unique_ptr<sd_bus_slot, Unref<sd_bus_slot_unref>>;
