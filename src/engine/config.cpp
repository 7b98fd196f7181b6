#include "engine/config.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/text.h"

namespace vigilo {
namespace {

using nlohmann::json;

template <typename E, std::size_t N>
using TextTable = std::array<std::pair<E, std::string_view>, N>;

constexpr TextTable<Mode, 3> kModeTexts{{{Mode::Off, "off"}, {Mode::Auto, "auto"}, {Mode::On, "on"}}};
constexpr TextTable<Preset, 3> kPresetTexts{
    {{Preset::MaxBattery, "max_battery"}, {Preset::Balanced, "balanced"}, {Preset::FullSpeed, "full_speed"}}};
constexpr TextTable<AppRule, 3> kAppRuleTexts{
    {{AppRule::Leave, "leave"}, {AppRule::Slow, "slow"}, {AppRule::Pause, "pause"}}};
constexpr TextTable<MenuBarText, 5> kMenuBarTexts{{{MenuBarText::None, "none"},
                                                    {MenuBarText::Battery, "battery"},
                                                    {MenuBarText::Timer, "timer"},
                                                    {MenuBarText::TimeLeft, "timeLeft"},
                                                    {MenuBarText::Watts, "watts"}}};
constexpr TextTable<Appearance, 3> kAppearanceTexts{
    {{Appearance::System, "system"}, {Appearance::Light, "light"}, {Appearance::Dark, "dark"}}};

template <typename E, std::size_t N>
std::string_view textOf(const TextTable<E, N>& table, E value) {
  for (const auto& [e, text] : table) {
    if (e == value) return text;
  }
  return {};
}

template <typename E, std::size_t N>
std::optional<E> valueOf(const TextTable<E, N>& table, std::string_view text) {
  for (const auto& [e, t] : table) {
    if (t == text) return e;
  }
  return std::nullopt;
}

constexpr std::size_t kMaxTopicChars = 64;

// Whole numbers, saturated to the range of long long so that a value like
// 1e300 clamps instead of overflowing. A float with an integral value (30.0,
// as some tools write numbers) counts as that integer; one with a fraction
// (20.7) is of the wrong type, like a string would be, and keeps the default.
std::optional<long long> readInteger(const json& v) {
  if (v.is_number_integer() && !v.is_number_unsigned()) return v.get<std::int64_t>();
  if (v.is_number_unsigned()) {
    const auto u = v.get<std::uint64_t>();
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<long long>::max());
    return u > kMax ? std::numeric_limits<long long>::max() : static_cast<long long>(u);
  }
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (!std::isfinite(d) || std::trunc(d) != d) return std::nullopt;
    // 2^63 is exactly representable; anything at or beyond it would be
    // undefined behaviour to convert.
    constexpr double kLimit = 9223372036854775808.0;
    if (d >= kLimit) return std::numeric_limits<long long>::max();
    if (d < -kLimit) return std::numeric_limits<long long>::min();
    return static_cast<long long>(d);
  }
  return std::nullopt;
}

std::optional<int> readClamped(const json& v, int lo, int hi) {
  const auto n = readInteger(v);
  if (!n) return std::nullopt;
  if (*n < lo) return lo;
  if (*n > hi) return hi;
  return static_cast<int>(*n);
}

std::optional<double> readFinite(const json& v) {
  if (!v.is_number()) return std::nullopt;
  const double d = v.get<double>();
  if (!std::isfinite(d)) return std::nullopt;
  return d;
}

std::optional<Time> readTime(const json& v) {
  const auto d = readFinite(v);
  if (!d || *d <= 0) return std::nullopt;
  return *d;
}

const std::string* readString(const json& v) {
  return v.is_string() ? v.get_ptr<const std::string*>() : nullptr;
}

// The first `limit` code points of a UTF-8 text: the cut falls before a lead
// byte, never inside a multibyte character.
std::string firstChars(const std::string& s, std::size_t limit) {
  std::size_t chars = 0;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const bool continuation = (static_cast<unsigned char>(s[i]) & 0xC0) == 0x80;
    if (!continuation && chars++ == limit) return s.substr(0, i);
  }
  return s;
}

std::vector<WatchedApp> readWatchedApps(const json& v) {
  std::vector<WatchedApp> out;
  if (!v.is_array()) return out;
  for (const json& entry : v) {
    const std::string* name = nullptr;
    if (entry.is_object()) {
      if (auto it = entry.find("name"); it != entry.end()) name = readString(*it);
    } else {
      // A bare name is what a hand-editor most likely writes.
      name = readString(entry);
    }
    if (name && !name->empty()) out.push_back({*name});
  }
  return out;
}

std::vector<std::string> readStrings(const json& v) {
  std::vector<std::string> out;
  if (!v.is_array()) return out;
  for (const json& entry : v) {
    if (const std::string* s = readString(entry)) out.push_back(*s);
  }
  return out;
}

std::vector<CustomAgent> readCustomAgents(const json& v) {
  std::vector<CustomAgent> out;
  if (!v.is_array()) return out;
  for (const json& entry : v) {
    if (!entry.is_object()) continue;
    auto nameIt = entry.find("name");
    const std::string* name = nameIt == entry.end() ? nullptr : readString(*nameIt);
    if (!name || name->empty()) continue;
    CustomAgent agent;
    agent.name = *name;
    if (auto it = entry.find("executables"); it != entry.end()) agent.executables = readStrings(*it);
    if (auto it = entry.find("idleWatts"); it != entry.end()) {
      // A negative threshold would count an agent as busy forever.
      if (auto w = readFinite(*it); w && *w >= 0) agent.idleWatts = *w;
    }
    out.push_back(std::move(agent));
  }
  return out;
}

std::map<std::string, AppRule> readAppRules(const json& v) {
  std::map<std::string, AppRule> out;
  if (!v.is_object()) return out;
  for (auto it = v.begin(); it != v.end(); ++it) {
    const std::string* text = readString(it.value());
    if (!text) continue;
    if (auto rule = parseAppRule(*text)) out.emplace(it.key(), *rule);
  }
  return out;
}

// Where each key's value comes from: the file alone, or the file laid over
// the current record. Returning a pointer keeps the file's values uncopied,
// which matters for a hand-edited value nested thousands deep.
using Lookup = std::function<const json*(std::string_view key)>;

// Every key present is read on its own: a bad value gives that field its
// default, a missing key leaves `c` as it is.
void readInto(Config& c, const Lookup& at) {
  const Config d;
  auto boolean = [&](std::string_view key, bool& field, bool def) {
    if (const json* v = at(key)) field = v->is_boolean() ? v->get<bool>() : def;
  };
  auto clamped = [&](std::string_view key, int& field, int def, int lo, int hi) {
    if (const json* v = at(key)) field = readClamped(*v, lo, hi).value_or(def);
  };
  auto time = [&](std::string_view key, std::optional<Time>& field) {
    if (const json* v = at(key)) field = readTime(*v);
  };
  auto enumerated = [&]<typename E>(std::string_view key, E& field, E def, std::optional<E> (*parse)(std::string_view)) {
    if (const json* v = at(key)) {
      const std::string* s = readString(*v);
      field = (s ? parse(*s) : std::nullopt).value_or(def);
    }
  };

  enumerated("mode", c.mode, d.mode, &parseMode);
  enumerated("preset", c.preset, d.preset, &parsePreset);
  boolean("lowPowerWhileClosed", c.lowPowerWhileClosed, d.lowPowerWhileClosed);
  boolean("sleepWhenDone", c.sleepWhenDone, d.sleepWhenDone);
  clamped("quietMinutes", c.quietMinutes, d.quietMinutes, 1, 240);
  clamped("batteryFloor", c.batteryFloor, d.batteryFloor, 0, 80);
  boolean("heatGuard", c.heatGuard, d.heatGuard);
  boolean("onlyOnPower", c.onlyOnPower, d.onlyOnPower);
  boolean("countClaudeApp", c.countClaudeApp, d.countClaudeApp);
  boolean("countRequests", c.countRequests, d.countRequests);
  if (const json* v = at("watchedApps")) c.watchedApps = readWatchedApps(*v);
  if (const json* v = at("appRules")) c.appRules = readAppRules(*v);
  if (const json* v = at("customAgents")) c.customAgents = readCustomAgents(*v);
  enumerated("menuBarText", c.menuBarText, d.menuBarText, &parseMenuBarText);
  boolean("notchIsland", c.notchIsland, d.notchIsland);
  boolean("showInDock", c.showInDock, d.showInDock);
  boolean("hotkey", c.hotkey, d.hotkey);
  enumerated("appearance", c.appearance, d.appearance, &parseAppearance);
  boolean("notifyDone", c.notifyDone, d.notifyDone);
  boolean("doneChime", c.doneChime, d.doneChime);
  if (const json* v = at("chimeSound")) {
    const std::string* s = readString(*v);
    c.chimeSound = s ? *s : d.chimeSound;
  }
  if (const json* v = at("ntfyTopic")) {
    const std::string* s = readString(*v);
    c.ntfyTopic = s ? firstChars(*s, kMaxTopicChars) : d.ntfyTopic;
  }
  boolean("lockOnClose", c.lockOnClose, d.lockOnClose);
  boolean("pauseSimulators", c.pauseSimulators, d.pauseSimulators);
  boolean("pauseBackgroundAudio", c.pauseBackgroundAudio, d.pauseBackgroundAudio);
  boolean("screenOffNoLock", c.screenOffNoLock, d.screenOffNoLock);
  boolean("shutDownSimulators", c.shutDownSimulators, d.shutDownSimulators);
  if (const json* v = at("trackOnly")) c.trackOnly = readStrings(*v);
  boolean("liveLidIcon", c.liveLidIcon, d.liveLidIcon);
  time("alwaysUntil", c.alwaysUntil);
  if (const json* v = at("modeBeforeAlways")) {
    const std::string* s = readString(*v);
    auto m = s ? parseMode(*s) : std::nullopt;
    // Returning from "Always" to "Always" would leave no way back.
    c.modeBeforeAlways = (m == Mode::On) ? std::nullopt : m;
  }
  if (const json* v = at("checkInMinutes")) {
    const auto n = readInteger(*v);
    c.checkInMinutes = (n == 0 || n == 15 || n == 30 || n == 60) ? static_cast<int>(*n) : d.checkInMinutes;
  }
  time("wakeAt", c.wakeAt);
  clamped("wakeForMinutes", c.wakeForMinutes, d.wakeForMinutes, 5, 1440);
  boolean("slowBuildsWhileClosed", c.slowBuildsWhileClosed, d.slowBuildsWhileClosed);
  boolean("pauseTimeMachine", c.pauseTimeMachine, d.pauseTimeMachine);
  boolean("hotspotAutomatic", c.hotspotAutomatic, d.hotspotAutomatic);
}

const json* member(const json& object, std::string_view key) {
  if (!object.is_object()) return nullptr;
  auto it = object.find(key);
  return it == object.end() ? nullptr : &*it;
}

std::optional<json> parseObject(std::string_view bytes) {
  // The parser and the destructor work without recursion, so deep nesting
  // costs memory in proportion to its size, not stack.
  json j = json::parse(bytes.begin(), bytes.end(), nullptr, /*allow_exceptions=*/false);
  if (!j.is_object()) return std::nullopt;
  return j;
}

// Whole seconds since 1970 for a file name; any double, even a broken one,
// gives a number rather than undefined behaviour.
long long wholeSeconds(Time t) {
  if (!std::isfinite(t)) return 0;
  constexpr double kLimit = 9223372036854775808.0;
  if (t >= kLimit) return std::numeric_limits<long long>::max();
  if (t < -kLimit) return std::numeric_limits<long long>::min();
  return static_cast<long long>(t);
}

}  // namespace

std::string_view toText(Mode m) { return textOf(kModeTexts, m); }
std::string_view toText(Preset p) { return textOf(kPresetTexts, p); }
std::string_view toText(AppRule r) { return textOf(kAppRuleTexts, r); }
std::string_view toText(MenuBarText t) { return textOf(kMenuBarTexts, t); }
std::string_view toText(Appearance a) { return textOf(kAppearanceTexts, a); }
std::optional<Mode> parseMode(std::string_view s) { return valueOf(kModeTexts, s); }
std::optional<Preset> parsePreset(std::string_view s) { return valueOf(kPresetTexts, s); }
std::optional<AppRule> parseAppRule(std::string_view s) { return valueOf(kAppRuleTexts, s); }
std::optional<MenuBarText> parseMenuBarText(std::string_view s) { return valueOf(kMenuBarTexts, s); }
std::optional<Appearance> parseAppearance(std::string_view s) { return valueOf(kAppearanceTexts, s); }

std::string_view displayName(Mode m) {
  switch (m) {
    case Mode::Off: return "Off";
    case Mode::Auto: return "When Busy";
    case Mode::On: return "Always";
  }
  return {};
}

Config Config::fromJson(const json& j) {
  Config c;
  readInto(c, [&j](std::string_view key) { return member(j, key); });
  return c;
}

std::optional<Config> Config::decode(std::string_view bytes) {
  auto j = parseObject(bytes);
  if (!j) return std::nullopt;
  return fromJson(*j);
}

json Config::toJson() const {
  json j = json::object();
  j["mode"] = toText(mode);
  j["preset"] = toText(preset);
  j["lowPowerWhileClosed"] = lowPowerWhileClosed;
  j["sleepWhenDone"] = sleepWhenDone;
  j["quietMinutes"] = quietMinutes;
  j["batteryFloor"] = batteryFloor;
  j["heatGuard"] = heatGuard;
  j["onlyOnPower"] = onlyOnPower;
  j["countClaudeApp"] = countClaudeApp;
  j["countRequests"] = countRequests;
  json apps = json::array();
  for (const auto& app : watchedApps) apps.push_back({{"name", app.name}});
  j["watchedApps"] = std::move(apps);
  json rules = json::object();
  for (const auto& [app, rule] : appRules) rules[app] = toText(rule);
  j["appRules"] = std::move(rules);
  json agents = json::array();
  for (const auto& agent : customAgents) {
    agents.push_back({{"name", agent.name}, {"executables", agent.executables}, {"idleWatts", agent.idleWatts}});
  }
  j["customAgents"] = std::move(agents);
  j["menuBarText"] = toText(menuBarText);
  j["notchIsland"] = notchIsland;
  j["showInDock"] = showInDock;
  j["hotkey"] = hotkey;
  j["appearance"] = toText(appearance);
  j["notifyDone"] = notifyDone;
  j["doneChime"] = doneChime;
  j["chimeSound"] = chimeSound;
  j["ntfyTopic"] = ntfyTopic;
  j["lockOnClose"] = lockOnClose;
  j["pauseSimulators"] = pauseSimulators;
  j["pauseBackgroundAudio"] = pauseBackgroundAudio;
  j["screenOffNoLock"] = screenOffNoLock;
  j["shutDownSimulators"] = shutDownSimulators;
  j["trackOnly"] = trackOnly;
  j["liveLidIcon"] = liveLidIcon;
  if (alwaysUntil) j["alwaysUntil"] = *alwaysUntil;
  if (modeBeforeAlways) j["modeBeforeAlways"] = toText(*modeBeforeAlways);
  j["checkInMinutes"] = checkInMinutes;
  if (wakeAt) j["wakeAt"] = *wakeAt;
  j["wakeForMinutes"] = wakeForMinutes;
  j["slowBuildsWhileClosed"] = slowBuildsWhileClosed;
  j["pauseTimeMachine"] = pauseTimeMachine;
  j["hotspotAutomatic"] = hotspotAutomatic;
  return j;
}

std::string Config::encoded() const {
  return dumpJson(toJson(), 2);
}

Config Config::mergedWith(const json& fileObject, bool whole) const {
  const json current = toJson();
  Config c;
  readInto(c, [&](std::string_view key) -> const json* {
    if (const json* v = member(fileObject, key)) return v;
    const bool optional = key == "alwaysUntil" || key == "modeBeforeAlways" || key == "wakeAt";
    if (optional && whole && fileObject.is_object()) return nullptr;
    return member(current, key);
  });
  // An end time and the mode to return to belong to "Always" alone: a file
  // that leaves "Always" ends them, as choosing the mode in the app does.
  if (c.mode != Mode::On) {
    c.alwaysUntil.reset();
    c.modeBeforeAlways.reset();
  }
  return c;
}

std::optional<std::string> setAsideIfBroken(const StateFiles& files, Time now) {
  if (!files.exists(kConfigFile)) return std::nullopt;
  const auto bytes = files.read(kConfigFile);
  if (bytes && parseObject(*bytes)) return std::nullopt;

  std::string name = "config.broken-" + std::to_string(wholeSeconds(now)) + ".json";
  if (bytes) {
    if (!files.writeDurably(name, *bytes)) return std::nullopt;
    return name;
  }
  // Too large to read into memory: the file system can still copy it. When
  // even that fails the file is not set aside, so nothing overwrites it.
  std::error_code ec;
  std::filesystem::copy_file(files.path(kConfigFile), files.path(name),
                             std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) return std::nullopt;
  return name;
}

std::optional<Safety> Safety::load(const StateFiles& files) {
  const auto bytes = files.read(kSafetyFile);
  if (!bytes) return std::nullopt;
  const auto j = parseObject(*bytes);
  if (!j) return std::nullopt;
  Safety s;
  if (const json* v = member(*j, "heatGuard"); v && v->is_boolean()) s.heatGuard = v->get<bool>();
  if (const json* v = member(*j, "batteryFloor")) s.batteryFloor = readClamped(*v, 0, 80).value_or(s.batteryFloor);
  if (const json* v = member(*j, "onlyOnPower"); v && v->is_boolean()) s.onlyOnPower = v->get<bool>();
  return s;
}

bool Safety::save(const StateFiles& files) const {
  const json j = {{"heatGuard", heatGuard}, {"batteryFloor", batteryFloor}, {"onlyOnPower", onlyOnPower}};
  return files.writeDurably(kSafetyFile, dumpJson(j, 2));
}

SafetyVerdict checkSafety(const Config& config, const Safety& baseline) {
  SafetyVerdict v;
  v.config = config;
  v.baseline = baseline;
  if (!config.heatGuard && baseline.heatGuard) {
    v.phrases.emplace_back("the heat guard stays on");
    v.config.heatGuard = true;
  }
  if (config.batteryFloor < baseline.batteryFloor) {
    v.phrases.push_back("the battery limit stays at " + std::to_string(baseline.batteryFloor) + "%");
    v.config.batteryFloor = baseline.batteryFloor;
  }
  if (!config.onlyOnPower && baseline.onlyOnPower) {
    v.phrases.emplace_back("it still only stays awake on power");
    v.config.onlyOnPower = true;
  }
  const Config& c = v.config;
  if ((c.heatGuard && !baseline.heatGuard) || c.batteryFloor > baseline.batteryFloor ||
      (c.onlyOnPower && !baseline.onlyOnPower)) {
    v.baseline = Safety::of(c);
    v.baselineChanged = true;
  }
  return v;
}

std::string SafetyVerdict::message() const {
  if (phrases.empty()) return {};
  std::string out = "Safety settings can only be loosened in Vigilo itself: ";
  for (std::size_t i = 0; i < phrases.size(); ++i) {
    if (i > 0) out += " and ";
    out += phrases[i];
  }
  return out;
}

}  // namespace vigilo
