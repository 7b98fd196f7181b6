#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/clock.h"
#include "platform/power_control.h"
#include "platform/processes.h"
#include "platform/registry.h"
#include "platform/run_loop.h"
#include "platform/system_events.h"

namespace vigilo {

// One feature of the machine that Vigilo relies on, and whether this
// machine offers it. `detail` says in plain English what is missing and
// what the person can do ("No battery found under /sys/class/power_supply,
// so the battery limit and only-on-power guards are off.").
struct Capability {
  std::string name;  // "sleep switch", "battery", "lid", "thermal", "processes", ...
  bool available = false;
  std::string detail;
};

// One machine: every interface the core uses, from one backend. The
// references stay valid for the platform's lifetime.
class Platform {
 public:
  Platform() = default;
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;
  virtual ~Platform() = default;

  // "sim", "linux" or "macos".
  virtual std::string name() const = 0;
  // The folder for Vigilo's files on this platform when VIGILO_HOME is unset.
  virtual std::string defaultAppFolder() const = 0;

  virtual Clock& clock() = 0;
  virtual RunLoop& loop() = 0;
  virtual Registry& registry() = 0;
  virtual PowerControl& power() = 0;
  virtual Displays& displays() = 0;
  virtual Processes& processes() = 0;
  virtual SystemEvents& events() = 0;

  // What this machine offers and lacks, for `vigilo status` and `vigilo
  // doctor`. Reads afresh; may be slow-ish (a bus round trip), so not for
  // every tick.
  virtual std::vector<Capability> capabilities() { return {}; }

  // Called at the start of every engine tick: a backend that mirrors outside
  // state (the simulated laptop's state file) brings itself up to date.
  virtual void refresh() {}
};

// The app folder: VIGILO_HOME when set and not empty, else the platform's.
std::string appFolderFor(const Platform& platform);

// "${XDG_DATA_HOME:-~/.local/share}/vigilo": the app folder on Linux, for
// the real machine and the simulated laptop alike (an unset, empty or
// relative XDG_DATA_HOME means ~/.local/share).
std::string xdgAppFolder();

}  // namespace vigilo
