#include "engine/config.h"

#include <string>

#include <gtest/gtest.h>

#include "test_support.h"

namespace vigilo {
namespace {

using nlohmann::json;
using test::TempDir;

Config read(const char* text) { return Config::fromJson(json::parse(text)); }

// --- Enumerations ----------------------------------------------------------

TEST(ConfigTextTest, EveryValueRoundTripsThroughItsText) {
  for (Mode m : {Mode::Off, Mode::Auto, Mode::On}) EXPECT_EQ(parseMode(toText(m)), m);
  for (Preset p : {Preset::MaxBattery, Preset::Balanced, Preset::FullSpeed}) EXPECT_EQ(parsePreset(toText(p)), p);
  for (AppRule r : {AppRule::Leave, AppRule::Slow, AppRule::Pause}) EXPECT_EQ(parseAppRule(toText(r)), r);
  for (MenuBarText t : {MenuBarText::None, MenuBarText::Battery, MenuBarText::Timer, MenuBarText::TimeLeft,
                        MenuBarText::Watts}) {
    EXPECT_EQ(parseMenuBarText(toText(t)), t);
  }
  for (Appearance a : {Appearance::System, Appearance::Light, Appearance::Dark}) {
    EXPECT_EQ(parseAppearance(toText(a)), a);
  }
}

TEST(ConfigTextTest, StoredTextsAreTheDocumentedOnes) {
  EXPECT_EQ(toText(Preset::MaxBattery), "max_battery");
  EXPECT_EQ(toText(Preset::FullSpeed), "full_speed");
  EXPECT_EQ(toText(MenuBarText::TimeLeft), "timeLeft");
  EXPECT_EQ(toText(Appearance::System), "system");
  EXPECT_EQ(displayName(Mode::Off), "Off");
  EXPECT_EQ(displayName(Mode::Auto), "When Busy");
  EXPECT_EQ(displayName(Mode::On), "Always");
}

TEST(ConfigTextTest, UnknownOrMiscasedTextGivesNothing) {
  EXPECT_FALSE(parseMode("ON"));
  EXPECT_FALSE(parseMode(""));
  EXPECT_FALSE(parsePreset("maxBattery"));
  EXPECT_FALSE(parseMenuBarText("timeleft"));
  EXPECT_FALSE(parseAppRule("kill"));
  EXPECT_FALSE(parseAppearance("auto"));
}

// --- Reading ---------------------------------------------------------------

TEST(ConfigReadTest, NumbersAreClampedToTheirRanges) {
  EXPECT_EQ(read(R"({"quietMinutes": 0})").quietMinutes, 1);
  EXPECT_EQ(read(R"({"quietMinutes": 999})").quietMinutes, 240);
  EXPECT_EQ(read(R"({"batteryFloor": 95})").batteryFloor, 80);
  EXPECT_EQ(read(R"({"batteryFloor": -5})").batteryFloor, 0);
  EXPECT_EQ(read(R"({"batteryFloor": 0})").batteryFloor, 0);
  EXPECT_EQ(read(R"({"wakeForMinutes": 2})").wakeForMinutes, 5);
  EXPECT_EQ(read(R"({"wakeForMinutes": 5000})").wakeForMinutes, 1440);
}

TEST(ConfigReadTest, HugeNumbersClampWithoutOverflow) {
  EXPECT_EQ(read(R"({"quietMinutes": 1e300})").quietMinutes, 240);
  EXPECT_EQ(read(R"({"quietMinutes": -1e300})").quietMinutes, 1);
  EXPECT_EQ(read(R"({"batteryFloor": 18446744073709551615})").batteryFloor, 80);
  EXPECT_EQ(read(R"({"wakeForMinutes": 4294967336})").wakeForMinutes, 1440);  // 2^32 + 40
  EXPECT_EQ(read(R"({"checkInMinutes": 4294967311})").checkInMinutes, 0);     // 2^32 + 15
}

TEST(ConfigReadTest, IntegralFloatsCountAsIntegersFractionsAsWrongType) {
  EXPECT_EQ(read(R"({"quietMinutes": 30.0})").quietMinutes, 30);
  EXPECT_EQ(read(R"({"checkInMinutes": 15.0})").checkInMinutes, 15);
  EXPECT_EQ(read(R"({"quietMinutes": 20.7})").quietMinutes, 5);
  EXPECT_EQ(read(R"({"batteryFloor": 0.5})").batteryFloor, 15);
}

TEST(ConfigReadTest, CheckInMinutesAcceptsOnlyItsFourChoices) {
  EXPECT_EQ(read(R"({"checkInMinutes": 20})").checkInMinutes, 0);
  EXPECT_EQ(read(R"({"checkInMinutes": -15})").checkInMinutes, 0);
  EXPECT_EQ(read(R"({"checkInMinutes": 15})").checkInMinutes, 15);
  EXPECT_EQ(read(R"({"checkInMinutes": 30})").checkInMinutes, 30);
  EXPECT_EQ(read(R"({"checkInMinutes": 60})").checkInMinutes, 60);
}

TEST(ConfigReadTest, UnknownEnumTextsKeepTheirDefaults) {
  Config c = read(R"({"mode": "sometimes", "preset": "turbo", "menuBarText": "clock", "appearance": 1})");
  EXPECT_EQ(c.mode, Mode::Auto);
  EXPECT_EQ(c.preset, Preset::Balanced);
  EXPECT_EQ(c.menuBarText, MenuBarText::None);
  EXPECT_EQ(c.appearance, Appearance::System);
}

TEST(ConfigReadTest, ModeBeforeAlwaysOnReadsAsAbsent) {
  EXPECT_FALSE(read(R"({"modeBeforeAlways": "on"})").modeBeforeAlways);
  EXPECT_FALSE(read(R"({"modeBeforeAlways": "later"})").modeBeforeAlways);
  EXPECT_EQ(read(R"({"modeBeforeAlways": "off"})").modeBeforeAlways, Mode::Off);
}

TEST(ConfigReadTest, TimesAreKeptOnlyWhenPositive) {
  EXPECT_EQ(read(R"({"alwaysUntil": 1800000000.5})").alwaysUntil, 1800000000.5);
  EXPECT_EQ(read(R"({"wakeAt": 1800000000})").wakeAt, 1800000000.0);
  EXPECT_FALSE(read(R"({"alwaysUntil": 0})").alwaysUntil);
  EXPECT_FALSE(read(R"({"wakeAt": -3})").wakeAt);
  EXPECT_FALSE(read(R"({"wakeAt": "tomorrow"})").wakeAt);
  // Built in code rather than parsed: JSON text cannot spell infinity.
  EXPECT_FALSE(Config::fromJson(json{{"alwaysUntil", std::numeric_limits<double>::infinity()}}).alwaysUntil);
}

TEST(ConfigReadTest, NtfyTopicIsCutToSixtyFourCharacters) {
  const std::string longTopic(100, 'a');
  EXPECT_EQ(Config::fromJson(json{{"ntfyTopic", longTopic}}).ntfyTopic, std::string(64, 'a'));

  // "é" is two bytes: the cut counts characters and never splits one.
  std::string accented;
  for (int i = 0; i < 70; ++i) accented += "\xC3\xA9";
  const std::string topic = Config::fromJson(json{{"ntfyTopic", accented}}).ntfyTopic;
  EXPECT_EQ(topic, accented.substr(0, 128));

  const std::string exact(64, 'b');
  EXPECT_EQ(Config::fromJson(json{{"ntfyTopic", exact}}).ntfyTopic, exact);
}

TEST(ConfigReadTest, WrongTypeInOneKeyKeepsTheOthers) {
  Config c = read(R"({
    "heatGuard": "yes", "quietMinutes": "10", "batteryFloor": 40,
    "onlyOnPower": true, "chimeSound": 3, "mode": "off", "sleepWhenDone": 1
  })");
  EXPECT_TRUE(c.heatGuard);
  EXPECT_EQ(c.quietMinutes, 5);
  EXPECT_EQ(c.chimeSound, "Glass");
  EXPECT_TRUE(c.sleepWhenDone);
  EXPECT_EQ(c.batteryFloor, 40);
  EXPECT_TRUE(c.onlyOnPower);
  EXPECT_EQ(c.mode, Mode::Off);
}

TEST(ConfigReadTest, ListsSkipMalformedEntries) {
  Config c = read(R"({
    "watchedApps": [{"name": "Xcode"}, "ffmpeg", {"nom": "x"}, {"name": 4}, 7, null, {"name": ""}],
    "customAgents": [
      {"name": "mybot", "executables": ["mybot", 3, "mybot-worker"], "idleWatts": 0.2},
      {"name": "plain"},
      {"executables": ["nameless"]},
      {"name": "odd", "executables": "notalist", "idleWatts": "high"},
      "bare"
    ],
    "appRules": {"Slack": "pause", "Music": "slow", "Mail": "explode", "Zoom": 2},
    "trackOnly": ["claude", 5, null, "codex"]
  })");
  EXPECT_EQ(c.watchedApps, (std::vector<WatchedApp>{{"Xcode"}, {"ffmpeg"}}));
  ASSERT_EQ(c.customAgents.size(), 3u);
  EXPECT_EQ(c.customAgents[0], (CustomAgent{"mybot", {"mybot", "mybot-worker"}, 0.2}));
  EXPECT_EQ(c.customAgents[1], (CustomAgent{"plain", {}, 0.05}));
  EXPECT_EQ(c.customAgents[2], (CustomAgent{"odd", {}, 0.05}));
  EXPECT_EQ(c.appRules, (std::map<std::string, AppRule>{{"Music", AppRule::Slow}, {"Slack", AppRule::Pause}}));
  EXPECT_EQ(c.trackOnly, (std::vector<std::string>{"claude", "codex"}));
}

TEST(ConfigReadTest, ListKeysOfTheWrongShapeGiveEmptyLists) {
  Config c = read(R"({"watchedApps": {"name": "Xcode"}, "appRules": ["pause"], "trackOnly": "claude",
                      "customAgents": 3})");
  EXPECT_TRUE(c.watchedApps.empty());
  EXPECT_TRUE(c.appRules.empty());
  EXPECT_TRUE(c.trackOnly.empty());
  EXPECT_TRUE(c.customAgents.empty());
}

TEST(ConfigReadTest, ValuesThatAreNotObjectsGiveDefaults) {
  for (const char* text : {"null", "[]", "[{\"mode\": \"on\"}]", "\"mode\"", "42", "true"}) {
    EXPECT_EQ(Config::fromJson(json::parse(text)), Config{}) << text;
  }
}

// --- Decoding bytes --------------------------------------------------------

TEST(ConfigDecodeTest, RejectsBytesThatAreNotAJsonObject) {
  for (std::string bytes : {std::string(), std::string("   "), std::string("{\"mode\": \"on\""),
                            std::string("mode = on"), std::string("[1, 2]"), std::string("\"{}\""),
                            std::string("{} {}"), std::string("\x00\xff\xfe{", 4), std::string("{\"a\": \"\xff\"}")}) {
    EXPECT_FALSE(Config::decode(bytes)) << bytes;
  }
}

TEST(ConfigDecodeTest, SurvivesDeepNesting) {
  const std::string deepArray(100000, '[');
  EXPECT_FALSE(Config::decode(deepArray));

  std::string closedDeep = "{\"watchedApps\": " + std::string(100000, '[') + std::string(100000, ']') +
                           ", \"quietMinutes\": 9}";
  auto c = Config::decode(closedDeep);
  ASSERT_TRUE(c);
  EXPECT_TRUE(c->watchedApps.empty());
  EXPECT_EQ(c->quietMinutes, 9);
}

TEST(ConfigDecodeTest, ReadsAHugeFile) {
  std::string bytes = "{\"trackOnly\": [";
  for (int i = 0; i < 200000; ++i) bytes += "\"tool\",";
  bytes += "\"last\"], \"mode\": \"on\"}";
  auto c = Config::decode(bytes);
  ASSERT_TRUE(c);
  EXPECT_EQ(c->trackOnly.size(), 200001u);
  EXPECT_EQ(c->mode, Mode::On);
}

// --- Encoding --------------------------------------------------------------

Config everythingChanged() {
  Config c;
  c.mode = Mode::On;
  c.preset = Preset::FullSpeed;
  c.lowPowerWhileClosed = false;
  c.sleepWhenDone = false;
  c.quietMinutes = 12;
  c.batteryFloor = 30;
  c.heatGuard = false;
  c.onlyOnPower = true;
  c.countClaudeApp = false;
  c.countRequests = false;
  c.watchedApps = {{"Xcode"}, {"ffmpeg"}};
  c.appRules = {{"Slack", AppRule::Pause}, {"Music", AppRule::Slow}};
  c.customAgents = {{"mybot", {"mybot", "mybotd"}, 0.25}};
  c.menuBarText = MenuBarText::Watts;
  c.notchIsland = true;
  c.showInDock = true;
  c.hotkey = false;
  c.appearance = Appearance::Dark;
  c.notifyDone = false;
  c.doneChime = true;
  c.chimeSound = "Ping";
  c.ntfyTopic = "vigilo-\xC3\xA9t\xC3\xA9";
  c.lockOnClose = true;
  c.pauseSimulators = false;
  c.pauseBackgroundAudio = false;
  c.screenOffNoLock = true;
  c.shutDownSimulators = true;
  c.trackOnly = {"claude"};
  c.liveLidIcon = false;
  c.alwaysUntil = 1800003600.25;
  c.modeBeforeAlways = Mode::Off;
  c.checkInMinutes = 30;
  c.wakeAt = 1800090000.0;
  c.wakeForMinutes = 90;
  c.slowBuildsWhileClosed = true;
  c.pauseTimeMachine = true;
  c.hotspotAutomatic = true;
  return c;
}

TEST(ConfigEncodeTest, EveryFieldSurvivesARoundTrip) {
  const Config c = everythingChanged();
  auto back = Config::decode(c.encoded());
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, c);
  EXPECT_EQ(Config::decode(Config{}.encoded()), Config{});
}

TEST(ConfigEncodeTest, IsPrettyPrintedWithSortedKeys) {
  const std::string text = everythingChanged().encoded();
  EXPECT_EQ(text.rfind("{\n  \"alwaysUntil\": 1800003600.25,\n  \"appRules\": {\n    \"Music\": \"slow\",", 0), 0u)
      << text;
  EXPECT_NE(text.find("\"watchedApps\": [\n    {\n      \"name\": \"Xcode\"\n    },"), std::string::npos) << text;
  EXPECT_LT(text.find("\"wakeAt\""), text.find("\"wakeForMinutes\""));
  EXPECT_LT(text.find("\"quietMinutes\""), text.find("\"screenOffNoLock\""));
}

TEST(ConfigEncodeTest, KeysAreTheFieldNames) {
  // A key misspelled the same way on both sides survives a round trip, so the
  // names are checked one by one: hand edits and other tools rely on them.
  const std::vector<std::string> expected = {
      "alwaysUntil", "appRules", "appearance", "batteryFloor", "checkInMinutes", "chimeSound", "countClaudeApp",
      "countRequests", "customAgents", "doneChime", "heatGuard", "hotkey", "hotspotAutomatic", "liveLidIcon",
      "lockOnClose", "lowPowerWhileClosed", "menuBarText", "mode", "modeBeforeAlways", "notchIsland", "notifyDone",
      "ntfyTopic", "onlyOnPower", "pauseBackgroundAudio", "pauseSimulators", "pauseTimeMachine", "preset",
      "quietMinutes", "screenOffNoLock", "showInDock", "shutDownSimulators", "sleepWhenDone",
      "slowBuildsWhileClosed", "trackOnly", "wakeAt", "wakeForMinutes", "watchedApps"};
  const json j = json::parse(everythingChanged().encoded());
  std::vector<std::string> keys;
  for (const auto& [key, value] : j.items()) keys.push_back(key);
  EXPECT_EQ(keys, expected);
  const json& agent = j.at("customAgents").at(0);
  EXPECT_EQ(agent, (json{{"name", "mybot"}, {"executables", {"mybot", "mybotd"}}, {"idleWatts", 0.25}}));
}

TEST(ConfigEncodeTest, LeavesAbsentOptionalsOut) {
  const json j = json::parse(Config{}.encoded());
  EXPECT_FALSE(j.contains("alwaysUntil"));
  EXPECT_FALSE(j.contains("modeBeforeAlways"));
  EXPECT_FALSE(j.contains("wakeAt"));
  EXPECT_EQ(j.at("customAgents"), json::array());
  EXPECT_EQ(j.at("appRules"), json::object());
  EXPECT_EQ(j.at("mode"), "auto");
}

TEST(ConfigEncodeTest, InvalidUtf8SetInCodeDoesNotThrow) {
  Config c;
  c.chimeSound = "bad\xff";
  EXPECT_TRUE(Config::decode(c.encoded()));
}

// --- Merging an edited file ------------------------------------------------

TEST(ConfigMergeTest, KeysMissingFromTheFileKeepCurrentValues) {
  // Given a running app with non-default settings, the file is edited down to one key.
  const Config current = everythingChanged();
  const Config merged = current.mergedWith(json::parse(R"({"preset": "max_battery"})"));
  Config expected = current;
  expected.preset = Preset::MaxBattery;
  EXPECT_EQ(merged, expected);
}

TEST(ConfigMergeTest, FileValuesAreReadWithTheUsualRules) {
  const Config current = everythingChanged();
  const Config merged = current.mergedWith(
      json::parse(R"({"quietMinutes": 0, "mode": "bogus", "alwaysUntil": -1, "trackOnly": [1, "codex"]})"));
  EXPECT_EQ(merged.quietMinutes, 1);
  EXPECT_EQ(merged.mode, Mode::Auto);  // a bad value gives the default, not the current value
  EXPECT_FALSE(merged.alwaysUntil);
  EXPECT_EQ(merged.trackOnly, std::vector<std::string>{"codex"});
  EXPECT_EQ(merged.wakeAt, current.wakeAt);
  EXPECT_EQ(merged.customAgents, current.customAgents);
}

TEST(ConfigMergeTest, NonObjectChangesNothing) {
  const Config current = everythingChanged();
  EXPECT_EQ(current.mergedWith(json::parse("[1, 2]")), current);
  EXPECT_EQ(current.mergedWith(json()), current);
}

// --- Setting a broken file aside -------------------------------------------

class ConfigSetAsideTest : public ::testing::Test {
 protected:
  TempDir dir;
  StateFiles files{dir.path()};
};

TEST_F(ConfigSetAsideTest, PlainTextIsCopiedUnderTheTimeOfDay) {
  test::writeFile(dir.file("config.json"), "this is not json");
  EXPECT_EQ(setAsideIfBroken(files, 1800000123.9), "config.broken-1800000123.json");
  EXPECT_EQ(test::readFile(dir.file("config.broken-1800000123.json")), "this is not json");
  EXPECT_EQ(test::readFile(dir.file("config.json")), "this is not json");
}

TEST_F(ConfigSetAsideTest, AJsonValueThatIsNotAnObjectIsBroken) {
  test::writeFile(dir.file("config.json"), "[{\"mode\": \"on\"}]");
  EXPECT_EQ(setAsideIfBroken(files, 5), "config.broken-5.json");
}

TEST_F(ConfigSetAsideTest, AnEmptyFileIsBroken) {
  test::writeFile(dir.file("config.json"), "");
  EXPECT_EQ(setAsideIfBroken(files, 7), "config.broken-7.json");
  EXPECT_TRUE(test::fileExists(dir.file("config.broken-7.json")));
}

TEST_F(ConfigSetAsideTest, AMissingOrValidFileIsLeftAlone) {
  EXPECT_FALSE(setAsideIfBroken(files, 5));
  test::writeFile(dir.file("config.json"), "{\"mode\": 42}");
  EXPECT_FALSE(setAsideIfBroken(files, 5));
  EXPECT_FALSE(test::fileExists(dir.file("config.broken-5.json")));
}

TEST_F(ConfigSetAsideTest, AnOddClockStillGivesAName) {
  test::writeFile(dir.file("config.json"), "x");
  EXPECT_EQ(setAsideIfBroken(files, std::numeric_limits<double>::quiet_NaN()), "config.broken-0.json");
  EXPECT_TRUE(setAsideIfBroken(files, 1e300));
}

// --- The safety baseline ---------------------------------------------------

class SafetyFileTest : public ::testing::Test {
 protected:
  TempDir dir;
  StateFiles files{dir.path()};
};

TEST_F(SafetyFileTest, SavedBaselineLoadsBack) {
  const Safety s{false, 42, true};
  ASSERT_TRUE(s.save(files));
  EXPECT_EQ(Safety::load(files), s);
  EXPECT_EQ(json::parse(test::readFile(dir.file("safety.json"))),
            (json{{"heatGuard", false}, {"batteryFloor", 42}, {"onlyOnPower", true}}));
}

TEST_F(SafetyFileTest, MissingOrNotAnObjectLoadsNothing) {
  EXPECT_FALSE(Safety::load(files));
  test::writeFile(dir.file("safety.json"), "[true, 15, false]");
  EXPECT_FALSE(Safety::load(files));
  test::writeFile(dir.file("safety.json"), "{\"heatGuard\": tru");
  EXPECT_FALSE(Safety::load(files));
}

TEST_F(SafetyFileTest, WrongTypedKeysTakeDefaultsAndTheFloorIsClamped) {
  test::writeFile(dir.file("safety.json"), R"({"heatGuard": "off", "batteryFloor": 500, "onlyOnPower": true})");
  EXPECT_EQ(Safety::load(files), (Safety{true, 80, true}));
  test::writeFile(dir.file("safety.json"), R"({"heatGuard": false, "batteryFloor": "50"})");
  EXPECT_EQ(Safety::load(files), (Safety{false, 15, false}));
}

// --- Checking a record against the baseline --------------------------------

Config withSafety(bool heatGuard, int floor, bool onlyOnPower) {
  Config c;
  c.heatGuard = heatGuard;
  c.batteryFloor = floor;
  c.onlyOnPower = onlyOnPower;
  return c;
}

TEST(SafetyCheckTest, EveryLooseningIsUndoneAndNamedInOrder) {
  // Given a baseline with all three guards at their strictest, a file loosens all three.
  Config loose = withSafety(false, 5, false);
  loose.mode = Mode::On;
  const SafetyVerdict v = checkSafety(loose, Safety{true, 30, true});
  EXPECT_EQ(v.phrases, (std::vector<std::string>{"the heat guard stays on", "the battery limit stays at 30%",
                                                  "it still only stays awake on power"}));
  EXPECT_EQ(v.message(),
            "Safety settings can only be loosened in Vigilo itself: the heat guard stays on and the battery limit "
            "stays at 30% and it still only stays awake on power");
  Config expected = withSafety(true, 30, true);
  expected.mode = Mode::On;
  EXPECT_EQ(v.config, expected);
  EXPECT_FALSE(v.baselineChanged);
  EXPECT_EQ(v.baseline, (Safety{true, 30, true}));
}

TEST(SafetyCheckTest, UnknownModeAndHeatGuardOffKeepsAutoAndPutsTheGuardBack) {
  const Config fromFile = read(R"({"mode": "sometimes", "heatGuard": false})");
  const SafetyVerdict v = checkSafety(fromFile, Safety{});
  EXPECT_EQ(v.config.mode, Mode::Auto);
  EXPECT_TRUE(v.config.heatGuard);
  EXPECT_EQ(v.message(), "Safety settings can only be loosened in Vigilo itself: the heat guard stays on");
}

TEST(SafetyCheckTest, SwitchingTheFloorOffIsALoosening) {
  const SafetyVerdict v = checkSafety(withSafety(true, 0, false), Safety{true, 15, false});
  EXPECT_EQ(v.phrases, std::vector<std::string>{"the battery limit stays at 15%"});
  EXPECT_EQ(v.config.batteryFloor, 15);
}

TEST(SafetyCheckTest, StricterValuesBecomeTheNewBaseline) {
  const SafetyVerdict v = checkSafety(withSafety(true, 25, true), Safety{false, 15, false});
  EXPECT_TRUE(v.phrases.empty());
  EXPECT_EQ(v.message(), "");
  EXPECT_TRUE(v.baselineChanged);
  EXPECT_EQ(v.baseline, (Safety{true, 25, true}));
  EXPECT_EQ(v.config, withSafety(true, 25, true));
}

TEST(SafetyCheckTest, OneLooseningAndOneTighteningTogether) {
  // Given heat guard on and a 15% floor, the file switches the guard off and raises the floor.
  const SafetyVerdict v = checkSafety(withSafety(false, 40, false), Safety{true, 15, false});
  EXPECT_EQ(v.phrases, std::vector<std::string>{"the heat guard stays on"});
  EXPECT_TRUE(v.baselineChanged);
  EXPECT_EQ(v.baseline, (Safety{true, 40, false}));
}

TEST(SafetyCheckTest, EqualValuesChangeNothing) {
  const SafetyVerdict v = checkSafety(withSafety(false, 15, true), Safety{false, 15, true});
  EXPECT_TRUE(v.phrases.empty());
  EXPECT_FALSE(v.baselineChanged);
  EXPECT_EQ(v.config, withSafety(false, 15, true));
}

}  // namespace
}  // namespace vigilo
