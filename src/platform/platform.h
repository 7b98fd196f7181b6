#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/power_control.h"
#include "platform/processes.h"
#include "platform/registry.h"
#include "platform/run_loop.h"
#include "platform/system_events.h"
#include "platform/wake_alarm.h"

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

// The words that name this machine and its mechanisms, supplied by the
// backend so that nothing above the platform has to know which one it runs
// on. The defaults are the Mac's, Vigilo's home platform.
struct MachineWords {
  // What the person calls the machine: "Mac".
  std::string machine = "Mac";
  // Sleep couldn't be switched off: the whole warning, or, where the backend
  // gives a reason worth reading, `sleepRefusedLead` followed by it.
  std::string sleepRefused =
      "macOS refused to switch sleep off, so closing the lid would sleep the Mac. Run Set Up again in Settings › "
      "General.";
  std::string sleepRefusedLead;
  // Sleep was switched off but came back on.
  std::string sleepNotKept = "macOS didn't keep sleep switched off";
  // What the person can do by hand when sleep may still be switched off.
  std::string sleepByHand = "sudo pmset -a disablesleep 0 switches sleep back on";
  // The hotkey's keys as the person presses them.
  std::string hotkeyKeys = "⌃⌥⌘A";

  // Everything the machine draws, as an adjective: "whole-Mac watts".
  std::string wholeMachine = "whole-Mac";
  // The operating system by name: "apps that ask macOS to stay awake".
  std::string system = "macOS";
  // Where Vigilo's icon sits: "Text next to the menu bar icon."
  std::string tray = "menu bar";
  // How `vigilo open` shows the panel.
  std::string openPanel = "drop the panel down from the menu bar";
  // What opening the lid brings when the screen was switched off with it.
  std::string lockedOnOpen = "macOS asks for your password when you open the lid";
  // The power mode Vigilo turns on with the lid shut, as a sentence names it.
  std::string lowPower = "Low Power Mode";
  // Where the short announcements appear.
  std::string announcements = "in a notch island";
  // Where the whole machine's power is read, and when.
  std::string powerFrom = "measured from the battery controller, also on the charger";
  // How the power test reads the power of one setting.
  std::string powerTestReading = "over full 30 s updates of the battery controller";
  // What measuring the screen in the power test does to the machine.
  std::string screenTestEffect = "locks the Mac";
  // How the quick savings estimate weighs the apps' energy.
  std::string appEnergy = "the energy macOS attributes to them";

  // The settings this machine can't honour, each with a sentence that says
  // why; they are still stored, since the settings file may travel to a
  // machine that can. Keys are the settings schema's.
  std::vector<std::pair<std::string, std::string>> lacking;
  // Why this machine can't honour the setting `key`; null when it can.
  const std::string* lacks(std::string_view key) const {
    for (const auto& [k, why] : lacking) {
      if (k == key) return &why;
    }
    return nullptr;
  }
  // `text` with its first letter in upper case, for words that begin a line.
  static std::string capitalised(std::string text) {
    if (!text.empty() && text[0] >= 'a' && text[0] <= 'z') text[0] = static_cast<char>(text[0] - 'a' + 'A');
    return text;
  }
};

// One machine: every interface the core uses, from one backend. The
// references stay valid for the platform's lifetime.
class Platform {
 public:
  Platform() = default;
  Platform(const Platform&) = delete;
  Platform& operator=(const Platform&) = delete;
  virtual ~Platform() = default;

  // "sim", "linux" or "macos": for logs and records, never for choosing
  // what to do or say (that is `words()` and `capabilities()`).
  virtual std::string name() const = 0;
  virtual const MachineWords& words() const;
  // The folder for Vigilo's files on this platform when VIGILO_HOME is unset.
  virtual std::string defaultAppFolder() const = 0;

  virtual Clock& clock() = 0;
  virtual RunLoop& loop() = 0;
  virtual Registry& registry() = 0;
  virtual PowerControl& power() = 0;
  virtual Displays& displays() = 0;
  virtual Processes& processes() = 0;
  virtual SystemEvents& events() = 0;
  // How the machine wakes itself at a set time; one that can't says why.
  virtual WakeScheduler& wakeAlarm();

  // What this machine offers and lacks, for `vigilo status` and `vigilo
  // doctor`. Reads afresh; may be slow-ish (a bus round trip), so not for
  // every tick.
  virtual std::vector<Capability> capabilities() { return {}; }

  // Called at the start of every engine tick: a backend that mirrors outside
  // state (the simulated laptop's state file) brings itself up to date.
  virtual void refresh() {}
  // Why the backend can't follow the machine right now (the simulated
  // laptop's damaged state file); empty while it can.
  virtual std::string problem() const { return {}; }
};

// The app folder: VIGILO_HOME when set and not empty, else the platform's.
std::string appFolderFor(const Platform& platform);

// "${XDG_DATA_HOME:-~/.local/share}/vigilo": the app folder on Linux, for
// the real machine and the simulated laptop alike (an unset, empty or
// relative XDG_DATA_HOME means ~/.local/share).
std::string xdgAppFolder();

}  // namespace vigilo
