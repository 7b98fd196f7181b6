// The Mac's command lines and the readers of pmset's output, on text
// captured on real Macs (tests/platform/macos/data/README.md says where each
// sample comes from).

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <tuple>

#include <gtest/gtest.h>

#include "engine/battery.h"
#include "platform/command_runner.h"
#include "platform/macos/mac_commands.h"
#include "platform/macos/pmset_text.h"
#include "safety/setup.h"

namespace vigilo::test {
namespace {

namespace fs = std::filesystem;

fs::path dataDir() { return fs::path(VIGILO_SOURCE_DIR) / "tests/platform/macos/data"; }

std::string sample(const std::string& name) {
  std::ifstream in(dataDir() / name, std::ios::binary);
  EXPECT_TRUE(in) << name;
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

struct BattCase {
  std::string file, drawingFrom;
  std::optional<int> percent;  // nothing: no battery line
  std::string state;
  std::optional<int> minutes;
  // What the engine makes of it.
  bool onAC, charging;
  std::optional<int> minutesLeft;
};

TEST(PmsetText, PowerSourceSamples) {
  const std::vector<BattCase> cases = {
      {"batt-discharging.txt", "Battery Power", 95, "discharging", 186, false, false, 186},
      {"batt-charged.txt", "AC Power", 100, "charged", 0, true, false, std::nullopt},
      {"batt-no-estimate.txt", "Battery Power", 90, "discharging", std::nullopt, false, false, std::nullopt},
      {"batt-charging.txt", "AC Power", 91, "charging", 25, true, true, std::nullopt},
      {"batt-ac-attached.txt", "AC Power", 2, "AC attached", std::nullopt, true, false, std::nullopt},
      {"batt-desktop.txt", "AC Power", std::nullopt, "", std::nullopt, false, false, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    auto source = parsePmsetBatt(sample(c.file));
    ASSERT_TRUE(source);
    EXPECT_EQ(source->drawingFrom, c.drawingFrom);
    auto reading = readingFrom(batteryFromPmset(*source));
    if (!c.percent) {
      EXPECT_FALSE(source->internalBattery);
      EXPECT_FALSE(reading);
      continue;
    }
    ASSERT_TRUE(source->internalBattery);
    EXPECT_EQ(source->internalBattery->percent, *c.percent);
    EXPECT_EQ(source->internalBattery->state, c.state);
    EXPECT_EQ(source->internalBattery->minutesLeft, c.minutes);
    ASSERT_TRUE(reading);
    EXPECT_EQ(reading->percent, *c.percent);
    EXPECT_EQ(reading->onAC, c.onAC);
    EXPECT_EQ(reading->charging, c.charging);
    EXPECT_EQ(reading->minutesLeft, c.minutesLeft);
  }
}

TEST(PmsetText, ThermalSamplesAndLevels) {
  auto intel = parsePmsetTherm(sample("therm-intel-throttled.txt"));
  ASSERT_TRUE(intel);
  EXPECT_EQ(intel->cpuSpeedLimit, 35);
  EXPECT_EQ(thermalStateFromPmset(*intel), 2);
  auto silicon = parsePmsetTherm(sample("therm-apple-silicon.txt"));
  ASSERT_TRUE(silicon);
  EXPECT_FALSE(silicon->cpuSpeedLimit);
  EXPECT_EQ(thermalStateFromPmset(*silicon), 0);

  // Limit, warning level -> state; a speed limit alone is never critical.
  const std::vector<std::tuple<std::optional<int>, std::optional<int>, int>> levels = {
      {100, std::nullopt, 0}, {99, std::nullopt, 1}, {51, std::nullopt, 1}, {50, std::nullopt, 2},
      {1, std::nullopt, 2},   {100, 5, 2},           {100, 10, 3},          {70, 0, 1},
  };
  for (const auto& [limit, level, state] : levels) {
    EXPECT_EQ(thermalStateFromPmset(PmsetThermal{limit, level}), state) << limit.value_or(-1) << " " << level.value_or(-1);
  }
}

TEST(PmsetText, AssertionSamples) {
  auto caffeinate = parsePmsetAssertions(sample("assertions-caffeinate.txt"));
  ASSERT_EQ(caffeinate.size(), 3u);
  EXPECT_EQ(caffeinate[0].pid, 98217);
  EXPECT_EQ(caffeinate[0].processName, "caffeinate");
  EXPECT_EQ(caffeinate[0].type, "PreventUserIdleSystemSleep");
  EXPECT_EQ(caffeinate[0].name, "caffeinate command-line tool");
  // 2025-11-02 13:20:57 -0600 is 19:20:57 UTC, 1762111257; held for 3 s.
  EXPECT_EQ(caffeinate[0].since, 1762111257.0 - 3);
  EXPECT_EQ(caffeinate[1].type, "UserIsActive");
  EXPECT_EQ(caffeinate[2].processName, "powerd");
  EXPECT_EQ(caffeinate[2].since, 1762111257.0 - (22 * 60 + 34));

  // The audio daemon holds it for another process and names its output; the
  // sample's last line is cut short and is left out.
  auto audio = parsePmsetAssertions(sample("assertions-audio-cut-short.txt"));
  ASSERT_EQ(audio.size(), 1u);
  EXPECT_EQ(audio[0].processName, "coreaudiod");
  EXPECT_EQ(audio[0].onBehalfOf, 64578);
  EXPECT_EQ(audio[0].resources, (std::vector<std::string>{"audio-out", "1E6DCB5B-0000-0000-0121-0104B53C2278"}));
  EXPECT_EQ(audio[0].name, "com.apple.audio.1E6DCB5B-0000-0000-0121-0104B53C2278.context.preventuseridlesleep");

  auto mpv = parsePmsetAssertions(sample("assertions-no-kernel.txt"));
  ASSERT_EQ(mpv.size(), 3u);
  EXPECT_EQ(mpv[1].since, 1682265335.0 - (3600 + 9 * 60 + 14));
  EXPECT_EQ(mpv[2].type, "InternalPreventDisplaySleep");
  EXPECT_FALSE(mpv[2].onBehalfOf);

  // An old report, pasted without its indentation: no process name, no age,
  // and a stamp pmset no longer prints.
  auto old = parsePmsetAssertions(sample("assertions-2012-flattened.txt"));
  ASSERT_EQ(old.size(), 1u);
  EXPECT_EQ(old[0].pid, 1827);
  EXPECT_EQ(old[0].processName, "");
  EXPECT_EQ(old[0].type, "PreventUserIdleSystemSleep");
  EXPECT_EQ(old[0].name, "com.apple.audio.'AppleHDAEngineOutput:1B,0,1,1:0'.noidlesleep");
  EXPECT_FALSE(old[0].since);
}

TEST(PmsetText, SettingsSamples) {
  const std::string silicon = sample("pmset-g-apple-silicon.txt"), intel = sample("pmset-g-intel.txt");
  EXPECT_EQ(sleepDisabledFromPmset(silicon), true);
  EXPECT_EQ(sleepDisabledFromPmset(intel), false);
  auto inUse = powerModeInUse(silicon);
  ASSERT_TRUE(inUse);
  EXPECT_EQ(inUse->key, "lowpowermode");
  EXPECT_EQ(inUse->value, 0);
  EXPECT_FALSE(powerModeInUse(intel));

  auto custom = batteryPowerModeFromCustom(sample("custom-apple-silicon.txt"));
  ASSERT_TRUE(custom);
  EXPECT_EQ(custom->key, "powermode");
  EXPECT_EQ(custom->value, 0);
  // Only the battery's section counts, and only an integer value.
  auto mode = batteryPowerModeFromCustom(
      "AC Power:\n lowpowermode         0\nBattery Power:\n lowpowermode         x\n lowpowermode         1\n");
  ASSERT_TRUE(mode);
  EXPECT_EQ(mode->value, 1);
  EXPECT_FALSE(batteryPowerModeFromCustom("AC Power:\n lowpowermode         1\n"));
}

TEST(MacCommands, ExactArgvWithinTheSudoersRule) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> table = {
      {mac::setSleepDisabled(true), "/usr/bin/sudo -n /usr/bin/pmset -a disablesleep 1"},
      {mac::setSleepDisabled(false), "/usr/bin/sudo -n /usr/bin/pmset -a disablesleep 0"},
      {mac::sleepNow(), "/usr/bin/sudo -n /usr/bin/pmset sleepnow"},
      {*mac::relativeWake(3600), "/usr/bin/sudo -n /usr/bin/pmset relative wake 3600"},
      {*mac::setBatteryPowerMode("lowpowermode", 1), "/usr/bin/sudo -n /usr/bin/pmset -b lowpowermode 1"},
      {*mac::setBatteryPowerMode("powermode", 2), "/usr/bin/sudo -n /usr/bin/pmset -b powermode 2"},
      {mac::setAutomaticBackups(false), "/usr/bin/sudo -n /usr/bin/tmutil disable"},
      {mac::setAutomaticBackups(true), "/usr/bin/sudo -n /usr/bin/tmutil enable"},
      {mac::displaySleepNow(), "/usr/bin/pmset displaysleepnow"},
      {mac::shutDownSimulators(), "/usr/bin/xcrun simctl shutdown all"},
      {mac::readAutoBackup(), "/usr/bin/defaults read /Library/Preferences/com.apple.TimeMachine AutoBackup"},
      {mac::openApp(), "/usr/bin/open -b com.tarnwell.Vigilo"},
      {mac::readPowerSource(), "/usr/bin/pmset -g batt"},
      {mac::readThermal(), "/usr/bin/pmset -g therm"},
      {mac::readAssertions(), "/usr/bin/pmset -g assertions"},
      {mac::readLiveSettings(), "/usr/bin/pmset -g"},
      {mac::readCustomSettings(), "/usr/bin/pmset -g custom"},
  };
  for (const auto& [argv, line] : table) EXPECT_EQ(joinArgs(argv), line);

  // Every privileged line is one the setup's rule allows, or sudo -n would
  // refuse it on the Mac; lines the rule lacks are never built.
  std::vector<std::vector<std::string>> privileged = {mac::setSleepDisabled(true), mac::setSleepDisabled(false),
                                                      mac::sleepNow(), mac::setAutomaticBackups(true),
                                                      mac::setAutomaticBackups(false)};
  for (int s : mac::allowedWakeSteps()) privileged.push_back(*mac::relativeWake(s));
  for (int v : {0, 1, 2}) privileged.push_back(*mac::setBatteryPowerMode("powermode", v));
  for (int v : {0, 1}) privileged.push_back(*mac::setBatteryPowerMode("lowpowermode", v));
  const auto allowed = MacSetup::commands();
  for (auto argv : privileged) {
    ASSERT_GE(argv.size(), 3u);
    EXPECT_EQ(argv[0] + " " + argv[1], "/usr/bin/sudo -n");
    argv.erase(argv.begin(), argv.begin() + 2);
    EXPECT_NE(std::find(allowed.begin(), allowed.end(), joinArgs(argv)), allowed.end()) << joinArgs(argv);
  }
  for (int s : {0, -60, 120, 7200}) EXPECT_FALSE(mac::relativeWake(s)) << s;
  EXPECT_FALSE(mac::setBatteryPowerMode("powermode", 3));
  EXPECT_FALSE(mac::setBatteryPowerMode("lowpowermode", 2));
  EXPECT_FALSE(mac::setBatteryPowerMode("lowpowermode", -1));
  EXPECT_FALSE(mac::setBatteryPowerMode("sleep; rm -rf /", 0));
}

// Bad text gives nothing, never a crash or a made-up value: every sample cut
// at every byte, and text that only looks like pmset's.
TEST(PmsetText, HostileText) {
  for (const auto& entry : fs::directory_iterator(dataDir())) {
    if (entry.path().extension() != ".txt") continue;
    const std::string text = sample(entry.path().filename().string());
    for (std::size_t n = 0; n <= text.size(); ++n) {
      const std::string_view cut(text.data(), n);
      if (auto s = parsePmsetBatt(cut); s && s->internalBattery) {
        EXPECT_LE(s->internalBattery->percent, 100);
      }
      if (auto t = parsePmsetTherm(cut)) {
        EXPECT_LE(thermalStateFromPmset(*t), 3);
      }
      for (const auto& a : parsePmsetAssertions(cut)) EXPECT_FALSE(a.type.empty());
      (void)sleepDisabledFromPmset(cut);
      (void)batteryPowerModeFromCustom(cut);
      (void)powerModeInUse(cut);
    }
  }
  const std::string huge = "99999999999999999999999";
  for (const std::string& junk : {std::string(), std::string("\n\n\t"), std::string("\0\xff\xfe garbage", 12),
                                  std::string(100000, ';')}) {
    EXPECT_FALSE(parsePmsetBatt(junk));
    EXPECT_FALSE(parsePmsetTherm(junk));
    EXPECT_TRUE(parsePmsetAssertions(junk).empty());
    EXPECT_FALSE(sleepDisabledFromPmset(junk));
    EXPECT_FALSE(batteryPowerModeFromCustom(junk));
  }
  auto big = parsePmsetBatt("Now drawing from 'AC Power'\n -InternalBattery-0\t" + huge + "%; charging; " + huge +
                            ":00 remaining\n");
  ASSERT_TRUE(big);
  EXPECT_FALSE(big->internalBattery);
  EXPECT_FALSE(parsePmsetBatt("Now drawing from 'AC Power'\n -InternalBattery-0\t101%; charging\n")->internalBattery);
  EXPECT_FALSE(parsePmsetBatt("Now drawing from 'AC Power'\n -InternalBattery-0\t50%\n")->internalBattery);
  EXPECT_FALSE(parsePmsetTherm("\tCPU_Speed_Limit \t= " + huge + "\n"));
  EXPECT_FALSE(parsePmsetTherm("\tCPU_Speed_Limit \t= 250\n"));
  EXPECT_FALSE(batteryPowerModeFromCustom("Battery Power:\n lowpowermode " + huge + "\n"));
  EXPECT_FALSE(sleepDisabledFromPmset("System-wide power settings:\n SleepDisabled\t\t" + huge + "\n"));
  EXPECT_TRUE(parsePmsetAssertions("Listed by owning process:\n   pid " + huge +
                                   "(x): [0x1] 00:00:01 PreventSystemSleep named: \"n\"\n")
                  .empty());
  // An age past the report's own stamp still leaves a stamp, not a crash.
  auto longAgo = parsePmsetAssertions("2025-11-02 13:20:57 -0600\nListed by owning process:\n   pid 5(x): [0x1] "
                                      "9999:59:59 PreventSystemSleep named: \"n\"\n");
  ASSERT_EQ(longAgo.size(), 1u);
  EXPECT_EQ(longAgo[0].since, 1762111257.0 - (9999.0 * 3600 + 59 * 60 + 59));
}

}  // namespace
}  // namespace vigilo::test
