#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/linux/logind.h"
#include "platform/linux/unique_fd.h"
#include "platform/power_control.h"

namespace vigilo {

// Vigilo's own inhibitor lock; held while the descriptor is open.
struct SleepLock {
  UniqueFd fd;
};

// Whether a lock of logind's list blocks sleep or the lid switch.
bool blocksSleep(const Inhibitor& lock);

// Logind drops a closed lock from its list only when its event loop gets to
// it, so a probe or the lock this process just released may still show for a
// moment; neither is someone else keeping the machine awake.
bool isOursOrAProbe(const Inhibitor& lock);

// A program other than Vigilo that handles the lid switch itself, said in
// plain English; nothing when logind handles it. While such a lock exists
// logind leaves the lid alone (the Inhibitor Locks document of systemd) and
// the program's own lid setting decides.
std::optional<std::string> desktopLidOwner(const std::vector<Inhibitor>& locks);

// The sleep switch as logind's inhibitor lock, suspending through logind,
// and Low Power Mode as a power-saver hold of power-profiles-daemon.
// `logind`, `lock` and `clock` must outlive it.
class LinuxPower final : public PowerControl {
 public:
  LinuxPower(Logind& logind, SleepLock& lock, Clock& clock) : logind_(logind), lock_(lock), clock_(clock) {}

  Result setSleepDisabled(bool disabled) override;
  bool switchIsShared() const override { return false; }
  Result sleepNow() override;
  SetupStatus setupStatus() override;
  std::optional<PowerModeSetting> batteryPowerMode() override;
  Result setPowerMode(const std::string& key, int value) override;
  Result restorePowerMode(const std::string& key, int value) override;
  Result setAutomaticBackups(bool on) override;

 private:
  void remember(SetupStatus s);

  Logind& logind_;
  SleepLock& lock_;
  Clock& clock_;
  std::optional<std::uint32_t> profileHold_;
  std::optional<SetupStatus> probe_;
  double probedAt_ = 0.0;
};

}  // namespace vigilo
