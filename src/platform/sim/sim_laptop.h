#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/platform.h"

namespace vigilo {

// One process of the simulated laptop.
struct SimProcess {
  std::int32_t pid = 0;
  std::int32_t ppid = 1;
  std::uint64_t startMicros = 0;
  std::string path;
  std::vector<std::string> args;
  std::string cwd = "/";
  double watts = 0.0;        // what it draws while running
  bool stopped = false;      // paused by a stop signal
  bool slowed = false;       // at background priority
  std::uint64_t cpuMicros = 0;
  std::uint64_t energyNanojoules = 0;
};

// A coherent simulated laptop: a product, not a mock. State stays as it is
// put (sleep switched off stays off until switched back, a stopped process
// stays stopped until continued), the battery charge falls with the draw and
// rises on the charger as the clock moves, and a process id can be reused by
// a new process with a new start time. Every privileged call is recorded, so
// tests assert on what the laptop was asked to do.
//
// The default laptop (the state of `{}`): one-time setup in working order,
// lid open, a 5000 mAh battery at 80 % on battery power with a base draw of
// 6 W at 11.4 V and no power telemetry, nominal temperature, sleep enabled,
// nothing running but pid 1, no power assertions.
class SimLaptop {
 public:
  explicit SimLaptop(const Clock& clock);
  // Copies would share one laptop's state; there is one laptop.
  SimLaptop(const SimLaptop&) = delete;
  SimLaptop& operator=(const SimLaptop&) = delete;

  // --- Changes made from outside (a test, a person editing the state file).
  void setLidClosed(bool closed);
  void removeLid();
  void setCharge(double percent);
  // Adapter connected or not; `charging` only counts with the adapter.
  void setAdapter(bool connected, bool charging);
  // The laptop's base draw in watts: everything but the listed processes
  // (screen, chips at rest). The whole draw, which the battery (or the
  // adapter) delivers, is this plus what the running processes draw.
  void setDraw(double watts);
  // The battery controller's power telemetry: while on, the battery reports
  // SystemLoad (the whole draw in mW) and an accumulator that adds the
  // SystemLoad once every 30 s of clock time, with its count. The counters
  // keep their values while it is off.
  void setTelemetry(bool on);
  // The battery's current in mA, in place of the one worked out from the
  // draw and the adapter: negative drains, positive charges. An adapter too
  // weak for the draw is `setAdapter(true, false)` then a negative current.
  // Nothing goes back to the worked-out current; so do setAdapter, setDraw
  // and removeBattery, since the situation it described is gone.
  void setAmperage(std::optional<std::int64_t> milliamps);
  void removeBattery();
  void setThermalState(int state);
  // Someone else switches sleep off or on (the user running pmset by hand).
  void setSleepDisabledExternally(bool disabled);
  void setSetup(bool ready, std::string reason = {});
  // Starts a process and returns its pid; `pid` reuses a given id (a process
  // with that id must not be running).
  std::int32_t startProcess(const std::string& path, std::vector<std::string> args = {}, std::int32_t ppid = 1,
                            std::optional<std::int32_t> pid = std::nullopt);
  void endProcess(std::int32_t pid);
  // What a process draws while running, in watts (its energy counter grows
  // by it; a slowed process draws a quarter, a stopped one nothing).
  void setProcessWatts(std::int32_t pid, double watts);
  void setProcessCwd(std::int32_t pid, const std::string& cwd);
  // A process takes a power assertion. `processName` defaults to the last
  // component of the process's path. Fails when `pid` is not running; an
  // assertion ends with its process (or the process it was taken for).
  Result addPowerAssertion(PowerAssertion assertion);
  // Releases the assertions of `pid` named `name`, or all of them when
  // `name` is empty; false when there was none.
  bool removePowerAssertion(std::int32_t pid, const std::string& name = {});
  // An external screen is plugged in or out; the session locks or unlocks;
  // the machine has a built-in screen or not.
  void setExternalDisplay(bool connected);
  // Whether the laptop reaches the internet (true at first).
  void setOnline(bool online);
  void setLocked(bool locked);
  void setBuiltInPresent(bool present);
  // The person switches backups or Low Power Mode themselves (not logged).
  void setBackupsByUser(bool on);
  void setLowPowerByUser(int value);
  // Installs an app bundle (replacing one at the same path).
  void installApp(AppBundle app);
  // The app holding the display assertion is gone, and the assertion with it.
  void setDisplayAssertionGone();

  // Called after every change made through the methods above and below and
  // after `fromJson`, not when the battery merely moves with time: the
  // platform turns changes into system events. One observer; an empty
  // function removes it.
  void setObserver(std::function<void()> observer);

  // --- Reading the laptop.
  // How many simulated seconds pass per real second in the app (1 to 100,
  // key "clockSpeed"); read when the app starts.
  double clockSpeed() const;
  bool sleepDisabled() const;
  std::optional<bool> lidClosed() const;
  int thermalState() const;
  std::optional<double> chargePercent() const;  // nothing without a battery
  std::optional<BatteryProperties> batteryProperties() const;
  const std::vector<SimProcess>& processes() const;
  const SimProcess* process(std::int32_t pid) const;
  // The whole draw in watts: the base draw plus the running processes'.
  double wholeDraw() const;
  const std::vector<PowerAssertion>& powerAssertions() const;
  // Every privileged operation asked for, in order, as short text:
  // "disablesleep 1", "disablesleep 0", "sleepnow", "powermode <key> <v>",
  // "backups on|off", "display on|off", "brightness <v>", "stop <pid>",
  // "resume <pid>", "slow <pid>", "unslow <pid>", "display assertion
  // on|off", "displaysleepnow", "simctl shutdown all"; refused ones end in
  // " (refused)".
  const std::vector<std::string>& commandLog() const;
  // How many operations were asked for since the start; the log above keeps
  // only the latest ones.
  std::uint64_t commandCount() const;
  // Display and settings state put there by the privileged calls.
  bool builtInDisplayOn() const;
  double brightness() const;
  bool automaticBackups() const;
  const std::vector<AppBundle>& apps() const;
  bool builtInPresent() const;
  bool externalDisplay() const;
  bool online() const;
  bool displayAssertion() const;
  bool locked() const;
  // A battery power-mode setting's value; -1 for an unknown key.
  int powerMode(const std::string& key) const;

  // --- The privileged operations (what the platform interfaces forward to).
  Result setSleepDisabled(bool disabled);
  Result sleepNow();  // the laptop sleeps and wakes again at once
  // How many times the laptop has slept since it was made.
  std::uint64_t sleeps() const { return sleeps_; }
  SetupStatus setupStatus() const;
  Result restorePowerMode(const std::string& key, int value);
  Result setAutomaticBackups(bool enabled);
  Result setBuiltInDisplay(bool on);
  Result setBrightness(double level);
  std::optional<PowerModeSetting> batteryPowerMode() const;
  Result setDisplayAssertion(bool on);
  Result lockScreen();
  Result shutDownSimulators();
  Result stop(std::int32_t pid);
  Result resume(std::int32_t pid);
  Result slow(std::int32_t pid);
  Result unslow(std::int32_t pid);

  // Brings the battery up to the clock's now (charge, cpu and energy
  // counters). Every reading calls it; `changed` tells whether anything
  // visible moved since the last call.
  bool advanceToNow();

  // The whole state as the JSON of the state file (format in
  // docs/simulator.md), and back. `fromJson` is lenient: a missing or
  // wrongly typed key keeps the default laptop's value, and it never throws.
  nlohmann::json toJson() const;
  void fromJson(const nlohmann::json& state);

 private:
  struct State;
  const Clock& clock_;
  std::shared_ptr<State> s_;
  std::uint64_t sleeps_ = 0;
};

// The platform over a simulated laptop. With a state file, the laptop's
// state lives in that JSON file: `refresh` (each engine tick) re-reads it
// when another process changed it, and every change made through the
// platform writes it back at once (durably, under an advisory lock on
// "<file>.lock" so that a tool editing it with the same lock never loses an
// update).
struct SimPlatformOptions {
  std::string stateFile;   // empty: in memory only
  std::string appFolder;   // the platform's default app folder
  // The real machine's processes, asked about a pid the laptop does not
  // simulate: the tools that talk to a simulated app (`vigilo run`, an MCP
  // session) are real processes, and holds bound to them must work. Null:
  // only simulated processes exist.
  std::function<std::optional<ProcessInfo>(std::int32_t)> hostProcess = nullptr;
  // Told each time the app arms the laptop's wake timer; null: nobody.
  std::function<void(const std::string&)> say = nullptr;
};

class SimPlatform;
std::unique_ptr<SimPlatform> makeSimPlatform(Clock& clock, RunLoop& loop, SimPlatformOptions options);

class SimPlatform : public Platform {
 public:
  // The laptop, for tests and for tools that change it.
  virtual SimLaptop& laptop() = 0;
  // Writes the state file now (after a test changed the laptop directly).
  virtual bool save() = 0;
  // Whether the last read of the state file failed, and why (shown by the
  // app: a damaged state file never crashes it; the last good state is kept).
  virtual std::string stateFileProblem() const = 0;
};

// Read-modify-write of a state file under its lock, for tests and tools: the
// laptop in `edit` starts from the file's current content.
// The "clockSpeed" of a state file, 1 when it is missing, damaged or out
// of range: the app picks its clock before it reads the laptop.
double simClockSpeed(const std::string& path);

bool editSimStateFile(const std::string& path, const Clock& clock, const std::function<void(SimLaptop&)>& edit);

}  // namespace vigilo
