// The simulated laptop's changes made from outside, its readings and the
// privileged operations the platform forwards to it.

#include "platform/sim/sim_laptop.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "platform/sim/sim_laptop_state.h"

namespace vigilo {

using namespace sim;

namespace {

std::string formatNumber(double v) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", v);
  return buf;
}

}  // namespace

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

double SimLaptop::wholeDraw() const { return s_->wholeDraw(); }

const std::vector<std::string>& SimLaptop::commandLog() const { return s_->log; }
std::uint64_t SimLaptop::commandCount() const { return s_->recorded; }
bool SimLaptop::builtInDisplayOn() const { return s_->displayOn; }
double SimLaptop::brightness() const { return s_->brightness; }
bool SimLaptop::automaticBackups() const { return s_->automaticBackups; }
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

// --- Privileged operations.

Result SimLaptop::setSleepDisabled(bool disabled) {
  State& s = *s_;
  const std::string entry = disabled ? "disablesleep 1" : "disablesleep 0";
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

bool SimLaptop::advanceToNow() { return s_->advanceTo(clock_.now()); }

// --- The state file's JSON (its format lives with the state).

nlohmann::json SimLaptop::toJson() const {
  s_->advanceTo(clock_.now());
  return s_->toJson();
}

void SimLaptop::fromJson(const nlohmann::json& j) {
  State s = State::fromJson(j, clock_.now());
  s.observer = std::move(s_->observer);
  *s_ = std::move(s);
  s_->notify();
}

}  // namespace vigilo
