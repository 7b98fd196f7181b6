#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>

namespace vigilo {

// sd-bus objects that release themselves: the one definition every piece of
// the desktop uses.
struct BusUnref {
  void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
struct SlotUnref {
  void operator()(sd_bus_slot* s) const { sd_bus_slot_unref(s); }
};
struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Bus = std::unique_ptr<sd_bus, BusUnref>;
using Slot = std::unique_ptr<sd_bus_slot, SlotUnref>;
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;

// Where the desktop's session bus is: `given` when set, else
// DBUS_SESSION_BUS_ADDRESS, else "unix:path=$XDG_RUNTIME_DIR/bus"; empty
// when nothing names one (SSH, a container, a system service).
std::string sessionBusAddress(const std::string& given = {});

// Whether anything tells where a session bus would be; without either
// variable none can appear for this process.
bool sessionBusNamed();

// A client connection to the session bus at `address` (see
// sessionBusAddress), its method calls bounded by `callTimeoutMicros`; null
// when there is none or it can't be reached.
Bus connectSessionBus(const std::string& address, std::uint64_t callTimeoutMicros);

}  // namespace vigilo
