#pragma once

#include <cstdint>
#include <optional>

#include "platform/clock.h"
#include "platform/linux/linux_power.h"
#include "platform/linux/logind.h"
#include "platform/linux/sys_tree.h"
#include "platform/registry.h"

namespace vigilo {

// The readings: the network path from /proc/net, the battery and adapter
// from /sys/class/power_supply, the lid from ACPI or logind, the heat from
// /sys/class/thermal, and whether someone else keeps sleep off from logind's
// locks. Its references must outlive it.
class LinuxRegistry final : public Registry {
 public:
  LinuxRegistry(const SysTree& tree, Logind& logind, const SleepLock& lock, Clock& clock)
      : tree_(tree), logind_(logind), lock_(lock), clock_(clock) {}

  std::optional<bool> online() override;
  std::optional<BatteryProperties> battery() override;
  std::optional<bool> sleepDisabled() override;
  std::optional<bool> lidClosed() override;
  int thermalState() override;

  // Whether the machine runs on an adapter; nothing without battery or
  // adapter.
  std::optional<bool> adapter();

  // The heat level and the adapter as another caller read them within the
  // last `maxAge` seconds, else read now. `ownRead` is the caller's mark of
  // its own last read: the app's tick reads both, and the event poll beside
  // it need not read them again, while a poll alone still reads each time.
  int recentThermalState(double maxAge, std::uint64_t& ownRead);
  std::optional<bool> recentAdapter(double maxAge, std::uint64_t& ownRead);

  // What the machine draws from its battery, in watts; nothing on an adapter
  // or without a battery.
  std::optional<double> batteryDraw();

  // Whether an input device reports a lid switch, looked at once: the lid
  // switch does not come and go.
  bool lidSwitchInput();

 private:
  bool fresh(const std::optional<double>& at, double maxAge) const;

  const SysTree& tree_;
  Logind& logind_;
  const SleepLock& lock_;
  Clock& clock_;
  int thermal_ = 0;
  std::optional<double> thermalAt_;
  std::uint64_t thermalReads_ = 0;
  std::optional<bool> adapter_;
  std::optional<double> suppliesAt_;
  std::uint64_t suppliesReads_ = 0;
  std::optional<bool> lidSwitchInput_;
};

}  // namespace vigilo
