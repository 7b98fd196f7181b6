#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "engine/state_files.h"
#include "platform/clock.h"

namespace vigilo {

enum class Mode { Off, Auto, On };
enum class Preset { MaxBattery, Balanced, FullSpeed };
enum class AppRule { Leave, Slow, Pause };
enum class MenuBarText { None, Battery, Timer, TimeLeft, Watts };
enum class Appearance { System, Light, Dark };

// Text values as stored ("off", "auto", "on", ...), and back. Parsing an
// unknown text gives nothing.
std::string_view toText(Mode m);
std::string_view toText(Preset p);
std::string_view toText(AppRule r);
std::string_view toText(MenuBarText t);
std::string_view toText(Appearance a);
std::optional<Mode> parseMode(std::string_view s);
std::optional<Preset> parsePreset(std::string_view s);
std::optional<AppRule> parseAppRule(std::string_view s);
std::optional<MenuBarText> parseMenuBarText(std::string_view s);
std::optional<Appearance> parseAppearance(std::string_view s);
// "When Busy", "Always", "Off": how a mode is shown.
std::string_view displayName(Mode m);

// An app or tool that keeps the machine awake while it is busy.
struct WatchedApp {
  std::string name;
  bool operator==(const WatchedApp&) const = default;
};

// A command-line agent of the user's own.
struct CustomAgent {
  std::string name;
  std::vector<std::string> executables;
  double idleWatts = 0.05;
  bool operator==(const CustomAgent&) const = default;
};

// Every user setting, stored as "config.json" with these field names as keys.
struct Config {
  Mode mode = Mode::Auto;
  Preset preset = Preset::Balanced;
  bool lowPowerWhileClosed = true;
  bool sleepWhenDone = true;
  int quietMinutes = 5;          // 1 ... 240
  int batteryFloor = 15;         // 0 ... 80; 0 switches the limit off
  bool heatGuard = true;
  bool onlyOnPower = false;
  bool countClaudeApp = true;
  bool countRequests = true;
  std::vector<WatchedApp> watchedApps;
  std::map<std::string, AppRule> appRules;
  std::vector<CustomAgent> customAgents;
  MenuBarText menuBarText = MenuBarText::None;
  bool notchIsland = false;
  bool showInDock = false;
  bool hotkey = true;
  Appearance appearance = Appearance::System;
  bool notifyDone = true;
  bool doneChime = false;
  std::string chimeSound = "Glass";
  std::string ntfyTopic;         // at most 64 characters
  bool lockOnClose = false;
  bool pauseSimulators = true;
  bool pauseBackgroundAudio = true;
  bool screenOffNoLock = false;
  bool shutDownSimulators = false;
  std::vector<std::string> trackOnly;
  bool liveLidIcon = true;
  std::optional<Time> alwaysUntil;         // finite and > 0
  std::optional<Mode> modeBeforeAlways;    // never Mode::On
  int checkInMinutes = 0;                  // 0, 15, 30 or 60
  std::optional<Time> wakeAt;              // finite and > 0
  int wakeForMinutes = 30;                 // 5 ... 1440
  bool slowBuildsWhileClosed = false;
  bool pauseTimeMachine = false;
  bool hotspotAutomatic = false;

  bool operator==(const Config&) const = default;

  // Reads a record leniently, key by key: a key that is missing, of the
  // wrong type or of an unknown value keeps its default, and the clamps and
  // rules apply. Never throws; a value that is not an object gives defaults.
  static Config fromJson(const nlohmann::json& j);
  // Parses bytes; nothing when they are not a JSON object.
  static std::optional<Config> decode(std::string_view bytes);
  nlohmann::json toJson() const;
  // Pretty-printed JSON with sorted keys; absent optionals are left out.
  std::string encoded() const;

  // This record with the keys of `fileObject` laid over it: keys missing from
  // the file keep this record's values, not the defaults, so a hand edit
  // never drops a timed "Always" or a scheduled wake it did not name (null
  // clears one). `whole` says the file is a complete record written by
  // Vigilo itself, where a missing optional key means that setting is off.
  // Outside mode "on", `alwaysUntil` and `modeBeforeAlways` are dropped.
  Config mergedWith(const nlohmann::json& fileObject, bool whole = false) const;
};

// "config.json", "safety.json".
inline constexpr std::string_view kConfigFile = "config.json";
inline constexpr std::string_view kSafetyFile = "safety.json";

// When "config.json" exists but is not a JSON object, copies it to
// "config.broken-<n>.json" (n: whole seconds since 1970 at `now`), leaving
// the file itself in place, and returns the copy's name.
std::optional<std::string> setAsideIfBroken(const StateFiles& files, Time now);

// The safety baseline: the three safety values last set from within the app.
struct Safety {
  bool heatGuard = true;
  int batteryFloor = 15;
  bool onlyOnPower = false;
  bool operator==(const Safety&) const = default;

  static Safety of(const Config& c) { return {c.heatGuard, c.batteryFloor, c.onlyOnPower}; }
  // Reads "safety.json"; nothing when it is missing or not a JSON object.
  // Wrong-typed keys take the defaults above.
  static std::optional<Safety> load(const StateFiles& files);
  bool save(const StateFiles& files) const;
};

// The outcome of laying a record against the safety baseline.
struct SafetyVerdict {
  // One phrase per loosening, in order ("the heat guard stays on", ...).
  std::vector<std::string> phrases;
  // The record with every loosening undone.
  Config config;
  // The baseline to store: the old one, or the record's values when they are
  // stricter.
  Safety baseline;
  bool baselineChanged = false;
  // "Safety settings can only be loosened in Vigilo itself: " + phrases
  // joined with " and "; empty when nothing was loosened.
  std::string message() const;
};
SafetyVerdict checkSafety(const Config& config, const Safety& baseline);

}  // namespace vigilo
