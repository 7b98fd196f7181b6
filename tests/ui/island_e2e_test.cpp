#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "e2e/app_process.h"
#include "e2e/piped_process.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

std::string notifyMock() {
  std::filesystem::path p(__FILE__);
  if (p.is_relative()) p = std::filesystem::path(VIGILO_BINARY).parent_path() / p;
  return (p.lexically_normal().parent_path().parent_path() / "remote" / "notify_mock.py").string();
}

// Given a private session bus with dbusmock's notification daemon, and the
// app running on the simulated laptop there.
class IslandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup)";
    mock_ = std::make_unique<PipedProcess>(std::vector<std::string>{notifyMock()}, std::vector<std::string>{},
                                           dir_.file("mock-err.txt"));
    auto address = mock_->readLine(30s);
    if (!address) GTEST_SKIP() << "dbusmock's notification_daemon didn't start: " << readFile(dir_.file("mock-err.txt"));
    bus_ = {"DBUS_SESSION_BUS_ADDRESS=" + *address};
    home_ = dir_.file("home");
    std::filesystem::create_directories(home_);
  }
  void TearDown() override {
    if (app_) {
      app_->signal(SIGTERM);
      app_->wait(10s);
    }
    // Ended by closing its input: it takes its bus and the mock along.
    if (mock_) {
      mock_->closeInput();
      if (mock_->wait(10s) < 0) mock_->signal(SIGTERM);
      mock_->wait(5s);
    }
  }

  void startApp() {
    app_ = std::make_unique<AppProcess>(std::vector<std::string>{"app", "--simulate", dir_.file("laptop.json")}, home_,
                                        dir_.file("app.txt"), bus_);
    ASSERT_TRUE(waitFor([&] { return runTool({"status"}, home_).status == 0; }, 10s)) << app_->output();
  }

  // The notifications the daemon got so far, as [app, title, body].
  json shown() {
    if (!mock_->write("\n")) return json();
    auto line = mock_->readLine(10s);
    return line ? json::parse(*line, nullptr, false) : json();
  }
  // Waits until the daemon got `first` in that order, then a notification
  // titled `then`.
  bool eventuallyShown(const std::vector<json>& first, const std::string& then) {
    json last;
    const bool ok = waitFor(
        [&] {
          last = shown();
          if (!last.is_array() || last.size() != first.size() + 1) return false;
          for (std::size_t i = 0; i < first.size(); ++i) {
            if (last[i] != first[i]) return false;
          }
          return last.back()[1] == then;
        },
        15s);
    if (!ok) ADD_FAILURE() << last.dump();
    return ok;
  }

  TempDir dir_;
  std::string home_;
  std::vector<std::string> bus_;
  std::unique_ptr<PipedProcess> mock_;
  std::unique_ptr<AppProcess> app_;
};

TEST_F(IslandTest, RequestsAlertsAndChosenAnnouncementsReachTheNotificationDaemon) {
  startApp();
  ToolRun island = runTool({"island", "Build done", "All 212 tests pass"}, home_);
  ASSERT_EQ(island.status, 0) << island.err;
  // An empty title is the product's name; a title too long to be meant is refused.
  ASSERT_EQ(runTool({"island", "", "from a script"}, home_).status, 0);
  ToolRun longTitle = runTool({"island", std::string(2000, 'x')}, home_);
  EXPECT_EQ(longTitle.err, "vigilo: title is too long (at most 1024 characters)\n");
  // Announcements stay in the output until the person turns them on.
  ASSERT_EQ(runTool({"hold", "--reason", "quiet hold"}, home_).status, 0);
  ASSERT_EQ(runTool({"release"}, home_).status, 0);
  ASSERT_EQ(runTool({"set", "notch_island", "true"}, home_).status, 0);
  ASSERT_EQ(runTool({"hold", "--reason", "shown hold"}, home_).status, 0);
  // The engine's own alert: an edit that loosens a safety setting.
  json config = json::parse(readFile(home_ + "/config.json"));
  config["batteryFloor"] = 1;
  writeFile(home_ + "/config.json", config.dump());
  EXPECT_TRUE(eventuallyShown(json::parse(R"([
      ["Vigilo", "Build done", "All 212 tests pass"],
      ["Vigilo", "Vigilo", "from a script"],
      ["Vigilo", "Vigilo", "shown hold"],
      ["Vigilo", "Vigilo", "Staying awake"]])")
                                  .get<std::vector<json>>(),
                              "Settings file change ignored"))
      << app_->output();
}

TEST_F(IslandTest, WithoutASessionBusIslandSaysWhyAndDoctorToo) {
  // Given the bus gone, taken along by the ended mock.
  mock_->closeInput();
  mock_->wait(10s);
  mock_.reset();
  startApp();
  ToolRun island = runTool({"island", "Hello"}, home_);
  EXPECT_EQ(island.status, 1);
  EXPECT_EQ(island.err,
            "vigilo: Couldn't show the announcement: No desktop session bus, so alerts can't show as desktop "
            "notifications.\n");
  ToolRun doctor = runTool({"doctor"}, home_, bus_);
  EXPECT_NE(doctor.out.find("Not available: No desktop session bus, so alerts can't show as desktop notifications."),
            std::string::npos)
      << doctor.out;
  EXPECT_EQ(doctor.out.find("Notifications: shown"), std::string::npos) << doctor.out;
}

}  // namespace
}  // namespace vigilo::test
