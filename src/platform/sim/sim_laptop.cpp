#include "platform/sim/sim_laptop.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <limits>
#include <map>
#include <set>
#include <utility>

namespace vigilo {
namespace {

using json = nlohmann::json;

// Pids handed out by the laptop itself start here and wrap below macOS's
// highest pid, like the kernel's.
constexpr std::int32_t kFirstPid = 100;
constexpr std::int32_t kLastPid = 99998;
// The charger's current until the battery is full.
constexpr std::int64_t kChargeMilliamps = 1500;
// A process keeps one core busy for every 4 W it draws; the laptop has 16.
constexpr double kWattsPerBusyCore = 4.0;
constexpr double kCores = 16.0;
// Background priority runs a process on the efficiency cores.
constexpr double kSlowedShare = 0.25;
// Bounds that keep a hand-edited file from overflowing the arithmetic or
// memory.
constexpr std::size_t kLogLimit = 200;
constexpr std::size_t kProcessLimit = 10000;
constexpr double kMaxWatts = 10000.0;
constexpr double kMaxMilliampHours = 1e6;
constexpr double kMaxMillivolts = 1e6;
constexpr std::int64_t kMaxMilliamps = 1'000'000;
constexpr std::size_t kAssertionLimit = 1000;
constexpr std::size_t kAppLimit = 1000;
// Faster would leave the 2-second tick no real time to run in.
constexpr double kMaxClockSpeed = 100.0;
// The controller adds SystemLoad to its accumulator about this often.
constexpr double kAccumulatorPeriod = 30.0;
constexpr std::int32_t kInitPid = 1;
constexpr const char* kInitPath = "/sbin/launchd";

enum class Lid { Open, Closed, None };
enum class Control { Stop, Resume, Slow, Unslow };

std::uint64_t saturatingAdd(std::uint64_t a, double b) {
  if (!(b > 0)) return a;
  const double room = static_cast<double>(std::numeric_limits<std::uint64_t>::max() - a);
  if (b >= room) return std::numeric_limits<std::uint64_t>::max();
  return a + static_cast<std::uint64_t>(b);
}

std::int64_t saturatingAdd(std::int64_t a, std::int64_t b) {
  if (b > 0 && a > std::numeric_limits<std::int64_t>::max() - b) return std::numeric_limits<std::int64_t>::max();
  return a + b;
}

std::uint64_t toMicros(Time t) {
  if (!(t > 0)) return 0;
  if (t >= 1.8e13) return std::numeric_limits<std::uint64_t>::max() / 2;
  return static_cast<std::uint64_t>(std::llround(t * 1e6));
}

std::string baseNameOf(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// "/Applications/Spotify.app" is "Spotify".
std::string appNameOf(const std::string& bundlePath) {
  std::string name = baseNameOf(bundlePath);
  if (name.size() > 4 && name.compare(name.size() - 4, 4, ".app") == 0) name.resize(name.size() - 4);
  return name;
}

json appsJson(const std::vector<AppBundle>& apps) {
  json list = json::array();
  for (const auto& a : apps) {
    json e = {{"path", a.path}, {"name", a.name}};
    if (a.bundleId) e["bundleId"] = *a.bundleId;
    list.push_back(std::move(e));
  }
  return list;
}

std::string formatNumber(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

// --- Lenient reading: a key of the wrong type or out of range reads as
// missing (or clamped), and nothing here throws.

const json* member(const json& o, const char* key) {
  if (!o.is_object()) return nullptr;
  auto it = o.find(key);
  return it == o.end() ? nullptr : &*it;
}

std::optional<double> number(const json& o, const char* key) {
  const json* v = member(o, key);
  if (v == nullptr || !v->is_number()) return std::nullopt;
  double d = v->get<double>();
  if (!std::isfinite(d)) return std::nullopt;
  return d;
}

std::optional<double> numberIn(const json& o, const char* key, double lo, double hi) {
  auto d = number(o, key);
  if (!d) return std::nullopt;
  return std::clamp(*d, lo, hi);
}

std::optional<std::uint64_t> counter(const json& o, const char* key) {
  const json* v = member(o, key);
  if (v == nullptr) return std::nullopt;
  if (v->is_number_unsigned()) return v->get<std::uint64_t>();
  if (v->is_number_integer()) {
    auto i = v->get<std::int64_t>();
    return i >= 0 ? std::optional<std::uint64_t>(static_cast<std::uint64_t>(i)) : std::nullopt;
  }
  if (v->is_number_float()) {
    double d = v->get<double>();
    if (std::isfinite(d) && d >= 0 && d < 1.8e19) return static_cast<std::uint64_t>(d);
  }
  return std::nullopt;
}

std::optional<bool> boolean(const json& o, const char* key) {
  const json* v = member(o, key);
  if (v == nullptr || !v->is_boolean()) return std::nullopt;
  return v->get<bool>();
}

std::optional<std::string> text(const json& o, const char* key) {
  const json* v = member(o, key);
  if (v == nullptr || !v->is_string()) return std::nullopt;
  return v->get<std::string>();
}

const json& object(const json& o, const char* key) {
  static const json kEmpty = json::object();
  const json* v = member(o, key);
  return v != nullptr && v->is_object() ? *v : kEmpty;
}

}  // namespace

struct SimLaptop::State {
  bool setupReady = true;
  std::string setupReason;
  Lid lid = Lid::Open;

  bool batteryPresent = true;
  double percent = 80.0;  // the charge; CurrentCapacity follows from it
  std::int64_t maxCapacity = 5000;
  std::int64_t voltage = 11400;
  bool adapter = false;
  bool charging = false;
  double watts = 6.0;  // the base draw, without the processes
  std::optional<std::int64_t> amperage;
  bool telemetry = false;
  std::int64_t accumulated = 0;       // mW readings summed
  std::int64_t accumulatorCount = 0;  // readings summed
  double accumulatorSeconds = 0;      // since the accumulator last moved

  int thermal = 0;
  double clockSpeed = 1.0;  // how many simulated seconds pass per real second
  bool sleepDisabled = false;
  bool refuseOff = false;
  bool refuseOn = false;
  bool displayOn = true;
  double brightness = 1.0;
  bool automaticBackups = true;
  bool builtIn = true;           // the machine has a built-in screen
  bool externalDisplay = false;  // an external screen is connected
  bool online = true;            // the internet can be reached
  bool displayAssertion = false; // the display is kept from idling to sleep
  bool locked = false;           // the login session's screen is locked
  std::vector<AppBundle> apps;   // installed app bundles
  std::map<std::string, int> powerModes = {{"lowpowermode", 0}, {"powermode", 0}};

  std::vector<SimProcess> processes;  // sorted by pid
  std::vector<PowerAssertion> assertions;
  std::vector<std::string> log;
  std::uint64_t recorded = 0;
  Time updated = 0;  // when the charge and counters were last brought up to date
  std::int32_t nextPid = kFirstPid;
  std::uint64_t lastStartMicros = 0;

  std::function<void()> observer;
  bool notifying = false;

  static State initial(Time now) {
    State s;
    s.updated = now;
    SimProcess init;
    init.pid = kInitPid;
    init.ppid = 0;
    init.path = kInitPath;
    init.args = {kInitPath};
    init.startMicros = s.newStart(now);
    s.processes.push_back(std::move(init));
    return s;
  }

  // Start times are unique, so that a reused pid always names a new process
  // even when the clock has not moved.
  std::uint64_t newStart(Time now) {
    lastStartMicros = std::max(toMicros(now), lastStartMicros + 1);
    return lastStartMicros;
  }

  bool live(std::int32_t pid) const {
    return std::any_of(processes.begin(), processes.end(), [pid](const SimProcess& p) { return p.pid == pid; });
  }

  std::int32_t newPid() {
    for (int tries = 0; tries <= kLastPid; ++tries) {
      std::int32_t pid = nextPid;
      nextPid = nextPid >= kLastPid ? kFirstPid : nextPid + 1;
      if (!live(pid)) return pid;
    }
    return 0;
  }

  SimProcess* find(std::int32_t pid) {
    for (auto& p : processes)
      if (p.pid == pid) return &p;
    return nullptr;
  }

  void insert(SimProcess p) {
    auto at = std::lower_bound(processes.begin(), processes.end(), p.pid,
                               [](const SimProcess& a, std::int32_t pid) { return a.pid < pid; });
    processes.insert(at, std::move(p));
  }

  void record(std::string entry) {
    ++recorded;
    log.push_back(std::move(entry));
    if (log.size() > kLogLimit) log.erase(log.begin(), log.end() - kLogLimit);
  }

  std::int64_t currentCapacity() const {
    return std::llround(percent * static_cast<double>(maxCapacity) / 100.0);
  }

  // What a process draws now: nothing stopped, a quarter slowed.
  static double drawOf(const SimProcess& p) {
    if (p.stopped) return 0.0;
    return p.slowed ? p.watts * kSlowedShare : p.watts;
  }

  double wholeDraw() const {
    double w = watts;
    for (const auto& p : processes) w += drawOf(p);
    return std::min(w, kMaxWatts);
  }

  std::int64_t systemLoad() const { return std::llround(wholeDraw() * 1000.0); }

  // The battery's current in mA: the override, else the whole draw on
  // battery, the charger while charging, and nothing while the adapter
  // carries the load.
  std::int64_t current() const {
    std::int64_t c;
    if (amperage) {
      c = *amperage;
    } else if (adapter) {
      c = charging ? kChargeMilliamps : 0;
    } else {
      c = -std::llround(wholeDraw() * 1e6 / static_cast<double>(voltage));
    }
    return percent >= 100.0 && c > 0 ? 0 : c;
  }

  // Charging needs the adapter, a battery, and room in it.
  void settle() {
    if (!adapter || !batteryPresent || percent >= 100.0) charging = false;
  }

  std::pair<std::int64_t, bool> visible() const { return {batteryPresent ? currentCapacity() : -1, charging}; }

  // Brings charge and counters up to `now`; true when the battery's reading
  // moved.
  bool advanceTo(Time now) {
    if (!std::isfinite(now)) return false;
    const double dt = now - updated;
    // A clock set back starts the count again from the new now rather than
    // freezing the battery until the clock catches up.
    if (!(dt > 0)) {
      updated = now;
      return false;
    }
    const auto before = visible();
    updated = now;
    advance(dt);
    return visible() != before;
  }

  // Runs the observer once per change; a change made from inside the
  // observer does not call it again.
  void notify() {
    if (!observer || notifying) return;
    notifying = true;
    auto call = observer;  // the observer may replace itself
    call();
    notifying = false;
  }

  Result control(Control what, std::int32_t pid, Time now) {
    static const char* const kVerbs[] = {"stop", "resume", "slow", "unslow"};
    const std::string entry = std::string(kVerbs[static_cast<int>(what)]) + " " + std::to_string(pid);
    advanceTo(now);
    SimProcess* p = find(pid);
    if (p == nullptr || pid == kInitPid) {
      record(entry + " (refused)");
      notify();
      if (p == nullptr) return Result::fail("No process with id " + std::to_string(pid) + " is running.");
      return Result::fail("Process 1 belongs to the system and can't be changed.");
    }
    record(entry);
    switch (what) {
      case Control::Stop: p->stopped = true; break;
      case Control::Resume: p->stopped = false; break;
      case Control::Slow: p->slowed = true; break;
      case Control::Unslow: p->slowed = false; break;
    }
    notify();
    return Result::ok();
  }

  // The draws are constant over `dt`: every change of one brings the laptop
  // up to date first.
  void advance(double dt) {
    if (telemetry) {
      accumulatorSeconds += dt;
      if (accumulatorSeconds >= kAccumulatorPeriod) {
        const double periods = std::floor(accumulatorSeconds / kAccumulatorPeriod);
        accumulatorSeconds -= periods * kAccumulatorPeriod;
        const std::int64_t n = periods >= 9e15 ? std::numeric_limits<std::int64_t>::max()
                                                : static_cast<std::int64_t>(periods);
        const double added = periods * static_cast<double>(systemLoad());
        accumulated = added >= 9e18 ? std::numeric_limits<std::int64_t>::max()
                                    : saturatingAdd(accumulated, static_cast<std::int64_t>(added));
        accumulatorCount = saturatingAdd(accumulatorCount, n);
      }
    }
    if (batteryPresent) {
      const double c = static_cast<double>(current());
      percent += c * dt / 36.0 / static_cast<double>(maxCapacity);
      percent = std::clamp(percent, 0.0, 100.0);
      settle();
    }
    for (auto& p : processes) {
      if (p.stopped) continue;
      const double w = drawOf(p);
      p.energyNanojoules = saturatingAdd(p.energyNanojoules, w * dt * 1e9);
      p.cpuMicros = saturatingAdd(p.cpuMicros, std::min(kCores, w / kWattsPerBusyCore) * dt * 1e6);
    }
  }
};

SimLaptop::SimLaptop(const Clock& clock) : clock_(clock), s_(std::make_shared<State>(State::initial(clock.now()))) {}

void SimLaptop::setObserver(std::function<void()> observer) { s_->observer = std::move(observer); }

// --- Changes from outside.

void SimLaptop::setLidClosed(bool closed) {
  advanceToNow();
  s_->lid = closed ? Lid::Closed : Lid::Open;
  s_->notify();
}

void SimLaptop::removeLid() {
  advanceToNow();
  s_->lid = Lid::None;
  s_->notify();
}

void SimLaptop::setCharge(double percent) {
  if (!std::isfinite(percent)) return;
  advanceToNow();
  s_->percent = std::clamp(percent, 0.0, 100.0);
  s_->settle();
  s_->notify();
}

void SimLaptop::setAdapter(bool connected, bool charging) {
  advanceToNow();
  s_->adapter = connected;
  s_->charging = connected && charging;
  s_->amperage.reset();
  s_->settle();
  s_->notify();
}

void SimLaptop::setDraw(double watts) {
  if (!std::isfinite(watts)) return;
  advanceToNow();
  s_->watts = std::clamp(watts, 0.0, kMaxWatts);
  s_->amperage.reset();
  s_->notify();
}

void SimLaptop::setTelemetry(bool on) {
  advanceToNow();
  s_->telemetry = on;
  s_->notify();
}

void SimLaptop::setAmperage(std::optional<std::int64_t> milliamps) {
  advanceToNow();
  if (milliamps) milliamps = std::clamp<std::int64_t>(*milliamps, -kMaxMilliamps, kMaxMilliamps);
  s_->amperage = milliamps;
  s_->notify();
}

void SimLaptop::removeBattery() {
  advanceToNow();
  s_->batteryPresent = false;
  s_->amperage.reset();
  s_->settle();
  s_->notify();
}

void SimLaptop::setThermalState(int state) {
  advanceToNow();
  s_->thermal = std::clamp(state, 0, 3);
  s_->notify();
}

void SimLaptop::setSleepDisabledExternally(bool disabled) {
  advanceToNow();
  s_->sleepDisabled = disabled;
  s_->notify();
}

void SimLaptop::setSetup(bool ready, std::string reason) {
  s_->setupReady = ready;
  s_->setupReason = std::move(reason);
  s_->notify();
}

void SimLaptop::setRefusals(bool refuseOff, bool refuseOn) {
  s_->refuseOff = refuseOff;
  s_->refuseOn = refuseOn;
  s_->notify();
}

std::int32_t SimLaptop::startProcess(const std::string& path, std::vector<std::string> args, std::int32_t ppid,
                                     std::optional<std::int32_t> pid) {
  advanceToNow();
  State& s = *s_;
  std::int32_t id;
  if (pid) {
    if (*pid <= 0 || s.live(*pid)) return 0;
    id = *pid;
  } else {
    id = s.newPid();
    if (id == 0) return 0;
  }
  SimProcess p;
  p.pid = id;
  p.ppid = ppid;
  p.path = path;
  p.args = args.empty() ? std::vector<std::string>{path} : std::move(args);
  p.startMicros = s.newStart(clock_.now());
  s.insert(std::move(p));
  s_->notify();
  return id;
}

void SimLaptop::endProcess(std::int32_t pid) {
  advanceToNow();
  auto& ps = s_->processes;
  auto it = std::find_if(ps.begin(), ps.end(), [pid](const SimProcess& p) { return p.pid == pid; });
  if (it == ps.end()) return;
  ps.erase(it);
  // Orphans go to pid 1, as the kernel reparents them.
  for (auto& p : ps)
    if (p.ppid == pid) p.ppid = kInitPid;
  // The system releases the assertions of a process that ended.
  auto& as = s_->assertions;
  as.erase(std::remove_if(as.begin(), as.end(),
                          [pid](const PowerAssertion& a) { return a.pid == pid || a.onBehalfOf == pid; }),
           as.end());
  s_->notify();
}

void SimLaptop::setProcessWatts(std::int32_t pid, double watts) {
  if (!std::isfinite(watts)) return;
  advanceToNow();
  if (SimProcess* p = s_->find(pid)) {
    p->watts = std::clamp(watts, 0.0, kMaxWatts);
    s_->notify();
  }
}

void SimLaptop::setProcessCwd(std::int32_t pid, const std::string& cwd) {
  advanceToNow();
  if (SimProcess* p = s_->find(pid)) {
    p->cwd = cwd;
    s_->notify();
  }
}

Result SimLaptop::addPowerAssertion(PowerAssertion a) {
  advanceToNow();
  const SimProcess* p = s_->find(a.pid);
  if (p == nullptr) return Result::fail("No process with id " + std::to_string(a.pid) + " is running.");
  if (s_->assertions.size() >= kAssertionLimit) return Result::fail("The simulated laptop holds too many assertions.");
  if (a.processName.empty()) a.processName = baseNameOf(p->path);
  if (a.since && !std::isfinite(*a.since)) a.since.reset();
  s_->assertions.push_back(std::move(a));
  s_->notify();
  return Result::ok();
}

bool SimLaptop::removePowerAssertion(std::int32_t pid, const std::string& name) {
  advanceToNow();
  auto& as = s_->assertions;
  const auto before = as.size();
  as.erase(std::remove_if(as.begin(), as.end(),
                          [&](const PowerAssertion& a) { return a.pid == pid && (name.empty() || a.name == name); }),
           as.end());
  if (as.size() == before) return false;
  s_->notify();
  return true;
}

// --- Readings.

double SimLaptop::clockSpeed() const { return s_->clockSpeed; }

bool SimLaptop::sleepDisabled() const { return s_->sleepDisabled; }

std::optional<bool> SimLaptop::lidClosed() const {
  if (s_->lid == Lid::None) return std::nullopt;
  return s_->lid == Lid::Closed;
}

int SimLaptop::thermalState() const { return s_->thermal; }

std::optional<double> SimLaptop::chargePercent() const {
  s_->advanceTo(clock_.now());
  if (!s_->batteryPresent) return std::nullopt;
  return s_->percent;
}

std::optional<BatteryProperties> SimLaptop::batteryProperties() const {
  s_->advanceTo(clock_.now());
  const State& s = *s_;
  if (!s.batteryPresent) return std::nullopt;
  BatteryProperties b;
  b.currentCapacity = s.currentCapacity();
  b.maxCapacity = s.maxCapacity;
  const std::int64_t c = s.current();
  b.instantAmperage = c;
  b.amperage = c;
  b.voltage = s.voltage;
  b.externalConnected = s.adapter;
  b.isCharging = s.charging;
  // Minutes to empty while draining; 65535 is the controller's "unknown".
  std::int64_t minutes = 65535;
  if (c < 0) {
    const double remaining = s.percent * static_cast<double>(s.maxCapacity) / 100.0;
    minutes = static_cast<std::int64_t>(std::min(65534.0, std::floor(remaining * 60.0 / static_cast<double>(-c))));
  }
  b.timeRemaining = minutes;
  if (s.telemetry) {
    b.systemLoad = s.systemLoad();
    b.accumulatedSystemLoad = s.accumulated;
    b.accumulatorCount = s.accumulatorCount;
  }
  return b;
}

const std::vector<SimProcess>& SimLaptop::processes() const {
  s_->advanceTo(clock_.now());
  return s_->processes;
}

const SimProcess* SimLaptop::process(std::int32_t pid) const {
  s_->advanceTo(clock_.now());
  return s_->find(pid);
}

double SimLaptop::wholeDraw() const { return s_->wholeDraw(); }

const std::vector<PowerAssertion>& SimLaptop::powerAssertions() const {
  s_->advanceTo(clock_.now());
  return s_->assertions;
}

const std::vector<std::string>& SimLaptop::commandLog() const { return s_->log; }
std::uint64_t SimLaptop::commandCount() const { return s_->recorded; }
bool SimLaptop::builtInDisplayOn() const { return s_->displayOn; }
double SimLaptop::brightness() const { return s_->brightness; }
bool SimLaptop::automaticBackups() const { return s_->automaticBackups; }

// --- Privileged operations.

Result SimLaptop::setSleepDisabled(bool disabled) {
  State& s = *s_;
  const std::string entry = disabled ? "disablesleep 1" : "disablesleep 0";
  if (disabled ? s.refuseOff : s.refuseOn) {
    s.record(entry + " (refused)");
    s_->notify();
    return Result::fail(disabled ? "The simulated laptop refused to switch sleep off."
                                 : "The simulated laptop refused to switch sleep back on.");
  }
  advanceToNow();
  s.record(entry);
  s.sleepDisabled = disabled;
  s_->notify();
  return Result::ok();
}

Result SimLaptop::sleepNow() {
  s_->record("sleepnow");
  ++sleeps_;
  s_->notify();
  return Result::ok();
}

SetupStatus SimLaptop::setupStatus() const {
  if (s_->setupReady) return SetupStatus{true, {}};
  return SetupStatus{false, s_->setupReason.empty() ? "The simulated laptop's one-time setup is missing."
                                                    : s_->setupReason};
}

Result SimLaptop::restorePowerMode(const std::string& key, int value) {
  State& s = *s_;
  const std::string entry = "powermode " + key + " " + std::to_string(value);
  const int highest = key == "powermode" ? 2 : key == "lowpowermode" ? 1 : -1;
  if (highest < 0) {
    s.record(entry + " (refused)");
    s_->notify();
    return Result::fail("The simulated laptop has no power-mode setting called \"" + key + "\".");
  }
  if (value < 0 || value > highest) {
    s.record(entry + " (refused)");
    s_->notify();
    return Result::fail("The power-mode setting " + key + " takes 0 to " + std::to_string(highest) + ", not " +
                        std::to_string(value) + ".");
  }
  s.record(entry);
  s.powerModes[key] = value;
  s_->notify();
  return Result::ok();
}

Result SimLaptop::setAutomaticBackups(bool enabled) {
  s_->record(enabled ? "backups on" : "backups off");
  s_->automaticBackups = enabled;
  s_->notify();
  return Result::ok();
}

Result SimLaptop::setBuiltInDisplay(bool on) {
  s_->record(on ? "display on" : "display off");
  s_->displayOn = on;
  s_->notify();
  return Result::ok();
}

Result SimLaptop::setBrightness(double level) {
  const std::string entry = "brightness " + formatNumber(level);
  if (!(level >= 0.0 && level <= 1.0)) {
    s_->record(entry + " (refused)");
    s_->notify();
    return Result::fail("Brightness goes from 0 to 1, not " + formatNumber(level) + ".");
  }
  s_->record(entry);
  s_->brightness = level;
  s_->notify();
  return Result::ok();
}

std::optional<PowerModeSetting> SimLaptop::batteryPowerMode() const {
  return PowerModeSetting{"lowpowermode", s_->powerModes.at("lowpowermode")};
}

Result SimLaptop::setDisplayAssertion(bool on) {
  s_->record(on ? "display assertion on" : "display assertion off");
  s_->displayAssertion = on;
  s_->notify();
  return Result::ok();
}

Result SimLaptop::lockScreen() {
  s_->record("displaysleepnow");
  s_->locked = true;
  s_->notify();
  return Result::ok();
}

Result SimLaptop::shutDownSimulators() {
  s_->record("simctl shutdown all");
  std::vector<std::int32_t> gone;
  for (const auto& p : s_->processes) {
    if (baseNameOf(p.path) == "launchd_sim") gone.push_back(p.pid);
  }
  for (std::int32_t pid : gone) endProcess(pid);
  s_->notify();
  return Result::ok();
}

void SimLaptop::setExternalDisplay(bool connected) {
  s_->externalDisplay = connected;
  s_->notify();
}

void SimLaptop::setOnline(bool online) {
  s_->online = online;
  s_->notify();
}

void SimLaptop::setDisplayAssertionGone() {
  s_->displayAssertion = false;
  s_->notify();
}

void SimLaptop::setLocked(bool locked) {
  s_->locked = locked;
  s_->notify();
}

void SimLaptop::setBuiltInPresent(bool present) {
  s_->builtIn = present;
  s_->notify();
}

void SimLaptop::setBackupsByUser(bool on) {
  s_->automaticBackups = on;
  s_->notify();
}

void SimLaptop::setLowPowerByUser(int value) {
  s_->powerModes["lowpowermode"] = value;
  s_->notify();
}

void SimLaptop::installApp(AppBundle app) {
  std::erase_if(s_->apps, [&](const AppBundle& a) { return a.path == app.path; });
  s_->apps.push_back(std::move(app));
  s_->notify();
}

const std::vector<AppBundle>& SimLaptop::apps() const { return s_->apps; }
bool SimLaptop::builtInPresent() const { return s_->builtIn; }
bool SimLaptop::externalDisplay() const { return s_->externalDisplay; }
bool SimLaptop::online() const { return s_->online; }
bool SimLaptop::displayAssertion() const { return s_->displayAssertion; }
bool SimLaptop::locked() const { return s_->locked; }
int SimLaptop::powerMode(const std::string& key) const {
  auto it = s_->powerModes.find(key);
  return it == s_->powerModes.end() ? -1 : it->second;
}

Result SimLaptop::stop(std::int32_t pid) { return s_->control(Control::Stop, pid, clock_.now()); }
Result SimLaptop::resume(std::int32_t pid) { return s_->control(Control::Resume, pid, clock_.now()); }
Result SimLaptop::slow(std::int32_t pid) { return s_->control(Control::Slow, pid, clock_.now()); }
Result SimLaptop::unslow(std::int32_t pid) { return s_->control(Control::Unslow, pid, clock_.now()); }

bool SimLaptop::advanceToNow() { return s_->advanceTo(clock_.now()); }

// --- The state file's JSON.

json SimLaptop::toJson() const {
  s_->advanceTo(clock_.now());
  const State& s = *s_;
  json battery = {{"present", s.batteryPresent}, {"percent", s.percent},   {"maxCapacity", s.maxCapacity},
                  {"voltage", s.voltage},        {"adapter", s.adapter},   {"charging", s.charging},
                  {"watts", s.watts}};
  if (s.amperage) battery["amperage"] = *s.amperage;
  if (s.telemetry) battery["telemetry"] = true;
  if (s.telemetry || s.accumulatorCount > 0) {
    battery["accumulatedSystemLoad"] = s.accumulated;
    battery["systemLoadAccumulatorCount"] = s.accumulatorCount;
    battery["accumulatorSeconds"] = s.accumulatorSeconds;
  }
  json processes = json::array();
  for (const auto& p : s.processes) {
    processes.push_back({{"pid", p.pid},
                         {"ppid", p.ppid},
                         {"startMicros", p.startMicros},
                         {"path", p.path},
                         {"args", p.args},
                         {"cwd", p.cwd},
                         {"watts", p.watts},
                         {"stopped", p.stopped},
                         {"slowed", p.slowed},
                         {"cpuMicros", p.cpuMicros},
                         {"energyNanojoules", p.energyNanojoules}});
  }
  json assertions = json::array();
  for (const auto& a : s.assertions) {
    json e = {{"pid", a.pid}, {"processName", a.processName}, {"type", a.type}, {"name", a.name}};
    if (a.onBehalfOf) e["onBehalfOf"] = *a.onBehalfOf;
    if (a.since) e["since"] = *a.since;
    if (!a.resources.empty()) e["resources"] = a.resources;
    assertions.push_back(std::move(e));
  }
  json modes = json::object();
  for (const auto& [k, v] : s.powerModes) modes[k] = v;
  json state = {{"setup", {{"ready", s.setupReady}, {"reason", s.setupReason}}},
          {"lid", s.lid == Lid::Open ? "open" : s.lid == Lid::Closed ? "closed" : "none"},
          {"battery", std::move(battery)},
          {"thermal", s.thermal},
          {"sleepDisabled", s.sleepDisabled},
          {"refuse", {{"sleepOff", s.refuseOff}, {"sleepOn", s.refuseOn}}},
          {"display",
           {{"on", s.displayOn},
            {"brightness", s.brightness},
            {"builtIn", s.builtIn},
            {"external", s.externalDisplay},
            {"awakeAssertion", s.displayAssertion}}},
          {"locked", s.locked},
          {"apps", appsJson(s.apps)},
          {"automaticBackups", s.automaticBackups},
          {"powerModes", std::move(modes)},
          {"processes", std::move(processes)},
          {"powerAssertions", std::move(assertions)},
          {"nextPid", s.nextPid},
          {"lastStartMicros", s.lastStartMicros},
          {"log", s.log},
          {"updated", s.updated}};
  // Written only when set, so a file that never asked for it stays as it was.
  if (s.clockSpeed != 1.0) state["clockSpeed"] = s.clockSpeed;
  if (!s.online) state["online"] = false;
  return state;
}

void SimLaptop::fromJson(const json& j) {
  const Time now = clock_.now();
  State s = State::initial(now);
  s.observer = std::move(s_->observer);

  {
    const json& setup = object(j, "setup");
    if (auto v = boolean(setup, "ready")) s.setupReady = *v;
    if (auto v = text(setup, "reason")) s.setupReason = *v;
  }
  if (auto lid = text(j, "lid")) {
    if (*lid == "open") s.lid = Lid::Open;
    if (*lid == "closed") s.lid = Lid::Closed;
    if (*lid == "none") s.lid = Lid::None;
  }
  {
    const json& b = object(j, "battery");
    if (auto v = boolean(b, "present")) s.batteryPresent = *v;
    if (auto v = numberIn(b, "percent", 0.0, 100.0)) s.percent = *v;
    // A battery of no size or voltage is no battery: keep the default.
    if (auto v = number(b, "maxCapacity"); v && *v >= 1) s.maxCapacity = std::llround(std::min(*v, kMaxMilliampHours));
    if (auto v = number(b, "voltage"); v && *v >= 1) s.voltage = std::llround(std::min(*v, kMaxMillivolts));
    if (auto v = boolean(b, "adapter")) s.adapter = *v;
    if (auto v = boolean(b, "charging")) s.charging = *v;
    if (auto v = numberIn(b, "watts", 0.0, kMaxWatts)) s.watts = *v;
    if (auto v = numberIn(b, "amperage", -kMaxMilliamps, kMaxMilliamps)) s.amperage = std::llround(*v);
    if (auto v = boolean(b, "telemetry")) s.telemetry = *v;
    const double kMaxCounter = 9e18;
    if (auto v = numberIn(b, "accumulatedSystemLoad", 0.0, kMaxCounter)) s.accumulated = static_cast<std::int64_t>(*v);
    if (auto v = numberIn(b, "systemLoadAccumulatorCount", 0.0, kMaxCounter))
      s.accumulatorCount = static_cast<std::int64_t>(*v);
    if (auto v = numberIn(b, "accumulatorSeconds", 0.0, kAccumulatorPeriod)) s.accumulatorSeconds = *v;
  }
  if (auto v = numberIn(j, "thermal", 0.0, 3.0)) s.thermal = static_cast<int>(std::lround(*v));
  if (auto v = numberIn(j, "clockSpeed", 1.0, kMaxClockSpeed)) s.clockSpeed = *v;
  if (auto v = boolean(j, "sleepDisabled")) s.sleepDisabled = *v;
  {
    const json& r = object(j, "refuse");
    if (auto v = boolean(r, "sleepOff")) s.refuseOff = *v;
    if (auto v = boolean(r, "sleepOn")) s.refuseOn = *v;
  }
  {
    const json& d = object(j, "display");
    if (auto v = boolean(d, "on")) s.displayOn = *v;
    if (auto v = numberIn(d, "brightness", 0.0, 1.0)) s.brightness = *v;
    if (auto v = boolean(d, "builtIn")) s.builtIn = *v;
    if (auto v = boolean(d, "external")) s.externalDisplay = *v;
    if (auto v = boolean(d, "awakeAssertion")) s.displayAssertion = *v;
  }
  if (auto v = boolean(j, "locked")) s.locked = *v;
  if (auto v = boolean(j, "online")) s.online = *v;
  if (const json* list = member(j, "apps"); list != nullptr && list->is_array()) {
    for (const auto& e : *list) {
      if (!e.is_object() || s.apps.size() >= kAppLimit) continue;
      auto path = text(e, "path");
      if (!path || path->empty()) continue;
      AppBundle a;
      a.path = *path;
      a.bundleId = text(e, "bundleId");
      if (a.bundleId && a.bundleId->empty()) a.bundleId.reset();
      a.name = text(e, "name").value_or(appNameOf(a.path));
      s.apps.push_back(std::move(a));
    }
  }
  if (auto v = boolean(j, "automaticBackups")) s.automaticBackups = *v;
  for (auto& [key, value] : s.powerModes) {
    if (auto v = numberIn(object(j, "powerModes"), key.c_str(), 0.0, key == "powermode" ? 2.0 : 1.0))
      value = static_cast<int>(std::lround(*v));
  }
  if (auto v = numberIn(j, "nextPid", kFirstPid, kLastPid)) s.nextPid = static_cast<std::int32_t>(*v);
  const std::optional<std::uint64_t> lastStart = counter(j, "lastStartMicros");
  if (lastStart) s.lastStartMicros = std::max(s.lastStartMicros, *lastStart);
  if (const json* log = member(j, "log"); log != nullptr && log->is_array()) {
    for (const auto& e : *log)
      if (e.is_string()) s.record(e.get<std::string>());
  }

  if (const json* list = member(j, "processes"); list != nullptr && list->is_array()) {
    // The file's processes replace pid 1 of the default laptop, and its
    // start time with them.
    s.processes.clear();
    s.lastStartMicros = lastStart.value_or(0);
    // First the entries that name their pid, so that entries added by hand
    // without one get an id none of them uses.
    std::vector<std::pair<SimProcess, bool>> read;  // process, needs a pid
    std::set<std::int32_t> taken;
    for (const auto& e : *list) {
      if (!e.is_object() || read.size() >= kProcessLimit) continue;
      SimProcess p;
      bool needsPid = true;
      if (auto v = number(e, "pid"); v && *v >= 1 && *v <= std::numeric_limits<std::int32_t>::max()) {
        p.pid = static_cast<std::int32_t>(*v);
        if (!taken.insert(p.pid).second) continue;  // a second entry for a live pid
        needsPid = false;
      }
      if (auto v = numberIn(e, "ppid", 0, std::numeric_limits<std::int32_t>::max())) p.ppid = static_cast<std::int32_t>(*v);
      if (auto v = counter(e, "startMicros")) p.startMicros = *v;
      if (auto v = text(e, "path")) p.path = *v;
      if (const json* args = member(e, "args"); args != nullptr && args->is_array()) {
        for (const auto& a : *args)
          if (a.is_string()) p.args.push_back(a.get<std::string>());
      } else {
        p.args = {p.path};
      }
      if (auto v = text(e, "cwd")) p.cwd = *v;
      if (auto v = numberIn(e, "watts", 0.0, kMaxWatts)) p.watts = *v;
      if (auto v = boolean(e, "stopped")) p.stopped = *v;
      if (auto v = boolean(e, "slowed")) p.slowed = *v;
      if (auto v = counter(e, "cpuMicros")) p.cpuMicros = *v;
      if (auto v = counter(e, "energyNanojoules")) p.energyNanojoules = *v;
      read.emplace_back(std::move(p), needsPid);
    }
    for (auto& [p, needsPid] : read) {
      if (!needsPid) s.nextPid = std::max(s.nextPid, p.pid < kLastPid ? p.pid + 1 : s.nextPid);
      s.lastStartMicros = std::max(s.lastStartMicros, p.startMicros);
    }
    for (auto& [p, needsPid] : read)
      if (!needsPid) s.insert(p);
    for (auto& [p, needsPid] : read) {
      if (!needsPid) continue;
      p.pid = s.newPid();
      if (p.pid == 0) break;
      s.insert(p);
    }
    for (auto& p : s.processes)
      if (p.startMicros == 0) p.startMicros = s.newStart(now);
  }

  // Assertions after the processes: one of a process that is not running
  // is dropped, as the system releases it.
  if (const json* list = member(j, "powerAssertions"); list != nullptr && list->is_array()) {
    for (const auto& e : *list) {
      if (!e.is_object() || s.assertions.size() >= kAssertionLimit) continue;
      PowerAssertion a;
      const auto pid = numberIn(e, "pid", 0, std::numeric_limits<std::int32_t>::max());
      if (!pid) continue;
      a.pid = static_cast<std::int32_t>(*pid);
      const SimProcess* p = s.find(a.pid);
      if (p == nullptr) continue;
      a.processName = text(e, "processName").value_or(baseNameOf(p->path));
      a.type = text(e, "type").value_or("PreventUserIdleSystemSleep");
      a.name = text(e, "name").value_or("");
      if (auto v = numberIn(e, "onBehalfOf", 1, std::numeric_limits<std::int32_t>::max()))
        a.onBehalfOf = static_cast<std::int32_t>(*v);
      a.since = number(e, "since");
      if (const json* res = member(e, "resources"); res != nullptr && res->is_array()) {
        for (const auto& r : *res)
          if (r.is_string()) a.resources.push_back(r.get<std::string>());
      }
      s.assertions.push_back(std::move(a));
    }
  }

  if (auto v = number(j, "updated")) s.updated = *v;
  s.settle();
  *s_ = std::move(s);
  s_->notify();
}

}  // namespace vigilo

namespace vigilo {

double simClockSpeed(const std::string& path) {
  std::ifstream in(path);
  if (!in) return 1.0;
  const json j = json::parse(in, nullptr, false);
  if (!j.is_object()) return 1.0;
  return numberIn(j, "clockSpeed", 1.0, kMaxClockSpeed).value_or(1.0);
}

}  // namespace vigilo
