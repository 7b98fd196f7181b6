#include "platform/linux/session_bus.h"

#include <cstdlib>

namespace vigilo {

std::string sessionBusAddress(const std::string& given) {
  if (!given.empty()) return given;
  if (const char* env = std::getenv("DBUS_SESSION_BUS_ADDRESS"); env != nullptr && *env != '\0') return env;
  if (const char* run = std::getenv("XDG_RUNTIME_DIR"); run != nullptr && *run != '\0') {
    return std::string("unix:path=") + run + "/bus";
  }
  return {};
}

bool sessionBusNamed() {
  const char* address = std::getenv("DBUS_SESSION_BUS_ADDRESS");
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  return (address != nullptr && *address != '\0') || (runtime != nullptr && *runtime != '\0');
}

Bus connectSessionBus(const std::string& address, std::uint64_t callTimeoutMicros) {
  if (address.empty()) return nullptr;
  sd_bus* raw = nullptr;
  if (sd_bus_new(&raw) < 0) return nullptr;
  Bus bus(raw);
  if (sd_bus_set_address(raw, address.c_str()) < 0 || sd_bus_set_bus_client(raw, 1) < 0 ||
      sd_bus_set_method_call_timeout(raw, callTimeoutMicros) < 0 || sd_bus_start(raw) < 0) {
    return nullptr;
  }
  return bus;
}

}  // namespace vigilo
