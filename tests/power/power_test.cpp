#include <cmath>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "commands/command_center.h"
#include "engine/battery.h"
#include "engine/engine.h"
#include "platform/bundles.h"
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "power/energy_sampler.h"
#include "savings/power_watch.h"
#include "power/learned_store.h"
#include "power/power_sensor.h"
#include "test_support.h"

namespace vigilo {
namespace {

using ::testing::ElementsAre;
using json = nlohmann::json;

BatteryProperties telemetry(std::optional<std::int64_t> load, std::optional<std::int64_t> accumulated,
                            std::optional<std::int64_t> count) {
  BatteryProperties b;
  b.systemLoad = load;
  b.accumulatedSystemLoad = accumulated;
  b.accumulatorCount = count;
  return b;
}

BatteryProperties current(std::optional<std::int64_t> instant, std::optional<std::int64_t> amperage,
                          std::optional<std::int64_t> millivolts) {
  BatteryProperties b;
  b.instantAmperage = instant;
  b.amperage = amperage;
  b.voltage = millivolts;
  return b;
}

TEST(PowerSensorTest, TelemetryFirstThenTheDischargeCurrentAndNothingElse) {
  struct Case {
    const char* what;
    std::optional<BatteryProperties> props;
    std::optional<PowerSample> expected;
  } cases[] = {
      {"no battery controller", std::nullopt, std::nullopt},
      {"system load with counters", telemetry(12345, 900, 3), PowerSample{12.345, 900, 3, 50}},
      {"load 0 but both counters", telemetry(0, 900, 3), PowerSample{std::nullopt, 900, 3, 50}},
      {"load 0, one counter: the current", [] {
         auto b = telemetry(0, 900, std::nullopt);
         b.amperage = -1000;
         b.voltage = 12000;
         return b;
       }(), PowerSample{12.0, std::nullopt, std::nullopt, 50}},
      {"instant current first", current(-500, -100, 12000), PowerSample{6.0, std::nullopt, std::nullopt, 50}},
      {"plain current", current(std::nullopt, -250, 12000), PowerSample{3.0, std::nullopt, std::nullopt, 50}},
      {"charging", current(1500, 1500, 12000), std::nullopt},
      {"no voltage", current(-500, -500, 0), std::nullopt},
  };
  for (const Case& c : cases) EXPECT_EQ(PowerSensor::sample(c.props, 50), c.expected) << c.what;
}

BatteryProperties capacity(std::int64_t current, std::int64_t max) {
  BatteryProperties b;
  b.currentCapacity = current;
  b.maxCapacity = max;
  return b;
}

BatteryReading onBattery(int percent, double watts, std::optional<int> minutes = std::nullopt, bool onAC = false) {
  BatteryReading r;
  r.percent = percent;
  r.watts = watts;
  r.minutesLeft = minutes;
  r.onAC = onAC;
  return r;
}

TEST(BatteryReadingTest, RawControllerPropertiesGiveTheGuardsReading) {
  auto with = [](BatteryProperties b, auto change) {
    change(b);
    return b;
  };
  struct Case {
    const char* what;
    std::optional<BatteryProperties> props;
    std::optional<BatteryReading> expected;
  } cases[] = {
      {"no battery controller", std::nullopt, std::nullopt},
      {"no maximum", capacity(10, 0), std::nullopt},
      {"no current capacity", with(BatteryProperties{}, [](auto& b) { b.maxCapacity = 5000; }), std::nullopt},
      {"stale capacity above the maximum", capacity(6000, 5000), onBattery(100, 0)},
      {"instant current wins, 65535 means unknown", with(capacity(4999, 5000), [](auto& b) {
         b.instantAmperage = -1500;
         b.amperage = -99999;
         b.voltage = 12000;
         b.timeRemaining = 65535;
       }), onBattery(99, 18.0)},
      {"charging draws nothing", with(capacity(4999, 5000), [](auto& b) {
         b.amperage = 800;
         b.voltage = 12000;
         b.timeRemaining = 90;
       }), onBattery(99, 0, 90)},
      {"no minutes left on the adapter", with(capacity(4999, 5000), [](auto& b) {
         b.timeRemaining = 90;
         b.externalConnected = true;
       }), onBattery(99, 0, std::nullopt, true)},
  };
  for (const Case& c : cases) EXPECT_EQ(readingFrom(c.props), c.expected) << c.what;
}

TEST(BatteryReadingTest, OnPowerNeedsTheAdapterAndChargingOrALowDrain) {
  struct Case {
    bool onAC, charging;
    double watts;
    bool onPower;
  } cases[] = {{true, false, 0.3, true}, {true, false, 0.31, false}, {true, true, 0.31, true}};
  for (const Case& c : cases) {
    BatteryReading r = onBattery(50, c.watts, std::nullopt, c.onAC);
    r.charging = c.charging;
    EXPECT_EQ(r.onPower(), c.onPower) << c.onAC << c.charging << c.watts;
  }
}

TEST(WholeMachinePowerTest, AccumulatorDifferencesAverageTheControllersReadings) {
  // Given a controller that reports SystemLoad 0 but its counters.
  WholeMachinePower power;
  power.update(telemetry(0, 100'000, 10), std::nullopt, {}, 0);
  EXPECT_EQ(power.systemWatts(), std::nullopt) << "the first sample has nothing to compare with";
  power.update(telemetry(0, 100'000 + 2 * 9'000, 12), std::nullopt, {}, 60);
  EXPECT_EQ(power.systemWatts(), 9.0);
  // The counters reset: the sample's own watts, here none.
  power.update(telemetry(0, 10, 1), std::nullopt, {}, 64);
  EXPECT_EQ(power.systemWatts(), std::nullopt);
  // No sample at all: the battery's discharge above 0.3 W, else nothing.
  power.update(current(0, 0, 12000), onBattery(50, 4.2), {}, 66);
  EXPECT_EQ(power.systemWatts(), 4.2);
  power.update(current(0, 0, 12000), onBattery(50, 0.3), {}, 68);
  EXPECT_EQ(power.systemWatts(), std::nullopt);
}

TEST(WholeMachinePowerTest, LearnsTheOpenAndClosedDrawOnlyWhenTheyMeanSomething) {
  struct Step {
    double watts;
    PowerContext context;
    std::optional<double> open;
    std::optional<double> closed;
  } steps[] = {
      {10.0, {false, false, false}, 10.0, std::nullopt},           // lid open: the first value as it is
      {20.0, {false, true, false}, 11.5, std::nullopt},            // then 0.15 new, 0.85 old
      {3.0, {true, true, false}, 11.5, 3.0},                       // shut and held
      {4.0, {true, true, false}, 11.5, 3.1},                       // 0.1 new, 0.9 old
      {30.0, {true, false, false}, 11.5, 3.1},                     // shut, not held: about to sleep
      {30.0, {false, false, true}, 11.5, 3.1},                     // a power test switches savings
      {0.3, {false, false, false}, 11.5, 3.1},                     // a trickle says nothing
  };
  WholeMachinePower power;
  Time t = 0;
  for (const Step& s : steps) {
    power.update(telemetry(std::llround(s.watts * 1000), std::nullopt, std::nullopt), std::nullopt, s.context, t += 2);
    const auto round = [](std::optional<double> w) { return w ? std::optional(std::round(*w * 1e6)) : w; };
    EXPECT_EQ(round(power.learned().openDraw), round(s.open)) << s.watts;
    EXPECT_EQ(round(power.learned().closedDraw), round(s.closed)) << s.watts;
  }
}

TEST(WholeMachinePowerTest, BatterySizeAndHoursLeft) {
  // Given the default simulated battery's controller: 5000 mAh at 11.4 V.
  BatteryProperties props = current(-526, -526, 11400);
  props.maxCapacity = 5000;
  WholeMachinePower power;
  EXPECT_EQ(power.fullWh(), kDefaultFullWh) << "nothing read yet";
  power.update(props, std::nullopt, {}, 0);
  EXPECT_NEAR(power.fullWh(), 57.0, 1e-9);
  props.maxCapacity = 100;  // Apple silicon reports percent here
  power.update(props, std::nullopt, {}, 2);
  EXPECT_EQ(power.fullWh(), kDefaultFullWh);

  // 10 W for 450 minutes from 50 % is 150 Wh: rejected. For 180 minutes,
  // 60 Wh: fullWh moves a fifth of the way there.
  power.update(props, onBattery(50, 10.0, 450), {}, 4);
  EXPECT_EQ(power.learned().fullWh, std::nullopt);
  power.update(props, onBattery(50, 10.0, 180), {}, 6);
  EXPECT_NEAR(power.learned().fullWh.value_or(0), 0.8 * kDefaultFullWh + 0.2 * 60.0, 1e-9);
  const double learned = power.fullWh();
  power.update(props, onBattery(5, 10.0, 18), {}, 8);
  EXPECT_EQ(power.fullWh(), learned) << "under 6 % nothing is learned";

  EXPECT_EQ(power.hoursLeft(50, 0.1), std::nullopt) << "no draw, no estimate";
  EXPECT_NEAR(power.hoursLeft(50, 5.0).value_or(0), 0.5 * learned / 5.0, 1e-9);
}

TEST(WholeMachinePowerTest, ClosedEstimateFromTheMeasuredOrTheLearnedDrawOrTheAppsRules) {
  const std::vector<AppUsage> apps = {{"Browser", std::nullopt, 4.0, 0, {}, false},
                                      {"Builder", std::nullopt, 2.0, 0, {}, false},
                                      {"Player", std::nullopt, 1.0, 0, {}, false},
                                      {"claude", std::nullopt, 8.0, 0, {}, false}};
  WholeMachinePower::ClosedInputs in;
  in.apps = &apps;
  in.isProtected = [](const AppUsage& a) { return a.name == "claude"; };
  in.ruleFor = [](const AppUsage& a) {
    return a.name == "Browser" ? AppRule::Pause : a.name == "Builder" ? AppRule::Slow : AppRule::Leave;
  };
  WholeMachinePower power;
  in.lidClosed = true;
  EXPECT_NEAR(power.closedEstimate(in), 1.6 + 0.5 + 1.0, 1e-9) << "base, a quarter slowed, all left";
  in.lidClosed = false;
  power.update(telemetry(2500, std::nullopt, std::nullopt), std::nullopt, {}, 2);
  EXPECT_NEAR(power.closedEstimate(in), 2.5, 1e-9) << "open: never more than the machine draws now";
  in.lidClosed = true;
  in.held = true;
  EXPECT_NEAR(power.closedEstimate(in), 2.5, 1e-9) << "shut and held: what it draws";

  power.update(current(0, 0, 12000), onBattery(50, 5.0), {}, 4);  // nothing from the controller
  EXPECT_NEAR(power.closedEstimate(in), 5.0, 1e-9);
  in.reading = onBattery(50, 5.0);
  in.reading->charging = true;
  power.update(std::nullopt, std::nullopt, {}, 6);
  EXPECT_NEAR(power.closedEstimate(in), 1.6 + 0.5 + 1.0, 1e-9) << "a charging reading says nothing";
  power.setLearned(LearnedPower{std::nullopt, 4.4, std::nullopt});
  EXPECT_NEAR(power.closedEstimate(in), 4.4, 1e-9);
}

TEST(LearnedStoreTest, RoundTripsAndReadsDamageAsNothingLearned) {
  test::TempDir dir;
  LearnedStore store(dir.path());
  EXPECT_EQ(store.load(), LearnedPower{});
  const LearnedPower values{7.25, 2.5, 61.0};
  ASSERT_TRUE(store.save(values));
  EXPECT_EQ(LearnedStore(dir.path()).load(), values);
  ASSERT_TRUE(store.save(LearnedPower{std::nullopt, 3.0, std::nullopt}));
  EXPECT_EQ(nlohmann::json::parse(test::readFile(dir.file("learned.json"))), nlohmann::json({{"closedDraw", 3.0}}));

  const std::pair<const char*, LearnedPower> damaged[] = {
      {"{\"openDraw\": 5", {}}, {"[1, 2]", {}}, {R"({"openDraw": "5", "closedDraw": -1, "fullWh": 150})", {}},
      {R"({"openDraw": 0, "closedDraw": 2.0, "fullWh": 20})", {std::nullopt, 2.0, std::nullopt}},
  };
  for (const auto& [text, expected] : damaged) {
    test::writeFile(dir.file("learned.json"), text);
    EXPECT_EQ(store.load(), expected) << text;
  }
  EXPECT_FALSE(LearnedStore(dir.file("missing")).save(values));
}

class EnergySamplerTest : public ::testing::Test {
 protected:
  EnergySamplerTest() : loop_(clock_) {
    SimPlatformOptions options;
    options.appFolder = dir_.file("app");
    sim_ = makeSimPlatform(clock_, loop_, options);
  }
  SimLaptop& laptop() { return sim_->laptop(); }
  std::int32_t start(const std::string& path, double watts, std::int32_t ppid = 1) {
    const std::int32_t pid = laptop().startProcess(path, {}, ppid);
    laptop().setProcessWatts(pid, watts);
    return pid;
  }
  std::vector<AppUsage> sampleAfter(double seconds) {
    clock_.advance(seconds);
    return sampler_.sample(sim_->processes(), clock_.now());
  }

  test::TempDir dir_;
  ManualClock clock_;
  ManualRunLoop loop_;
  std::unique_ptr<SimPlatform> sim_;
  EnergySampler sampler_{[](const std::string& bundle) {
    return bundle == "/Applications/Code.app" ? BundleMeta{"Visual Studio Code", "com.microsoft.VSCode"} : BundleMeta{};
  }};
};

TEST_F(EnergySamplerTest, AttributesProcessesToTheirOutermostAppAndSortsByDraw) {
  const std::int32_t code = start("/Applications/Code.app/Contents/MacOS/Electron", 1.0);
  const std::int32_t helper =
      start("/Applications/Code.app/Contents/Frameworks/Code Helper.app/Contents/MacOS/Code Helper", 2.0, code);
  const std::int32_t slack = start("/Applications/Slack.app/Contents/MacOS/Slack", 0.5);
  const std::int32_t daemon = start("/usr/libexec/syspolicyd", 0.25);
  const std::int32_t make = start("/usr/bin/make", 8.0);
  EXPECT_THAT(sampler_.sample(sim_->processes(), clock_.now()), ElementsAre()) << "no interval yet";

  auto apps = sampleAfter(10);
  std::vector<std::tuple<std::string, std::optional<std::string>, double, double, std::vector<std::int32_t>, bool>> got;
  for (const auto& a : apps) got.emplace_back(a.name, a.bundleID, a.watts, a.cores, a.pids, a.system);
  using Row = decltype(got)::value_type;
  const auto none = std::optional<std::string>();
  EXPECT_THAT(got, ElementsAre(Row{"make", none, 8.0, 2.0, {make}, false},
                               Row{"Visual Studio Code", "com.microsoft.VSCode", 3.0, 0.75, {code, helper}, false},
                               Row{"Slack", none, 0.5, 0.125, {slack}, false},
                               Row{"syspolicyd", none, 0.25, 0.0625, {daemon}, true},
                               Row{"launchd", none, 0.0, 0.0, {1}, true}));

  // A process that started and ended its work within the interval counts in
  // full; a reused pid does not inherit the old counters.
  laptop().endProcess(slack);
  const std::int32_t reused = laptop().startProcess("/usr/local/bin/ffmpeg", {}, 1, slack);
  laptop().setProcessWatts(reused, 4.0);
  clock_.advance(5);
  laptop().setProcessWatts(reused, 0.0);
  apps = sampleAfter(5);
  ASSERT_GE(apps.size(), 3u);
  EXPECT_EQ(std::tuple(apps[2].name, apps[2].watts, apps[2].pids), std::tuple("ffmpeg", 2.0, std::vector{slack}));
}

TEST_F(EnergySamplerTest, WithoutMeasuredEnergyCpuTimeStandsInForTheDraw) {
  ProcessInfo tool;
  tool.pid = 50;
  tool.path = "/usr/bin/ffmpeg";
  tool.startMicros = 1;
  sampler_.sample(std::vector<ProcessInfo>{tool}, 100.0);
  tool.cpuMicros = 1'000'000;  // half a core over two seconds
  const auto apps = sampler_.sample(std::vector<ProcessInfo>{tool}, 102.0);
  ASSERT_EQ(apps.size(), 1u);
  EXPECT_NEAR(apps[0].watts, 0.5 * kWattsPerBusyCore, 1e-9);
  EXPECT_TRUE(apps[0].estimated);
}

// Given the engine on a simulated laptop where pid 1 idles and a tool draws
// 3 W, and no closed-lid savings to make (the savings tests count those).
TEST_F(EnergySamplerTest, TheLidClosedEstimateCountsOnlySavingsThatAreMade) {
  start("/usr/bin/ffmpeg", 3.0);
  Engine engine(*sim_, dir_.file("app"));
  PowerWatch power(dir_.file("app"), nullptr);
  engine.setPowerMeter(&power);
  engine.launch();
  loop_.advance(12);  // the energy ranking is taken every 10 seconds
  CommandCenter center(engine, [] {});
  center.setAgents(nullptr, &power);
  const json rows = center.handle("energy", json::object())["apps"];
  ASSERT_EQ(rows.size(), 1u) << rows.dump() << ": pid 1 at 0.00 W is no row";
  EXPECT_EQ(rows[0]["name"], "ffmpeg");
  EXPECT_EQ(rows[0]["while_closed"], "leave") << "nothing is slowed yet";
  EXPECT_NEAR(power.closedEstimate(engine), 1.6 + 3.0, 0.01);

  // The learned draws reach the disk once a minute, and only when they moved.
  const std::string learned = dir_.file("app/learned.json");
  loop_.advance(180);
  ASSERT_TRUE(std::filesystem::exists(learned));
  std::filesystem::remove(learned);
  loop_.advance(120);
  EXPECT_FALSE(std::filesystem::exists(learned)) << "a steady draw writes nothing";
  laptop().setDraw(12.0);
  loop_.advance(120);
  EXPECT_TRUE(std::filesystem::exists(learned)) << "a changed draw is written";
}

TEST(BundleTest, OutermostBundleAndItsInfoPlist) {
  EXPECT_EQ(outermostBundle("/Applications/A.app/Contents/Frameworks/B.app/Contents/MacOS/B"),
            std::optional<std::string_view>("/Applications/A.app"));
  for (const char* path : {"/x/.app/y", "/Applications/A.application/x"}) {
    EXPECT_EQ(outermostBundle(path), std::nullopt) << path;
  }

  test::TempDir dir;
  const std::string bundle = dir.file("Tom & Jerry.app");
  std::filesystem::create_directories(bundle + "/Contents");
  test::writeFile(bundle + "/Contents/Info.plist", R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>CFBundleName</key>
  <string>Tom &amp; Jerry</string>
  <key>CFBundleIdentifier</key>	<string>com.example.tom-jerry</string>
</dict></plist>)");
  const BundleMeta meta = readBundleMeta(bundle);
  EXPECT_EQ(std::tuple(meta.displayName, meta.bundleID),
            std::tuple(std::optional<std::string>("Tom & Jerry"), std::optional<std::string>("com.example.tom-jerry")));
  const char kBinary[] = "bplist00\0\x01<key>CFBundleIdentifier</key><string>com.example</string>";
  test::writeFile(bundle + "/Contents/Info.plist", std::string(kBinary, sizeof kBinary - 1));
  EXPECT_EQ(readBundleMeta(bundle).bundleID, std::nullopt);
  EXPECT_EQ(bundleMetaFromInfoPlist("<plist><key>CFBundleIdentifier</key><string>unterminated").bundleID, std::nullopt);

  const std::pair<const char*, bool> system[] = {
      {"/System/Library/CoreServices/Dock.app/Contents/MacOS/Dock", true},
      {"/System/Cryptexes/App/System/Applications/Safari.app/Contents/MacOS/Safari", false},
      {"/usr/lib/systemd/systemd", true}};
  for (const auto& [path, expected] : system) EXPECT_EQ(isSystemLocation(path), expected) << path;
}

}  // namespace
}  // namespace vigilo
