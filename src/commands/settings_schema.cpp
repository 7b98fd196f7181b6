#include "commands/settings_schema.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

#include "agents/catalogue.h"

namespace vigilo {
namespace {

using nlohmann::json;
using Refusal = std::optional<std::string>;

constexpr std::string_view kOnOrOff = "on or off";
constexpr std::string_view kOnlyTurnOn = "to be turned off in Vigilo's Settings (it can only be turned on from here)";
constexpr std::string_view kBelowFloorKey = "below_floor_allowed";

const std::string* textOf(const json& v) { return v.is_string() ? v.get_ptr<const std::string*>() : nullptr; }

// The values agents and the command line actually send: "on" from a shell,
// true from JSON, 1 from tools that have no booleans.
std::optional<bool> readBool(const json& v) {
  if (v.is_boolean()) return v.get<bool>();
  if (v.is_number_unsigned()) return v.get<std::uint64_t>() != 0;
  if (v.is_number_integer()) return v.get<std::int64_t>() != 0;
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (std::isnan(d)) return std::nullopt;
    return d != 0;
  }
  if (const std::string* s = textOf(v)) {
    if (*s == "true" || *s == "on") return true;
    if (*s == "false" || *s == "off") return false;
  }
  return std::nullopt;
}

long long saturate(double d) {
  // 2^63 is exactly representable; converting anything at or beyond it is
  // undefined behaviour.
  constexpr double kLimit = 9223372036854775808.0;
  if (d >= kLimit) return std::numeric_limits<long long>::max();
  if (d < -kLimit) return std::numeric_limits<long long>::min();
  return static_cast<long long>(d);
}

// Whole numbers saturate rather than fail, so a huge value is refused by the
// range check with its helpful text instead of as "not a number".
std::optional<long long> readWhole(const json& v) {
  if (v.is_number_unsigned()) {
    const auto u = v.get<std::uint64_t>();
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<long long>::max());
    return u > kMax ? std::numeric_limits<long long>::max() : static_cast<long long>(u);
  }
  if (v.is_number_integer()) return v.get<std::int64_t>();
  if (v.is_number_float()) {
    const double d = v.get<double>();
    if (!std::isfinite(d) || std::trunc(d) != d) return std::nullopt;
    return saturate(d);
  }
  if (const std::string* s = textOf(v)) {
    const char* first = s->data();
    const char* last = first + s->size();
    long long n = 0;
    const auto [end, ec] = std::from_chars(first, last, n);
    if (end != last || first == last) return std::nullopt;
    if (ec == std::errc::result_out_of_range) {
      return (*s)[0] == '-' ? std::numeric_limits<long long>::min() : std::numeric_limits<long long>::max();
    }
    if (ec != std::errc()) return std::nullopt;
    return n;
  }
  return std::nullopt;
}

std::optional<int> readWholeIn(const json& v, int lo, int hi) {
  const auto n = readWhole(v);
  if (!n || *n < lo || *n > hi) return std::nullopt;
  return static_cast<int>(*n);
}

// "a, b or c": the refusal of an enumeration lists what it takes.
std::string oneOf(const std::vector<std::string>& allowed) {
  std::string out;
  for (std::size_t i = 0; i < allowed.size(); ++i) {
    if (i > 0) out += i + 1 == allowed.size() ? " or " : ", ";
    out += allowed[i];
  }
  return out;
}

// The value when it is one of `allowed` exactly.
const std::string* allowedText(const json& v, const std::vector<std::string>& allowed) {
  const std::string* s = textOf(v);
  if (s == nullptr || std::find(allowed.begin(), allowed.end(), *s) == allowed.end()) return nullptr;
  return s;
}

SettingSpec toggle(std::string key, std::string topic, std::string description, std::optional<std::string> note,
                   bool Config::*field) {
  SettingSpec s;
  s.key = std::move(key);
  s.topic = std::move(topic);
  s.type = "bool";
  s.description = std::move(description);
  s.note = std::move(note);
  s.read = [field](const Config& c) { return json(c.*field); };
  s.write = [field](Config& c, const json& v) -> Refusal {
    const auto on = readBool(v);
    if (!on) return std::string(kOnOrOff);
    c.*field = *on;
    return std::nullopt;
  };
  return s;
}

// A safety switch: from outside it may only be turned on, since turning it
// off is the person's call in the app.
SettingSpec onlyTurnedOn(SettingSpec s, bool Config::*field) {
  s.write = [field, plain = std::move(s.write)](Config& c, const json& v) -> Refusal {
    if (const auto on = readBool(v); on && !*on && c.*field) return std::string(kOnlyTurnOn);
    return plain(c, v);
  };
  return s;
}

template <typename E>
SettingSpec choice(std::string key, std::string topic, std::string description, std::vector<std::string> allowed,
                   E Config::*field, std::optional<E> (*parse)(std::string_view)) {
  SettingSpec s;
  s.key = std::move(key);
  s.topic = std::move(topic);
  s.type = "enum";
  s.allowed = std::move(allowed);
  s.description = std::move(description);
  s.read = [field](const Config& c) { return json(std::string(toText(c.*field))); };
  s.write = [field, parse, allowed = s.allowed](Config& c, const json& v) -> Refusal {
    const std::string* text = allowedText(v, allowed);
    const auto value = text ? parse(*text) : std::nullopt;
    if (!value) return oneOf(allowed);
    c.*field = *value;
    return std::nullopt;
  };
  return s;
}

SettingSpec whole(std::string key, std::string topic, std::string description, int Config::*field, int lo, int hi,
                  std::string refusal) {
  SettingSpec s;
  s.key = std::move(key);
  s.topic = std::move(topic);
  s.type = "int";
  s.description = std::move(description);
  s.read = [field](const Config& c) { return json(c.*field); };
  s.write = [field, lo, hi, refusal = std::move(refusal)](Config& c, const json& v) -> Refusal {
    const auto n = readWholeIn(v, lo, hi);
    if (!n) return refusal;
    c.*field = *n;
    return std::nullopt;
  };
  return s;
}

SettingSpec modeSpec(const std::string& topic) {
  SettingSpec s;
  s.key = "mode";
  s.topic = topic;
  s.type = "enum";
  s.allowed = {"auto", "on", "off"};
  s.description =
      "auto (shown as When Busy): awake only while an agent or watched app is working. on (Always): awake until "
      "turned off. off: normal sleep (explicit holds still work).";
  s.read = [](const Config& c) { return json(std::string(toText(c.mode))); };
  s.write = [allowed = s.allowed](Config& c, const json& v) -> Refusal {
    const std::string* text = allowedText(v, allowed);
    const auto mode = text ? parseMode(*text) : std::nullopt;
    if (!mode) return oneOf(allowed);
    // "on" from outside means until turned off, so any end time goes; the
    // mode to return to is kept only while Always lasts.
    c.alwaysUntil.reset();
    if (*mode == Mode::On) {
      if (c.mode != Mode::On) c.modeBeforeAlways = c.mode;
    } else {
      c.modeBeforeAlways.reset();
    }
    c.mode = *mode;
    return std::nullopt;
  };
  return s;
}

SettingSpec checkInSpec(const std::string& topic, const std::string& m) {
  SettingSpec s;
  s.key = "check_in_minutes";
  s.topic = topic;
  s.type = "int";
  s.description = "With the lid shut and the " + m +
                  " asleep, wake it every this many minutes for about 25 seconds to pick up a wake sent from the "
                  "phone, then sleep again. 0 = off. Costs a little battery per check-in; a fully shut-down " +
                  m + " can't be woken.";
  s.read = [](const Config& c) { return json(c.checkInMinutes); };
  s.write = [](Config& c, const json& v) -> Refusal {
    const auto n = readWhole(v);
    if (!n || (*n != 0 && *n != 15 && *n != 30 && *n != 60)) return std::string("0, 15, 30 or 60");
    c.checkInMinutes = static_cast<int>(*n);
    return std::nullopt;
  };
  return s;
}

SettingSpec batteryFloorSpec(const std::string& topic) {
  SettingSpec s;
  s.key = "battery_floor";
  s.topic = topic;
  s.type = "int";
  s.description = "Sleep when the battery reaches this percent (0 = never stop for battery).";
  s.note = "Can only be raised from commands; lowering it is the person's call in Vigilo's Settings.";
  s.read = [](const Config& c) { return json(c.batteryFloor); };
  s.write = [](Config& c, const json& v) -> Refusal {
    const auto n = readWholeIn(v, 0, 80);
    if (!n) return std::string("a percent from 0 to 80");
    if (*n < c.batteryFloor) return std::string("to be lowered in Vigilo itself (it can only be raised from here)");
    c.batteryFloor = *n;
    return std::nullopt;
  };
  return s;
}

SettingSpec ntfyTopicSpec(const std::string& topic) {
  SettingSpec s;
  s.key = "ntfy_topic";
  s.topic = topic;
  s.type = "string";
  s.description = "The ntfy.sh topic for phone alerts when work goes idle; empty turns them off.";
  s.read = [](const Config& c) { return json(c.ntfyTopic); };
  // A topic is where alerts about this Mac get published; only the person
  // picks it, in the app. From outside it can only be switched off.
  s.write = [](Config& c, const json& v) -> Refusal {
    const std::string* text = textOf(v);
    if (text == nullptr || text->find_first_not_of(" \t\r\n") != std::string::npos) {
      return std::string("to be set in Vigilo's Settings (commands can only turn it off)");
    }
    c.ntfyTopic.clear();
    return std::nullopt;
  };
  return s;
}

// The table, describing each setting in the machine's own words (the Mac's
// give the exact texts).
std::vector<SettingSpec> makeTable(const MachineWords& w) {
  const std::string& m = w.machine;
  std::vector<SettingSpec> t;
  std::string topic = "When to stay awake";
  t.push_back(modeSpec(topic));

  topic = "While the lid is closed";
  t.push_back(choice<Preset>(
      "preset", topic,
      "What happens to other apps with the lid shut. max_battery: pause them (music, calls and services agents use "
      "keep going). balanced: slow them to efficiency cores. full_speed: leave them.",
      {"max_battery", "balanced", "full_speed"}, &Config::preset, &parsePreset));
  t.push_back(toggle("pause_simulators", topic,
                     "Freeze booted iOS simulators and Xcode previews until the lid opens. Skipped while xcodebuild "
                     "or UI tests run.",
                     std::nullopt, &Config::pauseSimulators));
  t.push_back(toggle("screen_off", topic,
                     "Switch the built-in screen fully off while the lid is closed without sleeping it, so there is "
                     "no lock screen. Experimental: if macOS refuses, or locks the Mac anyway (some Macs do), Vigilo "
                     "switches back to the dark screen by itself and turns this off. Ignored when lock_on_close is on.",
                     std::nullopt, &Config::screenOffNoLock));
  t.push_back(toggle("shut_down_simulators", topic,
                     "Shut booted simulators down when the lid closes instead of pausing them. Frees all their memory "
                     "and power; they don't come back by themselves. Skipped while tests run.",
                     std::nullopt, &Config::shutDownSimulators));
  t.push_back(toggle("pause_background_audio", topic,
                     "Freeze background processes that hold the speakers open (keeps the audio hardware powered even "
                     "when silent). Music and call apps are never touched.",
                     std::nullopt, &Config::pauseBackgroundAudio));

  topic = "While asleep";
  t.push_back(checkInSpec(topic, m));
  t.push_back(toggle("slow_builds", topic,
                     "Experimental: run the agent's build tools (compilers, linkers, cargo, xcodebuild, make) on the "
                     "efficiency cores. Builds take several times longer; it saves power per second but not always "
                     "energy per build.",
                     std::nullopt, &Config::slowBuildsWhileClosed));
  t.push_back(toggle("pause_time_machine", topic,
                     "Pause Time Machine's automatic backups while the lid is closed (every file an agent changes "
                     "queues backup work); they switch back on when the lid opens.",
                     std::nullopt, &Config::pauseTimeMachine));
  t.push_back(toggle("low_power", topic,
                     "Turn on " + w.lowPower + " while the lid is closed; your setting comes back when it opens.",
                     std::nullopt, &Config::lowPowerWhileClosed));
  t.push_back(toggle("lock_on_close", topic,
                     "on: the screen turns fully off (the biggest single saving, but " + w.lockedOnOpen +
                         "). off: the screen stays on at zero brightness so there is no lock screen.",
                     "Ask the person before turning this on: it changes what they see when they open the lid.",
                     &Config::lockOnClose));

  topic = "Safety";
  t.push_back(batteryFloorSpec(topic));
  t.push_back(onlyTurnedOn(toggle("heat_guard", topic,
                                  "With the lid shut: strictest rules when the " + m +
                                      " gets hot, sleep if it stays hot for 5 minutes or gets critical.",
                                  "Can only be turned on from commands.", &Config::heatGuard),
                           &Config::heatGuard));
  t.push_back(onlyTurnedOn(toggle("only_on_power", topic, "Only stay awake while the charger is covering the load.",
                                  std::nullopt, &Config::onlyOnPower),
                           &Config::onlyOnPower));
  t.push_back(whole("quiet_minutes", topic, "In auto mode, sleep after an agent has been quiet this many minutes.",
                    &Config::quietMinutes, 1, 240, "a number of minutes from 1 to 240"));
  t.push_back(toggle("sleep_when_done", topic, "In auto mode, let the " + m + " sleep once the work stops.",
                     std::nullopt, &Config::sleepWhenDone));
  t.push_back(toggle("claude_app", topic, "Count the Claude app (Cowork, computer use) as an agent.", std::nullopt,
                     &Config::countClaudeApp));
  t.push_back(toggle("downloads", topic,
                     "Count apps that ask " + w.system + " to stay awake (downloads, exports, builds).", std::nullopt,
                     &Config::countRequests));

  topic = "Notifications";
  t.push_back(toggle("notify_done", topic, "Notification when an agent that was busy goes idle.", std::nullopt,
                     &Config::notifyDone));
  t.push_back(toggle("done_chime", topic, "Play a sound as well (audible with the lid shut).", std::nullopt,
                     &Config::doneChime));
  t.push_back(ntfyTopicSpec(topic));

  topic = "Appearance";
  t.push_back(choice<MenuBarText>("menubar", topic, "Text next to the " + w.tray + " icon.",
                                  {"none", "battery", "watts", "timeLeft", "timer"}, &Config::menuBarText,
                                  &parseMenuBarText));
  t.push_back(toggle("live_lid_icon", topic, "The " + w.tray + " icon's lid follows the real lid angle.", std::nullopt,
                     &Config::liveLidIcon));
  t.push_back(toggle("notch_island", topic, "Short announcements " + w.announcements + ".", std::nullopt,
                     &Config::notchIsland));
  t.push_back(toggle("show_in_dock", topic, "Show Vigilo in the Dock.", std::nullopt, &Config::showInDock));
  t.push_back(toggle("hotkey", topic, w.hotkeyKeys + " cycles the mode.", std::nullopt, &Config::hotkey));
  t.push_back(choice<Appearance>("appearance", topic, "Light, dark or match the system.", {"system", "light", "dark"},
                                 &Config::appearance, &parseAppearance));
  return t;
}

std::string normalised(std::string_view key) {
  std::string out(key);
  for (char& ch : out) {
    if (ch == '-') {
      ch = '_';
    } else if (ch >= 'A' && ch <= 'Z') {
      ch = static_cast<char>(ch - 'A' + 'a');
    }
  }
  return out;
}

json listsOf(const Config& config, const std::string& m) {
  json rules = json::object();
  for (const auto& [app, rule] : config.appRules) rules[app] = std::string(toText(rule));

  json apps = json::array();
  for (const auto& app : config.watchedApps) apps.push_back(app.name);

  json watched = json::array();
  for (const AgentKind& kind : builtInAgents()) watched.push_back(kind.name);
  if (config.countClaudeApp) watched.push_back(claudeAppKind().name);

  json custom = json::array();
  for (const auto& agent : config.customAgents) {
    custom.push_back({{"name", agent.name}, {"executables", agent.executables}, {"idle_watts", agent.idleWatts}});
  }

  return json::array({
      {{"name", "app_rules"},
       {"what", "Per-app override of the preset while the lid is closed."},
       {"how", "vigilo rule <app> leave|slow|pause|default  (MCP: vigilo_set_app_rule)"},
       {"items", std::move(rules)}},
      {{"name", "apps"},
       {"what", "Apps or tools that keep the " + m + " awake while busy."},
       {"how", "vigilo watch <app> / vigilo unwatch <app>  (MCP: vigilo_watch_app)"},
       {"items", std::move(apps)}},
      {{"name", "agents"},
       {"what", "Coding agents Vigilo knows by itself; each keeps the " + m + " awake while it works."},
       {"how", "built in; claude_app counts the Claude app, and the track request (agent, keeps) only tracks one"},
       {"items", std::move(watched)}},
      {{"name", "custom_agents"},
       {"what", "Command-line agents of your own that keep the " + m + " awake while they work."},
       {"how", "the agent request with name and executable  (MCP: vigilo_add_agent)"},
       {"items", std::move(custom)}},
      {{"name", "track_only"},
       {"what", "Agents that are tracked and shown but don't keep the " + m + " awake."},
       {"how", "the track request with agent and keeps (false: only track it), while that agent runs"},
       {"items", config.trackOnly}},
  });
}

}  // namespace

const std::vector<SettingSpec>& SettingsSchema::all() {
  static const std::vector<SettingSpec> table = makeTable(MachineWords{});
  return table;
}

const SettingSpec* SettingsSchema::spec(std::string_view key) {
  const std::string wanted = normalised(key);
  for (const SettingSpec& s : all()) {
    if (s.key == wanted) return &s;
  }
  return nullptr;
}

std::vector<std::string> SettingsSchema::keys() {
  std::vector<std::string> out;
  for (const SettingSpec& s : all()) out.push_back(s.key);
  return out;
}

std::string SettingsSchema::keyList() {
  std::string out;
  for (const SettingSpec& s : all()) {
    if (!out.empty()) out += ", ";
    out += s.key;
  }
  return out;
}

json SettingsSchema::describe(const Config& config, const std::string& configPath, const MachineWords& words) {
  json settings = json::array();
  for (const SettingSpec& s : makeTable(words)) {
    // A setting the machine lacks is still listed with its value (the file
    // may travel to a machine that has it); what it does here is nothing,
    // and the description says why.
    const std::string* lacking = words.lacks(s.key);
    json entry = {{"key", s.key},
                  {"topic", s.topic},
                  {"type", s.type},
                  {"value", s.read(config)},
                  {"allowed", s.allowed},
                  {"description", lacking ? *lacking : s.description},
                  {"note", s.note ? json(*s.note) : json(nullptr)}};
    if (lacking) entry["available"] = false;
    settings.push_back(std::move(entry));
  }
  return {{"settings", std::move(settings)},
          {"lists", listsOf(config, words.machine)},
          {"how", "vigilo set <key> <value>, MCP vigilo_set_setting, or edit config.json (camelCase keys, reloads "
                  "instantly)."},
          {"path", configPath}};
}

SettingsSchema::Change SettingsSchema::change(const Config& current, const std::string& key,
                                              const std::optional<json>& value) {
  Change out;
  out.config = current;
  if (key.empty()) {
    out.error = "needs key";
    return out;
  }

  // Not a setting: the override lives in the engine and only the app's own
  // window may allow it. Ending it from outside is fine; the caller does that.
  if (normalised(key) == kBelowFloorKey) {
    if (!value) {
      out.error = std::string(kBelowFloorKey) + " needs a value";
    } else if (const auto on = readBool(*value); !on) {
      out.error = std::string(kBelowFloorKey) + " needs " + std::string(kOnOrOff);
    } else if (*on) {
      out.error = "Going below the battery limit can only be allowed in Vigilo itself";
    } else {
      out.ok = true;
      out.endBelowFloor = true;
    }
    return out;
  }

  const SettingSpec* s = spec(key);
  if (s == nullptr) {
    out.error = "unknown setting " + key + ". Keys: " + keyList() + " (vigilo settings explains each)";
    return out;
  }
  if (!value) {
    out.error = s->key + " needs a value";
    return out;
  }
  Config changed = current;
  if (const Refusal refusal = s->write(changed, *value)) {
    out.error = s->key + " needs " + *refusal;
    return out;
  }
  out.ok = true;
  out.config = std::move(changed);
  return out;
}

}  // namespace vigilo
