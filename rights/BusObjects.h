#pragma once

#include "base/Owner.h"

#include <systemd/sd-bus.h>

/// Owners of the system bus library's objects. One thread at a time uses a connection and what belongs to it.
using BusConnection = Owner<sd_bus, sd_bus_flush_close_unref>;
using BusMessage = Owner<sd_bus_message, sd_bus_message_unref>;
using BusSlot = Owner<sd_bus_slot, sd_bus_slot_unref>;
