#include <gtest/gtest.h>

#include <csignal>
#include <ctime>
#include <filesystem>

#include "e2e/app_process.h"
#include "engine/config.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

// Given `vigilo app --simulate` in a temporary folder, driven by the real
// tool as a person would.
TEST(WakeCommandsTest, WakeAtAndCheckInDoWhatTheHelpSays) {
  TempDir dir;
  const std::string home = dir.file("home");
  std::filesystem::create_directories(home);
  AppProcess app({"app", "--simulate", dir.file("laptop.json")}, home, dir.file("app.txt"));
  ASSERT_TRUE(waitFor([&] { return app.output().find("sleeps when closed") != std::string::npos; }, 10s))
      << app.output();
  auto config = [&] {
    return Config::fromJson(nlohmann::json::parse(readFile(home + "/config.json"), nullptr, false));
  };

  // Three hours from now, so the wake is always more than an hour away.
  const std::time_t later = std::time(nullptr) + 3 * 3600;
  std::tm local{};
  ::localtime_r(&later, &local);
  char at3h[6];
  std::strftime(at3h, sizeof at3h, "%H:%M", &local);
  ToolRun at = runTool({"wake-at", at3h, "--for", "45m"}, home);
  ASSERT_EQ(at.status, 0) << at.err;
  EXPECT_EQ(at.out.rfind("Wakes at " + std::string(at3h) + ".\n", 0), 0u) << at.out;
  ASSERT_TRUE(config().wakeAt);
  EXPECT_EQ(config().wakeForMinutes, 45);
  // The simulated laptop's wake timer is armed in steps of at most an hour.
  ASSERT_TRUE(waitFor([&] { return app.output().find("wakes itself in 3600 s") != std::string::npos; }, 15s))
      << app.output();

  ToolRun bad = runTool({"wake-at", "7pm"}, home);
  EXPECT_EQ(bad.status, 1);
  EXPECT_EQ(bad.err, "vigilo: time: HH:MM (24-hour), off, or Unix seconds\n");
  EXPECT_EQ(runTool({"wake-at"}, home).err, "vigilo: usage: vigilo wake-at HH:MM [--for 30m] | off\n");

  ToolRun off = runTool({"wake-at", "off"}, home);
  ASSERT_EQ(off.status, 0) << off.err;
  EXPECT_EQ(off.out.rfind("No scheduled wake.\n", 0), 0u) << off.out;
  EXPECT_FALSE(config().wakeAt);

  ASSERT_EQ(runTool({"check-in", "15"}, home).status, 0);
  EXPECT_EQ(config().checkInMinutes, 15);
  EXPECT_TRUE(waitFor([&] { return app.output().find("wakes itself in 900 s") != std::string::npos; }, 15s))
      << app.output();

  app.signal(SIGTERM);
  EXPECT_EQ(app.wait(15s), 0) << app.output();
}

}  // namespace
}  // namespace vigilo::test
