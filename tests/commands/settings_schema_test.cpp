#include "commands/settings_schema.h"
#include "commands/in_app_change.h"

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace vigilo {
namespace {

using nlohmann::json;
using Change = SettingsSchema::Change;

const std::string kKeys =
    "mode, preset, pause_simulators, screen_off, shut_down_simulators, pause_background_audio, check_in_minutes, "
    "slow_builds, pause_time_machine, low_power, lock_on_close, battery_floor, heat_guard, only_on_power, "
    "quiet_minutes, sleep_when_done, claude_app, downloads, notify_done, done_chime, ntfy_topic, menubar, "
    "live_lid_icon, notch_island, show_in_dock, hotkey, appearance";

Config applied(const Config& current, const std::string& key, const json& value) {
  const Change c = SettingsSchema::change(current, key, value);
  EXPECT_TRUE(c.ok) << key << " " << value.dump() << ": " << c.error;
  return c.config;
}

TEST(SettingsSchemaTest, KeysAreFoundWhateverTheCaseAndEachReadsBackOnlyItsOwn) {
  const std::pair<const char*, const char*> lookups[] = {
      {"BATTERY-FLOOR", "battery_floor"}, {"batteryFloor", ""}, {"below_floor_allowed", ""}};
  for (const auto& [asked, found] : lookups) {
    EXPECT_EQ(SettingsSchema::spec(asked) ? SettingsSchema::spec(asked)->key : "", found) << asked;
  }
  // Each key reads back what it wrote, and a switch turned on changes only what its own key reads.
  Config base;  // every switch off, other values away from their defaults
  base.heatGuard = false;
  base.menuBarText = MenuBarText::TimeLeft;
  base.checkInMinutes = 30;
  for (const SettingSpec& s : SettingsSchema::all()) EXPECT_TRUE(s.type != "bool" || !s.write(base, false)) << s.key;
  for (const SettingSpec& s : SettingsSchema::all()) {
    SCOPED_TRACE(s.key);
    Config copy = base;
    EXPECT_EQ(s.write(copy, s.read(base)), std::nullopt);
    EXPECT_TRUE(copy == base);
    if (s.type != "bool") continue;
    const Config on = applied(base, s.key, "on");  // what this key alone reads changes
    for (const SettingSpec& other : SettingsSchema::all()) {
      EXPECT_EQ(other.read(on), &other == &s ? json(true) : other.read(base)) << other.key;
    }
  }
}

TEST(SettingsSchemaTest, SwitchesAndWholeNumbersParseLeniently) {
  // {value, as a switch, as minutes}; nothing: refused.
  const std::vector<std::tuple<json, std::optional<bool>, std::optional<int>>> cases = {
      {"false", false, {}}, {"on", true, {}}, {0, false, {}}, {"2", {}, 2}, {30.0, true, 30}, {2.5, true, {}},
      {241, true, {}}, {"7min", {}, {}}, {json(), {}, {}}, {"99999999999999999999", {}, {}},
      {std::numeric_limits<double>::quiet_NaN(), {}, {}}};
  for (const auto& [value, asSwitch, asMinutes] : cases) {
    SCOPED_TRACE(value.dump());
    const Change sw = SettingsSchema::change(Config{}, "show_in_dock", value);
    const Change n = SettingsSchema::change(Config{}, "quiet_minutes", value);
    EXPECT_EQ(sw.ok ? std::optional(sw.config.showInDock) : std::nullopt, asSwitch);
    EXPECT_EQ(n.ok ? std::optional(n.config.quietMinutes) : std::nullopt, asMinutes);
    EXPECT_EQ(sw.error, sw.ok ? "" : "show_in_dock needs on or off");
    EXPECT_EQ(n.error, n.ok ? "" : "quiet_minutes needs a number of minutes from 1 to 240");
  }
}

// Outside callers may only tighten safety; the panel's own controls, after
// a confirmation, may loosen it (true in the last column) but still check
// every value.
TEST(SettingsSchemaTest, ChangesOnlyTightenSafetyUnlessMadeInAppAndModeOnMeansAlways) {
  const std::string kOnlyOn = " needs to be turned off in Vigilo's Settings (it can only be turned on from here)";
  const std::vector<std::tuple<std::string, std::optional<json>, std::string, bool>> cases = {
      {"battery_floor", 14, "battery_floor needs to be lowered in Vigilo itself (it can only be raised from here)",
       true},
      {"battery_floor", 81, "battery_floor needs a percent from 0 to 80", false},
      {"only-on-power", 0, "only_on_power" + kOnlyOn, true},
      {"ntfy_topic", "abc", "ntfy_topic needs to be set in Vigilo's Settings (commands can only turn it off)", true},
      {"ntfy_topic", "a/b", "ntfy_topic needs to be set in Vigilo's Settings (commands can only turn it off)", false},
      {"menubar", "timeleft", "menubar needs none, battery, watts, timeLeft or timer", false},
      {"Lid-Mode", "on", "unknown setting Lid-Mode. Keys: " + kKeys + " (vigilo settings explains each)", false},
      {"Battery-Floor", std::nullopt, "battery_floor needs a value", false},
      {"Below-Floor-Allowed", "on", "Going below the battery limit can only be allowed in Vigilo itself", true},
      {"below_floor_allowed", "please", "below_floor_allowed needs on or off", false}};
  Config before;  // every safety setting on and a topic set, so each can be loosened
  before.onlyOnPower = true;
  before.ntfyTopic = "vigilo-alerts";
  for (const auto& [key, value, error, inApp] : cases) {
    SCOPED_TRACE(key + " " + (value ? value->dump() : "absent"));
    const Change out = SettingsSchema::change(before, key, value);
    EXPECT_EQ(out.error, error);
    EXPECT_FALSE(out.ok || out.endBelowFloor || !(out.config == before));
    const InAppChange panel = changeInApp(before, key, value);
    EXPECT_EQ(panel.change.ok, inApp) << panel.change.error;
    if (!inApp) {
      if (key != "ntfy_topic") {
        EXPECT_EQ(panel.change.error, error);
      }
      EXPECT_TRUE(panel.change.config == before && !panel.allowBelowFloor);
    }
  }
  EXPECT_EQ(changeInApp(before, "ntfy_topic", "a/b").change.error,
            "ntfy_topic needs letters, digits, - and _ only (at most 64)");
  // In the panel only the asked field moves.
  Config lowered = before;
  lowered.batteryFloor = 10;
  EXPECT_TRUE(changeInApp(before, "battery_floor", "10").change.config == lowered);
  EXPECT_EQ(changeInApp(before, "ntfy_topic", " vigilo-alerts_1 ").change.config.ntfyTopic, "vigilo-alerts_1");
  EXPECT_TRUE(changeInApp(before, "below_floor_allowed", true).allowBelowFloor);
  const InAppChange stop = changeInApp(before, "below_floor_allowed", false);
  EXPECT_TRUE(stop.change.endBelowFloor && !stop.allowBelowFloor);

  EXPECT_EQ(applied(before, "battery_floor", 15).batteryFloor, 15);
  EXPECT_EQ(applied(before, "ntfy_topic", " \t").ntfyTopic, "");
  const Change end = SettingsSchema::change(before, "below_floor_allowed", false);
  EXPECT_TRUE(end.ok && end.endBelowFloor && end.config == before);

  // "on" again drops an end time but remembers the mode before; "off" forgets both.
  Config timed = applied(Config{}, "mode", "on");
  timed.alwaysUntil = 1.7e9;
  const Config again = applied(timed, "mode", "on"), off = applied(timed, "mode", "off");
  EXPECT_TRUE(again.mode == Mode::On && !again.alwaysUntil && again.modeBeforeAlways == Mode::Auto);
  EXPECT_TRUE(off.mode == Mode::Off && !off.modeBeforeAlways && !off.alwaysUntil);
}

TEST(SettingsSchemaTest, DescribeShowsValuesNotesListsAndWhereToEdit) {
  Config config;
  config.batteryFloor = 30;
  config.appRules = {{"Slack", AppRule::Pause}};
  config.watchedApps = {{"ffmpeg"}};
  config.customAgents = {{"Mine", {"my-agent"}, 0.1}};
  config.trackOnly = {"Codex"};
  config.countClaudeApp = false;
  const json d = SettingsSchema::describe(config, "/home/u/.vigilo/config.json");
  ASSERT_EQ(d["settings"].size(), SettingsSchema::all().size());
  EXPECT_EQ(d["settings"][0]["allowed"], json::parse(R"(["auto", "on", "off"])"));
  EXPECT_EQ(d["settings"][11]["value"], 30);  // battery_floor
  EXPECT_EQ(d["settings"][11]["note"],
            "Can only be raised from commands; lowering it is the person's call in Vigilo's Settings.");
  json items = json::array();
  for (const json& list : d["lists"]) items.push_back(json::array({list["name"], list["items"]}));
  EXPECT_EQ(items, json::parse(R"js([["app_rules", {"Slack": "pause"}], ["apps", ["ffmpeg"]],
      ["agents", ["Claude Code", "Codex", "Gemini CLI", "Cursor Agent", "OpenCode", "Aider", "Copilot CLI", "Amp",
                  "Ollama"]], ["custom_agents", [{"name": "Mine", "executables": ["my-agent"], "idle_watts": 0.1}]],
      ["track_only", ["Codex"]]])js"));
  EXPECT_EQ(d["how"],
            "vigilo set <key> <value>, MCP vigilo_set_setting, or edit config.json (camelCase keys, reloads instantly).");
}

}  // namespace
}  // namespace vigilo
