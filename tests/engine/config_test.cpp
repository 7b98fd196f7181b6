#include "engine/config.h"

#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "test_support.h"

namespace vigilo {
namespace {

using nlohmann::json;
using test::TempDir;
using namespace std::string_literals;

Config read(const char* text) { return Config::fromJson(json::parse(text)); }

// Every key at a value other than its default, written as encoding writes it:
// a key that reading ignores or encoding misspells changes this object.
const json kEveryKeyChanged = json::parse(R"({
  "alwaysUntil": 1800003600.25, "appRules": {"Music": "slow", "Slack": "pause"}, "appearance": "dark",
  "batteryFloor": 30, "checkInMinutes": 30, "chimeSound": "Ping", "countClaudeApp": false,
  "countRequests": false, "customAgents": [{"name": "mybot", "executables": ["mybot", "mybotd"], "idleWatts": 0.25}],
  "doneChime": true, "heatGuard": false, "hotkey": false, "hotspotAutomatic": true, "liveLidIcon": false,
  "lockOnClose": true, "lowPowerWhileClosed": false, "menuBarText": "watts", "mode": "on",
  "modeBeforeAlways": "off", "notchIsland": true, "notifyDone": false, "ntfyTopic": "vigilo-été",
  "onlyOnPower": true, "pauseBackgroundAudio": false, "pauseSimulators": false, "pauseTimeMachine": true,
  "preset": "full_speed", "quietMinutes": 12, "screenOffNoLock": true, "showInDock": true,
  "shutDownSimulators": true, "sleepWhenDone": false, "slowBuildsWhileClosed": true, "trackOnly": ["claude"],
  "wakeAt": 1800090000.0, "wakeForMinutes": 90, "watchedApps": [{"name": "Xcode"}, {"name": "ffmpeg"}]
})");

TEST(ConfigTextTest, TextsRoundTripAndUnknownOrMiscasedTextGivesNothing) {
  auto roundTrip = [](auto parse, auto... values) {
    for (auto v : {values...}) EXPECT_EQ(parse(toText(v)), v);
  };
  roundTrip(parseMode, Mode::Off, Mode::Auto, Mode::On);
  roundTrip(parsePreset, Preset::MaxBattery, Preset::Balanced, Preset::FullSpeed);
  roundTrip(parseAppRule, AppRule::Leave, AppRule::Slow, AppRule::Pause);
  roundTrip(parseMenuBarText, MenuBarText::None, MenuBarText::Battery, MenuBarText::Timer, MenuBarText::TimeLeft,
            MenuBarText::Watts);
  roundTrip(parseAppearance, Appearance::System, Appearance::Light, Appearance::Dark);
  EXPECT_EQ((std::vector{displayName(Mode::Off), displayName(Mode::Auto), displayName(Mode::On)}),
            (std::vector<std::string_view>{"Off", "When Busy", "Always"}));
  EXPECT_FALSE(parseMode("ON") || parsePreset("maxBattery") || parseMenuBarText("timeleft") || parseAppRule("kill"));
}

TEST(ConfigReadTest, EachValueIsClampedOrElseFallsBackToItsDefault) {
  // {key, value in the file, value read ("null": left out)}. Huge numbers
  // saturate rather than wrap; an integral float is that integer, a fraction
  // is the wrong type; the check-in takes only its four choices.
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"quietMinutes", "0", "1"},        {"quietMinutes", "1e300", "240"},      {"quietMinutes", "-1e300", "1"},
      {"quietMinutes", "30.0", "30"},    {"quietMinutes", "20.7", "5"},         {"quietMinutes", R"("10")", "5"},
      {"batteryFloor", "95", "80"},      {"batteryFloor", "0", "0"},            {"wakeForMinutes", "2", "5"},
      {"wakeForMinutes", "4294967336", "1440"},  // 2^32 + 40
      {"checkInMinutes", "4294967311", "0"},     // 2^32 + 15
      {"checkInMinutes", "20", "0"},     {"checkInMinutes", "15.0", "15"},      {"checkInMinutes", "60", "60"},
      {"batteryFloor", "18446744073709551615", "80"},   {"mode", R"("sometimes")", R"("auto")"},
      {"heatGuard", R"("yes")", "true"}, {"chimeSound", "3", R"("Glass")"},
      // Returning from "Always" to "Always" would leave no way back.
      {"modeBeforeAlways", R"("on")", "null"}, {"modeBeforeAlways", R"("off")", R"("off")"},
      {"alwaysUntil", "0", "null"},      {"wakeAt", R"("tomorrow")", "null"},
  };
  for (const auto& [key, value, expected] : rows) {
    SCOPED_TRACE(std::string(key) + ": " + value);
    const json out = Config::fromJson(json{{key, json::parse(value)}}).toJson();
    EXPECT_EQ(out.contains(key) ? out.at(key) : json(), json::parse(expected));
  }
  // Built in code: JSON text cannot spell infinity.
  EXPECT_FALSE(Config::fromJson(json{{"alwaysUntil", std::numeric_limits<double>::infinity()}}).alwaysUntil);
  // The topic is cut to 64 characters, never inside one ("é" is two bytes).
  std::string accented;
  for (int i = 0; i < 70; ++i) accented += "\xC3\xA9";
  EXPECT_EQ(Config::fromJson(json{{"ntfyTopic", accented}}).ntfyTopic, accented.substr(0, 128));
}

TEST(ConfigReadTest, BadEntriesAreSkippedAndTheGoodKeysKept) {
  const Config c = read(R"({
    "heatGuard": "yes", "batteryFloor": 40, "onlyOnPower": true, "mode": "off",
    "watchedApps": [{"name": "Xcode"}, "ffmpeg", {"nom": "x"}, {"name": 4}, 7, null, {"name": ""}],
    "customAgents": [
      {"name": "mybot", "executables": ["mybot", 3, "mybot-worker"], "idleWatts": 0.2}, {"name": "plain"},
      {"executables": ["nameless"]}, {"name": "odd", "executables": "notalist", "idleWatts": "high"},
      {"name": "neg", "idleWatts": -1}, "bare"
    ],
    "appRules": {"Slack": "pause", "Music": "slow", "Mail": "explode", "Zoom": 2},
    "trackOnly": ["claude", 5, null, "codex"]
  })");
  Config expected;
  expected.batteryFloor = 40;
  expected.onlyOnPower = true;
  expected.mode = Mode::Off;
  expected.watchedApps = {{"Xcode"}, {"ffmpeg"}};
  expected.customAgents = {{"mybot", {"mybot", "mybot-worker"}, 0.2}, {"plain", {}}, {"odd", {}}, {"neg", {}}};
  expected.appRules = {{"Music", AppRule::Slow}, {"Slack", AppRule::Pause}};
  expected.trackOnly = {"claude", "codex"};
  EXPECT_EQ(c, expected);

  EXPECT_EQ(read(R"({"watchedApps": {"name": "X"}, "appRules": ["pause"], "trackOnly": "claude", "customAgents": 3})"),
            Config{});
  for (const char* text : {"null", "[{\"mode\": \"on\"}]"}) EXPECT_EQ(Config::fromJson(json::parse(text)), Config{});
}

TEST(ConfigDecodeTest, RejectsNonObjectsAndSurvivesDeepOrHugeInput) {
  for (const std::string& bytes : {""s, R"({"mode": "on")"s, "[1, 2]"s, "{} {}"s, "{\"a\": \"\xff\"}"s,
                                    std::string(100000, '[')}) {
    EXPECT_FALSE(Config::decode(bytes)) << bytes.substr(0, 20);
  }
  auto deep = Config::decode("{\"watchedApps\": " + std::string(100000, '[') + std::string(100000, ']') +
                             ", \"quietMinutes\": 9}");
  ASSERT_TRUE(deep);
  EXPECT_TRUE(deep->watchedApps.empty());
  EXPECT_EQ(deep->quietMinutes, 9);

  std::string bytes = "{\"trackOnly\": [";
  for (int i = 0; i < 200000; ++i) bytes += "\"tool\",";
  auto huge = Config::decode(bytes + "\"last\"], \"mode\": \"on\"}");
  ASSERT_TRUE(huge);
  EXPECT_EQ(huge->trackOnly.size(), 200001u);
  EXPECT_EQ(huge->mode, Mode::On);
}

TEST(ConfigEncodeTest, EveryKeyReadsAndWritesUnderItsOwnNameAndAbsentOptionalsAreLeftOut) {
  Config c = Config::fromJson(kEveryKeyChanged);
  EXPECT_EQ(c.toJson(), kEveryKeyChanged);
  EXPECT_EQ(Config::decode(c.encoded()), c);
  // Pretty-printed, sorted keys, so hand edits and diffs stay readable.
  const std::string text = c.encoded();
  EXPECT_EQ(text.rfind("{\n  \"alwaysUntil\": 1800003600.25,\n  \"appRules\": {\n    \"Music\": \"slow\",", 0), 0u)
      << text;

  const json j = json::parse(Config{}.encoded());
  EXPECT_EQ(Config::fromJson(j), Config{});
  for (const char* key : {"alwaysUntil", "modeBeforeAlways", "wakeAt"}) EXPECT_FALSE(j.contains(key)) << key;
  EXPECT_EQ(std::tuple(j.at("customAgents"), j.at("appRules")), std::tuple(json::array(), json::object()));
  c.chimeSound = "bad\xff";  // set in code, never checked
  EXPECT_TRUE(Config::decode(c.encoded()));
}

TEST(ConfigMergeTest, FileKeysAreReadAsUsualAndMissingOnesKeepCurrentValues) {
  const Config current = Config::fromJson(kEveryKeyChanged);
  Config expected = current;
  expected.preset = Preset::MaxBattery;
  EXPECT_EQ(current.mergedWith(json::parse(R"({"preset": "max_battery"})")), expected);
  const Config merged = current.mergedWith(
      json::parse(R"({"quietMinutes": 0, "mode": "bogus", "alwaysUntil": -1, "trackOnly": [1, "codex"]})"));
  expected = current;
  expected.quietMinutes = 1;
  expected.mode = Mode::Auto;  // a bad value gives the default, not the current value
  expected.alwaysUntil.reset();  // which leaves "Always" and its end time
  expected.modeBeforeAlways.reset();
  expected.trackOnly = {"codex"};
  EXPECT_EQ(merged, expected);
  EXPECT_EQ(current.mergedWith(json::parse("[1, 2]")), current);

  // A complete record written by Vigilo itself: a missing optional key is off.
  expected = current;
  expected.alwaysUntil.reset();
  expected.modeBeforeAlways.reset();
  expected.wakeAt.reset();
  EXPECT_EQ(current.mergedWith(json::parse(R"({"mode": "on"})"), true), expected);
}

TEST(ConfigSetAsideTest, OnlyABrokenFileIsCopiedUnderTheTimeOfDay) {
  TempDir dir;
  const StateFiles files{dir.path()};
  EXPECT_FALSE(setAsideIfBroken(files, 5)) << "no file";
  struct Row { std::string content; double now; std::optional<std::string> copy; };
  const Row rows[] = {
      {"this is not json", 1800000123.9, "config.broken-1800000123.json"},
      {"[{\"mode\": \"on\"}]", 5, "config.broken-5.json"},
      {"{\"mode\": 42}", 8, std::nullopt},  // odd values, but an object
      {"x", std::numeric_limits<double>::quiet_NaN(), "config.broken-0.json"},
      {"y", 1e300, "config.broken-9223372036854775807.json"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.content);
    test::writeFile(dir.file("config.json"), row.content);
    EXPECT_EQ(setAsideIfBroken(files, row.now), row.copy);
    EXPECT_EQ(test::readFile(dir.file(row.copy.value_or("none"))), row.copy ? row.content : "");
    EXPECT_EQ(test::readFile(dir.file("config.json")), row.content) << "the file itself stays";
  }
}

TEST(SafetyFileTest, SavedBaselineLoadsBackAndOddFilesAreReadLeniently) {
  TempDir dir;
  const StateFiles files{dir.path()};
  EXPECT_FALSE(Safety::load(files));
  ASSERT_TRUE((Safety{false, 42, true}.save(files)));
  EXPECT_EQ(Safety::load(files), (Safety{false, 42, true}));
  EXPECT_EQ(json::parse(test::readFile(dir.file("safety.json"))),
            (json{{"heatGuard", false}, {"batteryFloor", 42}, {"onlyOnPower", true}}));

  const std::pair<const char*, std::optional<Safety>> rows[] = {
      {"[true, 15, false]", std::nullopt},
      {R"({"heatGuard": "off", "batteryFloor": 500, "onlyOnPower": true})", Safety{true, 80, true}},
      {R"({"heatGuard": false, "batteryFloor": "50"})", Safety{false, 15, false}},
  };
  for (const auto& [text, expected] : rows) {
    test::writeFile(dir.file("safety.json"), text);
    EXPECT_EQ(Safety::load(files), expected) << text;
  }
}

TEST(SafetyCheckTest, LooseningsAreUndoneAndNamedAndTighteningsBecomeTheBaseline) {
  auto with = [](const Safety& s) {  // mode On: fields beyond the three pass through untouched
    return Config::fromJson({{"mode", "on"}, {"heatGuard", s.heatGuard}, {"batteryFloor", s.batteryFloor},
                             {"onlyOnPower", s.onlyOnPower}});
  };
  // The stored baseline is always the safety the record is left with.
  struct Row { Safety file, baseline; std::vector<std::string> phrases; Safety kept; };
  const Row rows[] = {
      {{false, 5, false}, {true, 30, true},
       {"the heat guard stays on", "the battery limit stays at 30%", "it still only stays awake on power"},
       {true, 30, true}},
      {{true, 0, false}, {true, 15, false}, {"the battery limit stays at 15%"}, {true, 15, false}},
      {{true, 25, true}, {false, 15, false}, {}, {true, 25, true}},
      {{false, 40, false}, {true, 15, false}, {"the heat guard stays on"}, {true, 40, false}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(::testing::PrintToString(row.phrases));
    const SafetyVerdict v = checkSafety(with(row.file), row.baseline);
    EXPECT_EQ(v.phrases, row.phrases);
    EXPECT_EQ(v.config, with(row.kept));
    EXPECT_EQ(v.baseline, row.kept);
    EXPECT_EQ(v.baselineChanged, row.kept != row.baseline);
    EXPECT_EQ(v.message().empty(), row.phrases.empty());
  }

  EXPECT_EQ(checkSafety(with(rows[0].file), rows[0].baseline).message(),
            "Safety settings can only be loosened in Vigilo itself: the heat guard stays on and the battery limit "
            "stays at 30% and it still only stays awake on power");
}

}  // namespace
}  // namespace vigilo
