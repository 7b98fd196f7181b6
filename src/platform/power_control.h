#pragma once

#include <string>

#include "platform/result.h"

namespace vigilo {

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
};

}  // namespace vigilo
