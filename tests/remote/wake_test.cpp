#include "remote/wake.h"
#include "platform/linux/rtc_wake.h"
#include "platform/sim/sim_wake.h"

#include <gtest/gtest.h>
#include <tuple>
#include <nlohmann/json.hpp>

#include "engine/engine_fixture.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

TEST(WakePlanTest, StepsShrinkTowardsTheWakeAndNeverExceedAnHour) {
  // Seconds until the wake, check-in minutes, the next alarm step.
  const std::tuple<std::optional<double>, int, std::optional<int>> cases[] = {
      {std::nullopt, 30, 1800}, {20 * 60, 60, 900},              {8 * 60, 60, 300}, {30, 60, 60},
      {3 * 3600, 0, 3600},      {std::nullopt, 0, std::nullopt}, {-100, 0, 60},
  };
  for (const auto& [untilWake, checkIn, step] : cases) {
    EXPECT_EQ(WakePlan::nextStep(untilWake, checkIn), step) << untilWake.value_or(-1) << " " << checkIn;
  }
}

// Given the engine on the simulated laptop with scheduled wakes plugged in;
// a sleep is a jump of the clock with no tick in between.
class ScheduledWakesTest : public EngineTest {
 protected:
  ScheduledWakesTest() : wakes_(scheduler_, [this](const std::string& line) { said_.push_back(line); }) {}
  Engine& start() {
    engine_ = std::make_unique<Engine>(*sim_, folder_, EngineOptions{});
    engine_->setWorkSource(&work_);
    engine_->addSlowJobs(&wakes_);
    engine_->launch();
    return *engine_;
  }
  void sleepFor(double seconds) {
    clock_.advance(seconds);
    advance(10);
  }
  void checkInEvery(int minutes) {
    Config c = engine().config();
    c.checkInMinutes = minutes;
    engine().apply(c, true);
  }
  std::vector<std::string> holdReasons() {
    std::vector<std::string> out;
    for (const Hold& h : engine().holds()) out.push_back(h.reason);
    return out;
  }
  SimWakeScheduler scheduler_;
  ScheduledWakes wakes_;
  std::vector<std::string> said_;
};

TEST_F(ScheduledWakesTest, AWakeTwentyMinutesOutIsReachedInShrinkingStepsThenHolds) {
  Engine& e = start();
  json r =
      wakes_.wakeAt(e, {{"time", std::to_string(static_cast<long long>(clock_.now() + 20 * 60))}, {"minutes", 45}});
  ASSERT_EQ(r["ok"], true) << r.dump();
  EXPECT_EQ(scheduler_.log.back(), "wake in 900");
  laptop().setLidClosed(true);
  sleepFor(900);
  EXPECT_EQ(scheduler_.log.back(), "wake in 300");
  EXPECT_FALSE(e.holding());
  sleepFor(300);
  EXPECT_EQ(holdReasons(), std::vector<std::string>{"Scheduled wake"});
  EXPECT_FALSE(e.config().wakeAt) << "a reached wake is cleared";
  EXPECT_EQ(e.config().wakeForMinutes, 45);
  EXPECT_TRUE(Config::decode(*files().read("config.json"))->wakeAt == std::nullopt);
}

TEST_F(ScheduledWakesTest, ACheckInHoldsBrieflyAndAPhoneWakeTakesOver) {
  Engine& e = start();
  checkInEvery(15);
  advance(10);
  EXPECT_EQ(scheduler_.log.back(), "wake in 900");
  laptop().setLidClosed(true);
  advance(10);
  EXPECT_FALSE(e.holding());

  // Woken by the alarm: a short check-in hold.
  sleepFor(900);
  EXPECT_EQ(holdReasons(), std::vector<std::string>{"Checking for phone commands"});
  ASSERT_TRUE(wakes_.checkInUntil());
  // It ends by itself and the next step is armed.
  advance(30);
  EXPECT_FALSE(wakes_.checkInUntil());
  EXPECT_FALSE(e.holding());
  EXPECT_EQ(scheduler_.log.back(), "wake in 900");

  // Next check-in: the phone's wake arrives and keeps it awake.
  sleepFor(900);
  ASSERT_TRUE(wakes_.checkInUntil());
  json r = wakes_.wake(e, {{"minutes", 2000}});
  ASSERT_EQ(r["ok"], true);
  EXPECT_EQ(holdReasons(), std::vector<std::string>{"Woken from your phone"});
  ASSERT_TRUE(r["hold"]["end"].is_number());
  EXPECT_NEAR(r["hold"]["end"].get<double>() - clock_.now(), 1440 * 60, 1) << "minutes are bounded at 1440";
  advance(60);
  EXPECT_TRUE(e.holding());
  // Already awake: skipped, nothing changes.
  json again = wakes_.wake(e, {{"minutes", 5}, {"reason", "Another"}});
  EXPECT_EQ(again["skipped"], "already awake");
  EXPECT_EQ(holdReasons(), std::vector<std::string>{"Woken from your phone"});
}

TEST_F(ScheduledWakesTest, BadTimesCancelsAndMachinesThatCannotWakeAreToldApart) {
  Engine& e = start();
  for (const json& bad : {json("25:00"), json("7:00"), json(nullptr), json("12:60")}) {
    EXPECT_EQ(wakes_.wakeAt(e, {{"time", bad}})["error"], "time: HH:MM (24-hour), off, or Unix seconds") << bad;
  }
  EXPECT_EQ(wakes_.wakeAt(e, {{"time", "100"}})["error"], "That time has passed: give one still to come.");
  ASSERT_EQ(wakes_.wakeAt(e, {{"time", "07:00"}})["ok"], true);
  ASSERT_TRUE(e.config().wakeAt);
  EXPECT_GT(*e.config().wakeAt, clock_.now());
  EXPECT_LE(*e.config().wakeAt, clock_.now() + 86400);
  EXPECT_TRUE(files().exists(kWakeAlarmFile));
  EXPECT_EQ(wakes_.wakeAt(e, {{"time", "cancel"}})["ok"], true);
  EXPECT_FALSE(e.config().wakeAt);
  EXPECT_EQ(scheduler_.log.back(), "cancel");
  EXPECT_FALSE(files().exists(kWakeAlarmFile)) << "the record goes once the alarm is cleared";

  scheduler_.refusal = "This machine has no RTC wake alarm (/x), so it can't wake itself at a set time.";
  EXPECT_EQ(wakes_.wakeAt(e, {{"time", "07:00"}})["error"], *scheduler_.refusal);
  EXPECT_FALSE(e.config().wakeAt);
  // Check-ins that can't be scheduled are said once, in the same words.
  checkInEvery(15);
  advance(30);
  EXPECT_EQ(std::count(said_.begin(), said_.end(), "warning: " + *scheduler_.refusal), 1);

  laptop().setSetup(false, "broken");
  advance(10);
  EXPECT_EQ(wakes_.wake(e, {})["error"],
            "Vigilo needs its one-time setup first. Open Vigilo from the menu bar and click Continue.");
}

TEST(RtcWakeSchedulerTest, SaysWhatIsMissingAndWritesTheKernelsForm) {
  TempDir dir;
  auto missing = makeRtcWakeScheduler(dir.file("nope"));
  ASSERT_TRUE(missing->unavailable());
  EXPECT_NE(missing->unavailable()->find("no RTC wake alarm"), std::string::npos);
  writeFile(dir.file("wakealarm"), "");
  auto rtc = makeRtcWakeScheduler(dir.file("wakealarm"));
  EXPECT_FALSE(rtc->unavailable());
  ASSERT_TRUE(rtc->wakeIn(900));
  EXPECT_EQ(readFile(dir.file("wakealarm")), "+900");
  ASSERT_TRUE(rtc->cancel());
  EXPECT_EQ(readFile(dir.file("wakealarm")), "0");
}

}  // namespace
}  // namespace vigilo::test
