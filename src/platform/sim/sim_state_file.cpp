// The state file's JSON: the simulated laptop written out whole, and read
// back leniently from a file a person may have edited by hand (format in
// docs/simulator.md).

#include "platform/sim/sim_laptop_state.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <set>

namespace vigilo {

using namespace sim;

namespace {

using json = nlohmann::json;

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

json processesJson(const std::vector<SimProcess>& list) {
  json processes = json::array();
  for (const auto& p : list) {
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
  return processes;
}

json assertionsJson(const std::vector<PowerAssertion>& list) {
  json assertions = json::array();
  for (const auto& a : list) {
    json e = {{"pid", a.pid}, {"processName", a.processName}, {"type", a.type}, {"name", a.name}};
    if (a.onBehalfOf) e["onBehalfOf"] = *a.onBehalfOf;
    if (a.since) e["since"] = *a.since;
    if (!a.resources.empty()) e["resources"] = a.resources;
    assertions.push_back(std::move(e));
  }
  return assertions;
}

}  // namespace

// --- Writing.

json SimLaptop::State::batteryJson() const {
  json battery = {{"present", batteryPresent}, {"percent", percent},   {"maxCapacity", maxCapacity},
                  {"voltage", voltage},        {"adapter", adapter},   {"charging", charging},
                  {"watts", watts}};
  if (amperage) battery["amperage"] = *amperage;
  if (telemetry) battery["telemetry"] = true;
  if (telemetry || accumulatorCount > 0) {
    battery["accumulatedSystemLoad"] = accumulated;
    battery["systemLoadAccumulatorCount"] = accumulatorCount;
    battery["accumulatorSeconds"] = accumulatorSeconds;
  }
  return battery;
}

json SimLaptop::State::toJson() const {
  json modes = json::object();
  for (const auto& [k, v] : powerModes) modes[k] = v;
  json state = {{"setup", {{"ready", setupReady}, {"reason", setupReason}}},
          {"lid", lid == Lid::Open ? "open" : lid == Lid::Closed ? "closed" : "none"},
          {"battery", batteryJson()},
          {"thermal", thermal},
          {"sleepDisabled", sleepDisabled},
          {"display",
           {{"on", displayOn},
            {"brightness", brightness},
            {"builtIn", builtIn},
            {"external", externalDisplay},
            {"awakeAssertion", displayAssertion}}},
          {"locked", locked},
          {"apps", appsJson(apps)},
          {"automaticBackups", automaticBackups},
          {"powerModes", std::move(modes)},
          {"processes", processesJson(processes)},
          {"powerAssertions", assertionsJson(assertions)},
          {"nextPid", nextPid},
          {"lastStartMicros", lastStartMicros},
          {"log", log},
          {"updated", updated}};
  // Written only when set, so a file that never asked for it stays as it was.
  if (clockSpeed != 1.0) state["clockSpeed"] = clockSpeed;
  if (!online) state["online"] = false;
  return state;
}

// --- Reading: each step reads its keys over the default laptop's values.

SimLaptop::State SimLaptop::State::fromJson(const json& j, Time now) {
  State s = initial(now);
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
  s.readBattery(object(j, "battery"));
  s.readSwitches(j);
  s.readApps(j);
  if (auto v = numberIn(j, "nextPid", kFirstPid, kLastPid)) s.nextPid = static_cast<std::int32_t>(*v);
  const std::optional<std::uint64_t> lastStart = counter(j, "lastStartMicros");
  if (lastStart) s.lastStartMicros = std::max(s.lastStartMicros, *lastStart);
  if (const json* log = member(j, "log"); log != nullptr && log->is_array()) {
    for (const auto& e : *log)
      if (e.is_string()) s.record(e.get<std::string>());
  }
  if (const json* list = member(j, "processes"); list != nullptr && list->is_array()) {
    s.readProcesses(*list, lastStart, now);
  }
  // Assertions after the processes: one of a process that is not running
  // is dropped, as the system releases it.
  if (const json* list = member(j, "powerAssertions"); list != nullptr && list->is_array()) {
    s.readAssertions(*list);
  }
  if (auto v = number(j, "updated")) s.updated = *v;
  s.settle();
  return s;
}

void SimLaptop::State::readBattery(const json& b) {
  if (auto v = boolean(b, "present")) batteryPresent = *v;
  if (auto v = numberIn(b, "percent", 0.0, 100.0)) percent = *v;
  // A battery of no size or voltage is no battery: keep the default.
  if (auto v = number(b, "maxCapacity"); v && *v >= 1) maxCapacity = std::llround(std::min(*v, kMaxMilliampHours));
  if (auto v = number(b, "voltage"); v && *v >= 1) voltage = std::llround(std::min(*v, kMaxMillivolts));
  if (auto v = boolean(b, "adapter")) adapter = *v;
  if (auto v = boolean(b, "charging")) charging = *v;
  if (auto v = numberIn(b, "watts", 0.0, kMaxWatts)) watts = *v;
  if (auto v = numberIn(b, "amperage", -kMaxMilliamps, kMaxMilliamps)) amperage = std::llround(*v);
  if (auto v = boolean(b, "telemetry")) telemetry = *v;
  const double kMaxCounter = 9e18;
  if (auto v = numberIn(b, "accumulatedSystemLoad", 0.0, kMaxCounter)) accumulated = static_cast<std::int64_t>(*v);
  if (auto v = numberIn(b, "systemLoadAccumulatorCount", 0.0, kMaxCounter))
    accumulatorCount = static_cast<std::int64_t>(*v);
  if (auto v = numberIn(b, "accumulatorSeconds", 0.0, kAccumulatorPeriod)) accumulatorSeconds = *v;
}

// The machine's switches and settings: heat, clock speed, sleep, the
// screens, the session, backups and power modes.
void SimLaptop::State::readSwitches(const json& j) {
  if (auto v = numberIn(j, "thermal", 0.0, 3.0)) thermal = static_cast<int>(std::lround(*v));
  if (auto v = numberIn(j, "clockSpeed", 1.0, kMaxClockSpeed)) clockSpeed = *v;
  if (auto v = boolean(j, "sleepDisabled")) sleepDisabled = *v;
  {
    const json& d = object(j, "display");
    if (auto v = boolean(d, "on")) displayOn = *v;
    if (auto v = numberIn(d, "brightness", 0.0, 1.0)) brightness = *v;
    if (auto v = boolean(d, "builtIn")) builtIn = *v;
    if (auto v = boolean(d, "external")) externalDisplay = *v;
    if (auto v = boolean(d, "awakeAssertion")) displayAssertion = *v;
  }
  if (auto v = boolean(j, "locked")) locked = *v;
  if (auto v = boolean(j, "online")) online = *v;
  if (auto v = boolean(j, "automaticBackups")) automaticBackups = *v;
  for (auto& [key, value] : powerModes) {
    if (auto v = numberIn(object(j, "powerModes"), key.c_str(), 0.0, key == "powermode" ? 2.0 : 1.0))
      value = static_cast<int>(std::lround(*v));
  }
}

void SimLaptop::State::readApps(const json& j) {
  const json* list = member(j, "apps");
  if (list == nullptr || !list->is_array()) return;
  for (const auto& e : *list) {
    if (!e.is_object() || apps.size() >= kAppLimit) continue;
    auto path = text(e, "path");
    if (!path || path->empty()) continue;
    AppBundle a;
    a.path = *path;
    a.bundleId = text(e, "bundleId");
    if (a.bundleId && a.bundleId->empty()) a.bundleId.reset();
    a.name = text(e, "name").value_or(appNameOf(a.path));
    apps.push_back(std::move(a));
  }
}

namespace {

// One entry of the file's process list; `needsPid` when it names no usable
// pid of its own.
SimProcess readProcess(const json& e, bool& needsPid) {
  SimProcess p;
  needsPid = true;
  if (auto v = number(e, "pid"); v && *v >= 1 && *v <= std::numeric_limits<std::int32_t>::max()) {
    p.pid = static_cast<std::int32_t>(*v);
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
  return p;
}

}  // namespace

void SimLaptop::State::readProcesses(const json& list, std::optional<std::uint64_t> lastStart, Time now) {
  // The file's processes replace pid 1 of the default laptop, and its
  // start time with them.
  processes.clear();
  lastStartMicros = lastStart.value_or(0);
  // First the entries that name their pid, so that entries added by hand
  // without one get an id none of them uses.
  std::vector<std::pair<SimProcess, bool>> read;  // process, needs a pid
  std::set<std::int32_t> taken;
  for (const auto& e : list) {
    if (!e.is_object() || read.size() >= kProcessLimit) continue;
    bool needsPid = true;
    SimProcess p = readProcess(e, needsPid);
    if (!needsPid && !taken.insert(p.pid).second) continue;  // a second entry for a live pid
    read.emplace_back(std::move(p), needsPid);
  }
  for (auto& [p, needsPid] : read) {
    if (!needsPid) nextPid = std::max(nextPid, p.pid < kLastPid ? p.pid + 1 : nextPid);
    lastStartMicros = std::max(lastStartMicros, p.startMicros);
  }
  for (auto& [p, needsPid] : read)
    if (!needsPid) insert(p);
  for (auto& [p, needsPid] : read) {
    if (!needsPid) continue;
    p.pid = newPid();
    if (p.pid == 0) break;
    insert(p);
  }
  for (auto& p : processes)
    if (p.startMicros == 0) p.startMicros = newStart(now);
}

void SimLaptop::State::readAssertions(const json& list) {
  for (const auto& e : list) {
    if (!e.is_object() || assertions.size() >= kAssertionLimit) continue;
    PowerAssertion a;
    const auto pid = numberIn(e, "pid", 0, std::numeric_limits<std::int32_t>::max());
    if (!pid) continue;
    a.pid = static_cast<std::int32_t>(*pid);
    const SimProcess* p = find(a.pid);
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
    assertions.push_back(std::move(a));
  }
}

double simClockSpeed(const std::string& path) {
  std::ifstream in(path);
  if (!in) return 1.0;
  const json j = json::parse(in, nullptr, false);
  if (!j.is_object()) return 1.0;
  return numberIn(j, "clockSpeed", 1.0, kMaxClockSpeed).value_or(1.0);
}

}  // namespace vigilo
