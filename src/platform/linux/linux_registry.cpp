#include "platform/linux/linux_registry.h"

#include <algorithm>

namespace vigilo {

// A default route is the network path: without one nothing outside the
// local networks can be reached.
std::optional<bool> LinuxRegistry::online() {
  auto route = tree_.read("/proc/net/route");
  auto route6 = tree_.read("/proc/net/ipv6_route");
  if (!route && !route6) return std::nullopt;
  return hasDefaultRoute(route.value_or(""), route6.value_or(""));
}

std::optional<BatteryProperties> LinuxRegistry::battery() {
  const auto supplies = tree_.supplies();
  auto b = batteryFromSupplies(supplies);
  adapter_ = b ? std::optional<bool>(b->externalConnected) : adapterOnline(supplies);
  suppliesAt_ = clock_.monotonic();
  ++suppliesReads_;
  return b;
}

std::optional<bool> LinuxRegistry::sleepDisabled() {
  if (lock_.fd) return true;
  auto locks = logind_.listInhibitors();
  if (!locks.ok()) return std::nullopt;
  return std::any_of(locks.value->begin(), locks.value->end(),
                     [](const Inhibitor& lock) { return blocksSleep(lock) && !isOursOrAProbe(lock); });
}

std::optional<bool> LinuxRegistry::lidClosed() {
  if (auto acpi = tree_.acpiLid()) return acpi->second;
  if (!lidSwitchInput()) return std::nullopt;
  auto closed = logind_.lidClosed();
  return closed.value;
}

int LinuxRegistry::thermalState() {
  thermal_ = thermalLevel(tree_.zones(), thermal_);
  thermalAt_ = clock_.monotonic();
  ++thermalReads_;
  return thermal_;
}

std::optional<bool> LinuxRegistry::adapter() {
  battery();
  return adapter_;
}

int LinuxRegistry::recentThermalState(double maxAge, std::uint64_t& ownRead) {
  if (thermalReads_ != ownRead && fresh(thermalAt_, maxAge)) return thermal_;
  thermalState();
  ownRead = thermalReads_;
  return thermal_;
}

std::optional<bool> LinuxRegistry::recentAdapter(double maxAge, std::uint64_t& ownRead) {
  if (suppliesReads_ != ownRead && fresh(suppliesAt_, maxAge)) return adapter_;
  adapter();
  ownRead = suppliesReads_;
  return adapter_;
}

std::optional<double> LinuxRegistry::batteryDraw() {
  auto b = battery();
  if (!b || !b->amperage || !b->voltage || *b->amperage >= 0) return std::nullopt;
  return static_cast<double>(*b->voltage) * static_cast<double>(-*b->amperage) / 1e6;
}

bool LinuxRegistry::lidSwitchInput() {
  if (!lidSwitchInput_) lidSwitchInput_ = tree_.hasLidSwitchInput();
  return *lidSwitchInput_;
}

bool LinuxRegistry::fresh(const std::optional<double>& at, double maxAge) const {
  const double now = clock_.monotonic();
  return at && now >= *at && now - *at <= maxAge;
}

}  // namespace vigilo
