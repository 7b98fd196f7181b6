#include "commands/settings_schema.h"

#include <cstdint>
#include <limits>
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

// The record a refused change must come back as: every safety setting on and
// a topic set, so each can be loosened.
Config strict() {
  Config c;
  c.batteryFloor = 20;
  c.heatGuard = true;
  c.onlyOnPower = true;
  c.ntfyTopic = "vigilo-alerts";
  return c;
}

Config applied(const Config& current, const std::string& key, const json& value) {
  const Change c = SettingsSchema::change(current, key, value);
  EXPECT_TRUE(c.ok) << key << " " << value.dump() << ": " << c.error;
  return c.config;
}

TEST(SettingsSchemaTableTest, KeysComeInTheirFixedOrderUnderTheirTopics) {
  using Groups = std::vector<std::pair<std::string, std::vector<std::string>>>;
  const Groups expected = {
      {"When to stay awake", {"mode"}},
      {"While the lid is closed",
       {"preset", "pause_simulators", "screen_off", "shut_down_simulators", "pause_background_audio"}},
      {"While asleep", {"check_in_minutes", "slow_builds", "pause_time_machine", "low_power", "lock_on_close"}},
      {"Safety",
       {"battery_floor", "heat_guard", "only_on_power", "quiet_minutes", "sleep_when_done", "claude_app",
        "downloads"}},
      {"Notifications", {"notify_done", "done_chime", "ntfy_topic"}},
      {"Appearance", {"menubar", "live_lid_icon", "notch_island", "show_in_dock", "hotkey", "appearance"}},
  };
  Groups actual;
  for (const SettingSpec& s : SettingsSchema::all()) {
    if (actual.empty() || actual.back().first != s.topic) actual.push_back({s.topic, {}});
    actual.back().second.push_back(s.key);
  }
  EXPECT_EQ(actual, expected);
  EXPECT_EQ(SettingsSchema::keyList(), kKeys);
  EXPECT_EQ(SettingsSchema::spec("menubar")->allowed,
            (std::vector<std::string>{"none", "battery", "watts", "timeLeft", "timer"}));
}

TEST(SettingsSchemaTableTest, KeysAreFoundWhateverTheCaseOrDashes) {
  for (const char* key : {"battery-floor", "Battery_Floor", "BATTERY-FLOOR"}) {
    ASSERT_NE(SettingsSchema::spec(key), nullptr) << key;
    EXPECT_EQ(SettingsSchema::spec(key)->key, "battery_floor");
  }
  for (const char* key : {"batteryFloor", "battery floor", "", "below_floor_allowed"}) {
    EXPECT_EQ(SettingsSchema::spec(key), nullptr) << key;
  }
}

TEST(SettingsSchemaTableTest, EachSwitchWritesItsOwnFieldOnly) {
  const std::vector<std::pair<std::string, bool Config::*>> switches = {
      {"pause_simulators", &Config::pauseSimulators},
      {"screen_off", &Config::screenOffNoLock},
      {"shut_down_simulators", &Config::shutDownSimulators},
      {"pause_background_audio", &Config::pauseBackgroundAudio},
      {"slow_builds", &Config::slowBuildsWhileClosed},
      {"pause_time_machine", &Config::pauseTimeMachine},
      {"low_power", &Config::lowPowerWhileClosed},
      {"lock_on_close", &Config::lockOnClose},
      {"heat_guard", &Config::heatGuard},
      {"only_on_power", &Config::onlyOnPower},
      {"sleep_when_done", &Config::sleepWhenDone},
      {"claude_app", &Config::countClaudeApp},
      {"downloads", &Config::countRequests},
      {"notify_done", &Config::notifyDone},
      {"done_chime", &Config::doneChime},
      {"live_lid_icon", &Config::liveLidIcon},
      {"notch_island", &Config::notchIsland},
      {"show_in_dock", &Config::showInDock},
      {"hotkey", &Config::hotkey},
  };
  Config allOff;
  for (const auto& [key, field] : switches) allOff.*field = false;
  for (const auto& [key, field] : switches) {
    Config expected = allOff;
    expected.*field = true;
    EXPECT_TRUE(applied(allOff, key, "on") == expected) << key;
  }
}

TEST(SettingsSchemaTableTest, WritingBackWhatWasReadChangesNothing) {
  Config config = strict();
  config.ntfyTopic.clear();  // a topic can't be set from outside, not even to itself
  config.menuBarText = MenuBarText::TimeLeft;
  config.checkInMinutes = 30;
  for (const SettingSpec& s : SettingsSchema::all()) {
    Config copy = config;
    EXPECT_EQ(s.write(copy, s.read(config)), std::nullopt) << s.key;
    EXPECT_TRUE(copy == config) << s.key;
  }
}

TEST(SettingsSchemaValueTest, SwitchesAndWholeNumbersParseLeniently) {
  struct Case {
    json value;
    std::optional<bool> asSwitch;   // nothing: refused
    std::optional<int> asMinutes;   // nothing: refused
  };
  const std::vector<Case> cases = {
      {true, true, {}},       {false, false, {}},     {"true", true, {}},
      {"false", false, {}},   {"on", true, {}},       {"off", false, {}},
      {0, false, {}},         {1, true, 1},           {"2", {}, 2},
      {30.0, true, 30},       {2.5, true, {}},        {241, true, {}},
      {"-3", {}, {}},         {"x", {}, {}},          {"7min", {}, {}},
      {" 7", {}, {}},         {"", {}, {}},           {json(), {}, {}},
      {1e300, true, {}},      {"99999999999999999999", {}, {}},
      {std::numeric_limits<std::uint64_t>::max(), true, {}},
      {std::numeric_limits<double>::quiet_NaN(), {}, {}},
  };
  const Config before;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value.dump());
    const Change sw = SettingsSchema::change(before, "show_in_dock", c.value);
    EXPECT_EQ(sw.ok ? std::optional(sw.config.showInDock) : std::nullopt, c.asSwitch);
    if (!sw.ok) {
      EXPECT_EQ(sw.error, "show_in_dock needs on or off");
    }
    const Change n = SettingsSchema::change(before, "quiet_minutes", c.value);
    EXPECT_EQ(n.ok ? std::optional(n.config.quietMinutes) : std::nullopt, c.asMinutes);
    if (!n.ok) {
      EXPECT_EQ(n.error, "quiet_minutes needs a number of minutes from 1 to 240");
    }
  }
}

TEST(SettingsSchemaChangeTest, RefusalsNameTheKeyAndLeaveTheRecordAlone) {
  const std::string kOnlyOn = " needs to be turned off in Vigilo's Settings (it can only be turned on from here)";
  const std::string kBelow = "Going below the battery limit can only be allowed in Vigilo itself";
  struct Case {
    std::string key;
    std::optional<json> value;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"battery_floor", 19, "battery_floor needs to be lowered in Vigilo itself (it can only be raised from here)"},
      {"battery_floor", 81, "battery_floor needs a percent from 0 to 80"},
      {"heat_guard", "off", "heat_guard" + kOnlyOn},
      {"only-on-power", 0, "only_on_power" + kOnlyOn},
      {"heat_guard", "maybe", "heat_guard needs on or off"},
      {"ntfy_topic", "abc", "ntfy_topic needs to be set in Vigilo's Settings (commands can only turn it off)"},
      {"ntfy_topic", 5, "ntfy_topic needs to be set in Vigilo's Settings (commands can only turn it off)"},
      {"mode", "sometimes", "mode needs auto, on or off"},
      {"mode", "always", "mode needs auto, on or off"},
      {"preset", "Balanced", "preset needs max_battery, balanced or full_speed"},
      {"menubar", "timeleft", "menubar needs none, battery, watts, timeLeft or timer"},
      {"appearance", true, "appearance needs system, light or dark"},
      {"check_in_minutes", 20, "check_in_minutes needs 0, 15, 30 or 60"},
      {"Lid-Mode", "on", "unknown setting Lid-Mode. Keys: " + kKeys + " (vigilo settings explains each)"},
      {"Battery-Floor", std::nullopt, "battery_floor needs a value"},
      {"", 1, "needs key"},
      {"below_floor_allowed", true, kBelow},
      {"Below-Floor-Allowed", "on", kBelow},
      {"below_floor_allowed", "please", "below_floor_allowed needs on or off"},
  };
  const Config before = strict();
  for (const Case& c : cases) {
    const Change out = SettingsSchema::change(before, c.key, c.value);
    EXPECT_FALSE(out.ok) << c.key;
    EXPECT_EQ(out.error, c.error);
    EXPECT_TRUE(out.config == before) << c.key;
    EXPECT_FALSE(out.endBelowFloor) << c.key;
  }
}

TEST(SettingsSchemaChangeTest, SafetySettingsMayBeMadeStricter) {
  Config loose = strict();
  loose.heatGuard = false;
  loose.onlyOnPower = false;
  EXPECT_EQ(applied(loose, "battery-floor", 25).batteryFloor, 25);
  EXPECT_EQ(applied(loose, "Battery_Floor", "30").batteryFloor, 30);
  EXPECT_EQ(applied(loose, "battery_floor", 20).batteryFloor, 20);
  EXPECT_TRUE(applied(loose, "heat_guard", "on").heatGuard);
  EXPECT_TRUE(applied(loose, "only_on_power", true).onlyOnPower);
  EXPECT_FALSE(applied(loose, "heat_guard", "off").heatGuard);  // already off: nothing loosened
  EXPECT_EQ(applied(loose, "ntfy_topic", "").ntfyTopic, "");
  EXPECT_EQ(applied(loose, "ntfy_topic", " \t").ntfyTopic, "");

  const Change end = SettingsSchema::change(loose, "below_floor_allowed", false);
  EXPECT_TRUE(end.ok);
  EXPECT_TRUE(end.endBelowFloor);
  EXPECT_TRUE(end.config == loose);
}

TEST(SettingsSchemaChangeTest, ModeOnMeansAlwaysUntilTurnedOff) {
  const Config always = applied(Config{}, "mode", "on");
  EXPECT_EQ(always.mode, Mode::On);
  EXPECT_EQ(always.modeBeforeAlways, Mode::Auto);

  // Given Always with an end time: "on" again drops the end time but still
  // knows where it came from; "off" forgets both.
  Config timed = always;
  timed.alwaysUntil = 1.7e9;
  const Config again = applied(timed, "mode", "on");
  EXPECT_FALSE(again.alwaysUntil);
  EXPECT_EQ(again.modeBeforeAlways, Mode::Auto);
  const Config off = applied(timed, "mode", "off");
  EXPECT_EQ(off.mode, Mode::Off);
  EXPECT_FALSE(off.modeBeforeAlways);
  EXPECT_FALSE(off.alwaysUntil);
}

TEST(SettingsSchemaDescribeTest, ShowsValuesNotesListsAndWhereToEdit) {
  Config config;
  config.batteryFloor = 30;
  config.appRules = {{"Slack", AppRule::Pause}};
  config.watchedApps = {{"ffmpeg"}};
  config.customAgents = {{"Mine", {"my-agent"}, 0.1}};
  config.trackOnly = {"Codex"};
  config.countClaudeApp = false;
  const json d = SettingsSchema::describe(config, "/home/u/.vigilo/config.json");

  ASSERT_EQ(d["settings"].size(), SettingsSchema::all().size());
  EXPECT_EQ(d["settings"][0], json::parse(R"js({"key": "mode", "topic": "When to stay awake", "type": "enum",
      "value": "auto", "allowed": ["auto", "on", "off"], "note": null, "description": "auto (shown as When Busy): awake only while an agent or watched app is working. on (Always): awake until turned off. off: normal sleep (explicit holds still work)."})js"));
  const json& floor = d["settings"][11];  // battery_floor
  EXPECT_EQ(floor["value"], 30);
  EXPECT_EQ(floor["note"], "Can only be raised from commands; lowering it is the person's call in Vigilo's Settings.");

  EXPECT_EQ(d["lists"], json::parse(R"js([
    {"name": "app_rules", "what": "Per-app override of the preset while the lid is closed.",
     "how": "vigilo rule <app> leave|slow|pause|default  (MCP: vigilo_set_app_rule)", "items": {"Slack": "pause"}},
    {"name": "apps", "what": "Apps or tools that keep the Mac awake while busy.",
     "how": "vigilo watch <app> / vigilo unwatch <app>  (MCP: vigilo_watch_app)", "items": ["ffmpeg"]},
    {"name": "agents", "what": "Coding agents Vigilo knows by itself; each keeps the Mac awake while it works.",
     "how": "built in; claude_app counts the Claude app, and the track request (agent, keeps) only tracks one",
     "items": ["Claude Code", "Codex", "Gemini CLI", "Cursor Agent", "OpenCode", "Aider", "Copilot CLI", "Amp",
               "Ollama"]},
    {"name": "custom_agents", "what": "Command-line agents of your own that keep the Mac awake while they work.",
     "how": "the agent request with name and executable  (MCP: vigilo_add_agent)",
     "items": [{"name": "Mine", "executables": ["my-agent"], "idle_watts": 0.1}]},
    {"name": "track_only", "what": "Agents that are tracked and shown but don't keep the Mac awake.",
     "how": "the track request with agent and keeps (false: only track it), while that agent runs",
     "items": ["Codex"]}])js"));
  EXPECT_EQ(d["how"],
            "vigilo set <key> <value>, MCP vigilo_set_setting, or edit config.json (camelCase keys, reloads instantly).");
  EXPECT_EQ(d["path"], "/home/u/.vigilo/config.json");
}

}  // namespace
}  // namespace vigilo
