// The Mac's command lines and the readers of pmset's, ioreg's and ps's
// output, on text captured on real Macs (tests/platform/macos/data/README.md says where each
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
#include "platform/macos/ioreg_text.h"
#include "platform/macos/pmset_text.h"
#include "platform/macos/ps_text.h"
#include "platform/macos/mac_samples.h"
#include "safety/setup.h"

namespace vigilo::test {
namespace {

namespace fs = std::filesystem;

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
      {"batt-no-estimate.txt", "Battery Power", 90, "discharging", std::nullopt, false, false, std::nullopt},
      {"batt-charging.txt", "AC Power", 91, "charging", 25, true, true, std::nullopt},
      {"batt-ac-attached.txt", "AC Power", 2, "AC attached", std::nullopt, true, false, std::nullopt},
      {"batt-desktop.txt", "AC Power", std::nullopt, "", std::nullopt, false, false, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    auto source = parsePmsetBatt(macSample(c.file));
    ASSERT_TRUE(source);
    EXPECT_EQ(source->drawingFrom, c.drawingFrom);
    auto reading = readingFrom(batteryFromPmset(*source));
    if (!c.percent) {
      EXPECT_FALSE(source->internalBattery);
      EXPECT_FALSE(reading);
      continue;
    }
    ASSERT_TRUE(source->internalBattery);
    const auto& b = *source->internalBattery;
    EXPECT_EQ(std::tuple(b.percent, b.state, b.minutesLeft), std::tuple(*c.percent, c.state, c.minutes));
    ASSERT_TRUE(reading);
    EXPECT_EQ(std::tuple(reading->percent, reading->onAC, reading->charging, reading->minutesLeft),
              std::tuple(*c.percent, c.onAC, c.charging, c.minutesLeft));
  }
}

TEST(PmsetText, ThermalSamplesAndLevels) {
  auto intel = parsePmsetTherm(macSample("therm-intel-throttled.txt"));
  ASSERT_TRUE(intel);
  EXPECT_EQ(intel->cpuSpeedLimit, 35);
  EXPECT_EQ(thermalStateFromPmset(*intel), 2);
  auto silicon = parsePmsetTherm(macSample("therm-apple-silicon.txt"));
  ASSERT_TRUE(silicon);
  EXPECT_FALSE(silicon->cpuSpeedLimit);
  EXPECT_EQ(thermalStateFromPmset(*silicon), 0);

  // Limit, warning level -> state; a speed limit alone is never critical.
  const std::vector<std::tuple<std::optional<int>, std::optional<int>, int>> levels = {
      {100, std::nullopt, 0}, {99, std::nullopt, 1}, {50, std::nullopt, 2}, {100, 5, 2}, {100, 10, 3}, {70, 0, 1},
  };
  for (const auto& [limit, level, state] : levels) {
    EXPECT_EQ(thermalStateFromPmset(PmsetThermal{limit, level}), state) << limit.value_or(-1) << " " << level.value_or(-1);
  }
}

TEST(PmsetText, AssertionSamples) {
  auto caffeinate = parsePmsetAssertions(macSample("assertions-caffeinate.txt"));
  ASSERT_EQ(caffeinate.size(), 3u);
  // 2025-11-02 13:20:57 -0600 is 19:20:57 UTC, 1762111257; held for 3 s.
  EXPECT_EQ(std::tuple(caffeinate[0].pid, caffeinate[0].processName, caffeinate[0].type, caffeinate[0].name,
                       caffeinate[0].since, caffeinate[0].onBehalfOf),
            std::tuple(98217, "caffeinate", "PreventUserIdleSystemSleep", "caffeinate command-line tool",
                       1762111257.0 - 3, std::nullopt));

  // The audio daemon holds it for another process and names its output; the
  // sample's last line is cut short and is left out.
  auto audio = parsePmsetAssertions(macSample("assertions-audio-cut-short.txt"));
  ASSERT_EQ(audio.size(), 1u);
  EXPECT_EQ(audio[0].onBehalfOf, 64578);
  EXPECT_EQ(audio[0].resources, (std::vector<std::string>{"audio-out", "1E6DCB5B-0000-0000-0121-0104B53C2278"}));
  // An age past an hour.
  EXPECT_EQ(parsePmsetAssertions(macSample("assertions-no-kernel.txt")).at(1).since, 1682265335.0 - (3600 + 9 * 60 + 14));

  // An old report, pasted without its indentation: no process name, no age,
  // and a stamp pmset no longer prints.
  auto old = parsePmsetAssertions(macSample("assertions-2012-flattened.txt"));
  ASSERT_EQ(old.size(), 1u);
  EXPECT_EQ(std::tuple(old[0].pid, old[0].processName, old[0].name, old[0].since),
            std::tuple(1827, "", "com.apple.audio.'AppleHDAEngineOutput:1B,0,1,1:0'.noidlesleep", std::nullopt));
}

TEST(PmsetText, SettingsSamples) {
  const std::string silicon = macSample("pmset-g-apple-silicon.txt"), intel = macSample("pmset-g-intel.txt");
  EXPECT_EQ(sleepDisabledFromPmset(silicon), true);
  EXPECT_EQ(sleepDisabledFromPmset(intel), false);
  auto inUse = powerModeInUse(silicon);
  ASSERT_TRUE(inUse);
  EXPECT_EQ(std::tuple(inUse->key, inUse->value), std::tuple("lowpowermode", 0));
  EXPECT_FALSE(powerModeInUse(intel));
  EXPECT_EQ(batteryPowerModeFromCustom(macSample("custom-apple-silicon.txt"))->key, "powermode");
  // Only the battery's section counts, and only an integer value.
  auto mode = batteryPowerModeFromCustom(
      "AC Power:\n lowpowermode         0\nBattery Power:\n lowpowermode         x\n lowpowermode         1\n");
  ASSERT_TRUE(mode);
  EXPECT_EQ(mode->value, 1);
  EXPECT_FALSE(batteryPowerModeFromCustom("AC Power:\n lowpowermode         1\n"));
}

TEST(MacCommands, ExactArgvWithinTheSudoersRule) {
  const std::vector<std::pair<std::vector<std::string>, std::string>> table = {
      {mac::readSmartBattery(), "/usr/sbin/ioreg -r -c AppleSmartBattery -a"},
      {mac::readClamshell(), "/usr/sbin/ioreg -r -k AppleClamshellState -d 1"},
      {mac::readConsoleSessions(), "/usr/sbin/ioreg -n Root -d1 -a"},
      {mac::listProcesses(), "/usr/bin/env LC_ALL=C /bin/ps -axww -o pid=,ppid=,lstart=,time=,stat=,command="},
      {mac::listProcesses(42), "/usr/bin/env LC_ALL=C /bin/ps -ww -p 42 -o pid=,ppid=,lstart=,time=,stat=,command="},
      {mac::listProcessPaths(), "/usr/bin/env LC_ALL=C /bin/ps -axww -o pid=,comm="},
  };
  for (const auto& [argv, line] : table) EXPECT_EQ(joinArgs(argv), line);

  // Every privileged line is one the setup's rule allows (whose exact lines
  // the setup's tests pin), or sudo -n would refuse it on the Mac; lines the
  // rule lacks are never built.
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
  for (int s : {0, 120, 7200}) EXPECT_FALSE(mac::relativeWake(s)) << s;
  EXPECT_FALSE(mac::setBatteryPowerMode("lowpowermode", 2));
  EXPECT_FALSE(mac::setBatteryPowerMode("sleep; rm -rf /", 0));
}

// Bad text gives nothing, never a crash or a made-up value: every sample cut
// at every byte, and text that only looks like pmset's.
TEST(PmsetText, HostileText) {
  for (const auto& entry : fs::directory_iterator(macSampleDir())) {
    if (entry.path().extension() != ".txt") continue;
    const std::string text = macSample(entry.path().filename().string());
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
  for (const std::string& junk : {std::string("\0\xff\xfe garbage", 12), std::string(100000, ';')}) {
    EXPECT_FALSE(parsePmsetBatt(junk));
    EXPECT_FALSE(parsePmsetTherm(junk));
    EXPECT_TRUE(parsePmsetAssertions(junk).empty());
    EXPECT_FALSE(sleepDisabledFromPmset(junk));
    EXPECT_FALSE(batteryPowerModeFromCustom(junk));
  }
  // Figures out of range, or a battery line without its state.
  for (const std::string& line :
       {huge + "%; charging; " + huge + ":00 remaining", std::string("101%; charging"), std::string("50%")}) {
    auto source = parsePmsetBatt("Now drawing from 'AC Power'\n -InternalBattery-0\t" + line + "\n");
    ASSERT_TRUE(source);
    EXPECT_FALSE(source->internalBattery) << line;
  }
  for (const std::string& limit : {huge, std::string("250")}) {
    EXPECT_FALSE(parsePmsetTherm("\tCPU_Speed_Limit \t= " + limit + "\n"));
  }
  EXPECT_FALSE(batteryPowerModeFromCustom("Battery Power:\n lowpowermode " + huge + "\n"));
  EXPECT_TRUE(parsePmsetAssertions("Listed by owning process:\n   pid " + huge +
                                   "(x): [0x1] 00:00:01 PreventSystemSleep named: \"n\"\n")
                  .empty());
  // An age past the report's own stamp still leaves a stamp, not a crash.
  auto longAgo = parsePmsetAssertions("2025-11-02 13:20:57 -0600\nListed by owning process:\n   pid 5(x): [0x1] "
                                      "9999:59:59 PreventSystemSleep named: \"n\"\n");
  ASSERT_EQ(longAgo.size(), 1u);
  EXPECT_EQ(longAgo[0].since, 1762111257.0 - (9999.0 * 3600 + 59 * 60 + 59));
}

// What closes a cut-short copy: the test adds it, the file stays as posted.
struct PlistSample {
  std::string file, closing;
  std::optional<std::int64_t> current, max, amperage, voltage;
  std::optional<int> percent;  // what the engine makes of it
};

TEST(IoregText, SmartBatterySamples) {
  ASSERT_TRUE(plistReaderAvailable());
  const std::vector<PlistSample> cases = {
      // Intel with T2: the raw mAh pair stands in for the percent pair the
      // copy lost; "Voltage" was cut off.
      {"smartbattery-t2-cut-short.plist", "\t\t</dict>\n\t</dict>\n</array>\n</plist>\n", 6974, 8747, -1889,
       std::nullopt, 79},
      // Mojave: "Voltage" only inside "BatteryData" is the pack's, not read.
      {"smartbattery-mojave-cut-short.plist", "\t</dict>\n</array>\n</plist>\n", 3637, 3688, 0, std::nullopt, 98},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file);
    const std::string text = macSample(c.file);
    EXPECT_FALSE(parseSmartBattery(text)) << "a cut-short plist is not read";
    auto p = parseSmartBattery(text + c.closing);
    ASSERT_TRUE(p);
    EXPECT_EQ(std::tuple(p->currentCapacity, p->maxCapacity, p->amperage, p->voltage),
              std::tuple(c.current, c.max, c.amperage, c.voltage));
    EXPECT_EQ(readingFrom(p)->percent, c.percent);
  }
}

std::string batteryPlist(const std::string& body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<array>\n<dict>\n" + body +
         "</dict>\n</array>\n</plist>\n";
}
std::string key(const std::string& k, const std::string& value) { return "<key>" + k + "</key>" + value + "\n"; }
std::string integer(long long v) { return "<integer>" + std::to_string(v) + "</integer>"; }

// The forms the registry takes across Macs and releases, each as the one
// property that differs.
TEST(IoregText, SmartBatteryForms) {
  struct Case {
    std::string what, body;
    std::optional<std::int64_t> current, max, amperage, instant;
  };
  const std::vector<Case> cases = {
      {"Apple Silicon: percent pair first", key("CurrentCapacity", integer(84)) + key("MaxCapacity", integer(100)) +
       key("AppleRawCurrentCapacity", integer(6776)) + key("AppleRawMaxCapacity", integer(8000)), 84, 100,
       std::nullopt, std::nullopt},
      {"a pair is never mixed", key("CurrentCapacity", integer(84)) + key("AppleRawCurrentCapacity", integer(6776)) +
       key("AppleRawMaxCapacity", integer(8000)), 6776, 8000, std::nullopt, std::nullopt},
      {"macOS 27: only inside BatteryData", key("BatteryData", "<dict>" + key("RemainingCapacity", integer(2994)) +
       key("FullChargeCapacity", integer(5793)) + "</dict>"), 2994, 5793, std::nullopt, std::nullopt},
      {"signed as unsigned", key("Amperage", "<integer>18446744073709551133</integer>"), std::nullopt, std::nullopt,
       -483, std::nullopt},
      {"16-bit instant amperage", key("InstantAmperage", integer(65000)), std::nullopt, std::nullopt, std::nullopt,
       -536},
      {"zero full charge is no pair", key("CurrentCapacity", integer(5)) + key("MaxCapacity", integer(0)) +
       key("Amperage", integer(-5)), std::nullopt, std::nullopt, -5, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto p = parseSmartBattery(batteryPlist(c.body));
    ASSERT_TRUE(p);
    EXPECT_EQ(std::tuple(p->currentCapacity, p->maxCapacity, p->amperage, p->instantAmperage),
              std::tuple(c.current, c.max, c.amperage, c.instant));
  }
  // A boolean, and an integer nested in the telemetry dictionary.
  auto full = parseSmartBattery(batteryPlist(
      key("ExternalConnected", "<true/>") +
      key("PowerTelemetryData", "<dict>" + key("AccumulatedSystemLoad", integer(912345)) + "</dict>")));
  ASSERT_TRUE(full);
  EXPECT_EQ(std::tuple(full->externalConnected, full->accumulatedSystemLoad), std::tuple(true, 912345));

  // A desktop's empty answer, other services, what isn't a plist, and
  // nesting deep enough to overflow libplist's recursion.
  std::string deep = "<plist version=\"1.0\">";
  for (int i = 0; i < 1000000; ++i) deep += "<array>";
  deep += "</plist>";
  for (const std::string& junk :
       {std::string(), std::string("<plist version=\"1.0\">\n<array/>\n</plist>\n"),
        batteryPlist(key("IOClass", "<string>AppleSmartBattery</string>")),
        batteryPlist(key("Amperage", "<string>-5</string>") + key("Voltage", "<real>1.5</real>")),
        std::string("<plist><array><dict><key>Amperage</key>"), std::string("\0\xff<plist>", 9),
        "<plist>" + std::string(20000, '[') + "</plist>", std::string(100000, '<'), deep}) {
    EXPECT_FALSE(parseSmartBattery(junk));
  }
  const std::string whole = macSample("smartbattery-t2-cut-short.plist") + "\t\t</dict>\n\t</dict>\n</array>\n</plist>\n";
  for (std::size_t n = 0; n < whole.size(); n += 7) (void)parseSmartBattery(std::string_view(whole.data(), n));
}

TEST(IoregText, LidAndLock) {
  EXPECT_EQ(clamshellFromIoreg(macSample("clamshell-open-grepped.txt")), false);
  EXPECT_EQ(clamshellFromIoreg(macSample("clamshell-cut-short.txt")), std::nullopt) << "the value was cut off";
  EXPECT_EQ(clamshellFromIoreg(macSample("clamshell-cut-short.txt") + " = Yes\n"), true);
  for (const char* text : {"\"AppleClamshellState\" = Yesterday\n", "\"AppleClamshellStateX\" = Yes\n"}) {
    EXPECT_EQ(clamshellFromIoreg(text), std::nullopt) << text;
  }

  auto root = [](const std::string& sessions) {
    return "<plist version=\"1.0\">\n<dict>\n" + key("IOConsoleUsers", "<array>" + sessions + "</array>") +
           "</dict>\n</plist>\n";
  };
  auto session = [](long uid, const std::string& extra) {
    return "<dict>" + key("kCGSSessionUserIDKey", integer(uid)) + extra + "</dict>";
  };
  const std::string locked = key("CGSSessionScreenIsLocked", "<true/>");
  EXPECT_EQ(screenLockedFromIoreg(root(session(501, "") + session(502, locked)), 502), true);
  EXPECT_EQ(screenLockedFromIoreg(root(session(501, "") + session(502, locked)), 501), false);
  EXPECT_EQ(screenLockedFromIoreg(root(session(501, locked)), 503), std::nullopt);
  EXPECT_EQ(screenLockedFromIoreg("not a plist", 501), std::nullopt);
}

TEST(PsText, ListingPathsAndArguments) {
  const std::string listing =
      "    1     0 Mon Jun 16 14:23:09 2025  12:03.41 Ss   /sbin/launchd\n"
      "  812     1 Tue Nov 25 09:05:00 2025   0:01.50 T    /Applications/Google Chrome.app/Contents/MacOS/Google "
      "Chrome --type=gpu  --x\n"
      "40123   812 Wed Nov 26 00:00:59 2025 1-02:03:04 R+   node /usr/local/bin/claude --resume\n"
      "  bad line\n"
      "  900     1 Wed Nov 26 00:00:59 2025 1:2:3:4 S    too many fields in time\n"
      "  901     1 Wed Foo 26 00:00:59 2025 0:00.00 S    a month that isn't\n"
      "  902     1 Wed Nov 26 25:00:59 2025 0:00.00 S    an hour that isn't\n"
      "  903     1 Wed Nov 26 00:00:59 2025 0:00.00\n";
  const auto rows = parsePsListing(listing);
  ASSERT_EQ(rows.size(), 3u);
  EXPECT_EQ(std::tuple(rows[0].pid, rows[0].cpuMicros, rows[0].stopped), std::tuple(1, 723'410'000u, false));
  EXPECT_EQ(std::tuple(rows[1].ppid, rows[1].stopped, rows[1].started.month, rows[1].started.hour),
            std::tuple(1, true, 11, 9));
  EXPECT_EQ(rows[2].cpuMicros, (86400ull + 2 * 3600 + 3 * 60 + 4) * 1'000'000);
  EXPECT_EQ(rows[2].command, "node /usr/local/bin/claude --resume");

  const auto paths = parsePsPaths("    1 /sbin/launchd\n  812 /Applications/Google Chrome.app/Contents/MacOS/Google "
                                  "Chrome\n    0 (kernel_task)\n  77 <defunct>\n x /bin/sh\n");
  EXPECT_EQ(paths.size(), 2u);
  const std::string chrome = paths.at(812);
  EXPECT_EQ(splitPsCommand(rows[1].command, chrome),
            (std::vector<std::string>{chrome, "--type=gpu", "--x"}));
  EXPECT_EQ(splitPsCommand(rows[2].command, "/usr/local/bin/node"),
            (std::vector<std::string>{"node", "/usr/local/bin/claude", "--resume"}));
  EXPECT_EQ(splitPsCommand("/bin/shx -c", "/bin/sh"), (std::vector<std::string>{"/bin/shx", "-c"}));

  EXPECT_TRUE(parsePsCpuTime("3-00:00:00.50"));
  // A Mac's ps counts minutes past 59 (values from a recorded "ps -ef").
  EXPECT_EQ(parsePsCpuTime("139:17.71"), (139ull * 60 + 17) * 1'000'000 + 710'000);
  for (const char* t : {"12", "1:2:3:4", "1:00.1", "x-1:00", "99999999999999999999:00", "1:-1"}) {
    EXPECT_FALSE(parsePsCpuTime(t)) << t;
  }
  for (std::size_t n = 0; n <= listing.size(); ++n) (void)parsePsListing(std::string_view(listing.data(), n));
}

}  // namespace
}  // namespace vigilo::test
