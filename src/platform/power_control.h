#pragma once

#include <optional>
#include <string>

#include "platform/result.h"

namespace vigilo {

// The battery-power line of the power settings.
struct PowerModeSetting {
  std::string key;  // "lowpowermode" or "powermode"
  int value = 0;
};

// Whether the one-time setup that allows the privileged power switches is in
// working order. `reason` says in plain English what is wrong when not.
struct SetupStatus {
  bool ready = false;
  std::string reason;
};

// The privileged power operations, as semantic calls. The backend knows how
// (on a Mac: `/usr/bin/sudo -n /usr/bin/pmset -a disablesleep 1`; on Linux a
// logind inhibitor lock). Every call runs synchronously on the main thread
// and returns quickly: none of them ever waits for a password. A failure's
// message says what happened in plain English.
class PowerControl {
 public:
  PowerControl() = default;
  PowerControl(const PowerControl&) = delete;
  PowerControl& operator=(const PowerControl&) = delete;
  virtual ~PowerControl() = default;

  // Switches system sleep off (true) or back on (false) as a whole.
  virtual Result setSleepDisabled(bool disabled) = 0;
  // True when the switch is one machine-wide flag that others set too (a
  // Mac's "disablesleep"): sleep that was off before Vigilo then must never
  // be switched on by it. False when Vigilo's switch is its own (a logind
  // inhibitor lock), so switching it back on never touches anyone else's.
  virtual bool switchIsShared() const { return true; }
  // Asks the machine to sleep at once.
  virtual Result sleepNow() = 0;
  // Whether the setup that permits these calls is in place.
  virtual SetupStatus setupStatus() = 0;

  // Puts back one battery power-mode setting recorded as "<key> <value>"
  // ("powermode" 0-2 or "lowpowermode" 0-1).
  virtual Result restorePowerMode(const std::string& key, int value) = 0;
  // Switches automatic backups on (true) or off.
  virtual Result setAutomaticBackups(bool enabled) = 0;

  // --- What the lid-closed savings use. The defaults describe a machine
  // that lacks the feature; a backend overrides what it offers.

  // The battery power-mode setting as the system lists it: key
  // ("lowpowermode" or "powermode") and value. Nothing where the machine has
  // no such setting.
  virtual std::optional<PowerModeSetting> batteryPowerMode() { return std::nullopt; }
  // Sets the battery power mode to `value` (1: Low Power Mode). Putting the
  // recorded value back goes through `restorePowerMode`.
  virtual Result setPowerMode(const std::string& key, int value) { return restorePowerMode(key, value); }
  // Whether automatic backups are on; nothing where the machine has none.
  virtual std::optional<bool> automaticBackupsOn() { return std::nullopt; }
  // Shuts every booted simulator down, without waiting for them.
  virtual Result shutDownSimulators() { return Result::fail("This machine has no simulators to shut down."); }
};

// The built-in screen.
class Displays {
 public:
  Displays() = default;
  Displays(const Displays&) = delete;
  Displays& operator=(const Displays&) = delete;
  virtual ~Displays() = default;

  // Switches the built-in screen on or off.
  virtual Result setBuiltInEnabled(bool enabled) = 0;
  // Sets the built-in screen's brightness, 0.0 ... 1.0.
  virtual Result setBrightness(double level) = 0;

  // The built-in screen's brightness now, 0.0 ... 1.0; nothing when it
  // can't be read.
  virtual std::optional<double> brightness() { return std::nullopt; }
  // Whether the machine has a built-in screen Vigilo can darken.
  virtual bool hasBuiltIn() { return false; }
  // Whether some online display is not the built-in one: a shut laptop
  // driving an external screen is in use, not closed.
  virtual bool externalConnected() { return false; }
  // Whether the login session's screen is locked; nothing when unknown.
  virtual std::optional<bool> sessionLocked() { return std::nullopt; }
  // Puts the screen to sleep now, which locks the session as usual.
  virtual Result lockScreen() { return Result::fail("This machine can't lock its screen on request."); }
  // Takes (true) or releases the assertion that keeps the display from
  // idling to sleep, which is what would lock the session.
  virtual Result holdDisplayAwake(bool on) {
    (void)on;
    return Result::fail("This machine can't keep its display from idling to sleep.");
  }
};

}  // namespace vigilo
