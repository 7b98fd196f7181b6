#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <filesystem>

#include "e2e/sim_app.h"
#include "engine/config.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

// Given `vigilo app --simulate` in a temporary folder, driven by the real
// tool as a person would.
using WakeCommandsTest = SimAppTest;

TEST_F(WakeCommandsTest, WakeAtAndCheckInDoWhatTheHelpSays) {
  // Wakes are looked at every tenth second of the laptop's clock: at five
  // times the speed, every two seconds.
  writeFile(state_, R"({"clockSpeed": 5})");
  startApp();
  auto config = [&] {
    return Config::fromJson(nlohmann::json::parse(readFile(home_ + "/config.json"), nullptr, false));
  };

  // Three hours from now, so the wake is always more than an hour away.
  const std::time_t later = std::time(nullptr) + 3 * 3600;
  std::tm local{};
  ::localtime_r(&later, &local);
  char at3h[6];
  std::strftime(at3h, sizeof at3h, "%H:%M", &local);
  ToolRun at = vigilo({"wake-at", at3h, "--for", "45m"});
  ASSERT_EQ(at.status, 0) << at.err;
  EXPECT_EQ(at.out.rfind("Wakes at " + std::string(at3h) + ".\n", 0), 0u) << at.out;
  ASSERT_TRUE(config().wakeAt);
  EXPECT_EQ(config().wakeForMinutes, 45);
  // The simulated laptop's wake timer is armed in steps of at most an hour.
  ASSERT_TRUE(waitFor([&] { return outputHas("wakes itself in 3600 s"); }, 15s))
      << app_->output();

  ToolRun bad = vigilo({"wake-at", "7pm"});
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "vigilo: time: HH:MM (24-hour), off, or Unix seconds\n");
  EXPECT_EQ(vigilo({"wake-at"}).err, "vigilo: usage: vigilo wake-at HH:MM [--for 30m] | off\n");

  ToolRun off = vigilo({"wake-at", "off"});
  ASSERT_EQ(off.status, 0) << off.err;
  EXPECT_EQ(off.out.rfind("No scheduled wake.\n", 0), 0u) << off.out;
  EXPECT_FALSE(config().wakeAt);

  ASSERT_EQ(vigilo({"check-in", "15"}).status, 0);
  EXPECT_EQ(config().checkInMinutes, 15);
  EXPECT_TRUE(waitFor([&] { return outputHas("wakes itself in 900 s"); }, 15s))
      << app_->output();
}

}  // namespace
}  // namespace vigilo::test
