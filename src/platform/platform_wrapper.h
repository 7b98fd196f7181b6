#pragma once

#include <string>
#include <vector>

#include "platform/platform.h"

namespace vigilo {

// Forwarding wrappers of a platform and its parts, as leveldb's EnvWrapper:
// each call goes to the wrapped object unless a subclass overrides it. A
// test overrides the one call that should fail (or answer otherwise) and
// keeps the rest of a real backend or the simulated laptop, which models a
// machine rather than carrying a knob for every fault.

class RegistryWrapper : public Registry {
 public:
  explicit RegistryWrapper(Registry& target) : target_(target) {}
  std::optional<BatteryProperties> battery() override { return target_.battery(); }
  std::optional<bool> sleepDisabled() override { return target_.sleepDisabled(); }
  std::optional<bool> lidClosed() override { return target_.lidClosed(); }
  int thermalState() override { return target_.thermalState(); }
  std::vector<PowerAssertion> powerAssertions() override { return target_.powerAssertions(); }
  std::optional<bool> online() override { return target_.online(); }

 protected:
  Registry& target_;
};

class PowerControlWrapper : public PowerControl {
 public:
  explicit PowerControlWrapper(PowerControl& target) : target_(target) {}
  Result setSleepDisabled(bool disabled) override { return target_.setSleepDisabled(disabled); }
  bool switchIsShared() const override { return target_.switchIsShared(); }
  Result sleepNow() override { return target_.sleepNow(); }
  SetupStatus setupStatus() override { return target_.setupStatus(); }
  Result restorePowerMode(const std::string& key, int value) override { return target_.restorePowerMode(key, value); }
  Result setAutomaticBackups(bool enabled) override { return target_.setAutomaticBackups(enabled); }
  std::optional<PowerModeSetting> batteryPowerMode() override { return target_.batteryPowerMode(); }
  Result setPowerMode(const std::string& key, int value) override { return target_.setPowerMode(key, value); }
  std::optional<bool> automaticBackupsOn() override { return target_.automaticBackupsOn(); }
  Result shutDownSimulators() override { return target_.shutDownSimulators(); }

 protected:
  PowerControl& target_;
};

class DisplaysWrapper : public Displays {
 public:
  explicit DisplaysWrapper(Displays& target) : target_(target) {}
  Result setBuiltInEnabled(bool enabled) override { return target_.setBuiltInEnabled(enabled); }
  Result setBrightness(double level) override { return target_.setBrightness(level); }
  std::optional<double> brightness() override { return target_.brightness(); }
  bool hasBuiltIn() override { return target_.hasBuiltIn(); }
  bool externalConnected() override { return target_.externalConnected(); }
  std::optional<bool> sessionLocked() override { return target_.sessionLocked(); }
  Result lockScreen() override { return target_.lockScreen(); }
  Result holdDisplayAwake(bool on) override { return target_.holdDisplayAwake(on); }

 protected:
  Displays& target_;
};

class ProcessesWrapper : public Processes {
 public:
  explicit ProcessesWrapper(Processes& target) : target_(target) {}
  std::optional<ProcessInfo> info(std::int32_t pid) override { return target_.info(pid); }
  std::optional<ProcessInfo> identity(std::int32_t pid) override { return target_.identity(pid); }
  std::vector<ProcessInfo> list() override { return target_.list(); }
  std::vector<ProcessInfo> listing(ProcessDetail detail) override { return target_.listing(detail); }
  bool identitiesUnchanged() override { return target_.identitiesUnchanged(); }
  std::optional<ProcessCounters> counters(std::int32_t pid, std::uint64_t startMicros) override {
    return target_.counters(pid, startMicros);
  }
  Result stop(std::int32_t pid) override { return target_.stop(pid); }
  Result resume(std::int32_t pid) override { return target_.resume(pid); }
  Result slow(std::int32_t pid) override { return target_.slow(pid); }
  Result unslow(std::int32_t pid) override { return target_.unslow(pid); }
  std::vector<AppBundle> installedApps() override { return target_.installedApps(); }
  std::optional<AppBundle> appOf(const ProcessInfo& p) override { return target_.appOf(p); }
  std::optional<AppBundle> appBundle(const std::string& bundlePath) override { return target_.appBundle(bundlePath); }

 protected:
  Processes& target_;
};

// The platform itself: every part forwards to the wrapped platform's,
// through the wrappers above, so a subclass can swap the one part it
// changes.
class PlatformWrapper : public Platform {
 public:
  explicit PlatformWrapper(Platform& target) : target_(target) {}
  Platform& target() { return target_; }

  std::string name() const override { return target_.name(); }
  const MachineWords& words() const override { return target_.words(); }
  std::string defaultAppFolder() const override { return target_.defaultAppFolder(); }
  Clock& clock() override { return target_.clock(); }
  RunLoop& loop() override { return target_.loop(); }
  Registry& registry() override { return target_.registry(); }
  PowerControl& power() override { return target_.power(); }
  Displays& displays() override { return target_.displays(); }
  Processes& processes() override { return target_.processes(); }
  SystemEvents& events() override { return target_.events(); }
  WakeScheduler& wakeAlarm() override { return target_.wakeAlarm(); }
  std::vector<Capability> capabilities() override { return target_.capabilities(); }
  void refresh() override { target_.refresh(); }
  std::string problem() const override { return target_.problem(); }

 private:
  Platform& target_;
};

}  // namespace vigilo
