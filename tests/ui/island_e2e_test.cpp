#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "e2e/sim_app.h"
#include "remote/notify_mock.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given a private session bus with dbusmock's notification daemon, and the
// app running on the simulated laptop there.
class IslandTest : public SimAppTest {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup)";
    mock_ = std::make_unique<NotifyMock>(dir_.file("mock-err.txt"));
    if (mock_->address.empty()) {
      GTEST_SKIP() << "dbusmock's notification_daemon didn't start: " << readFile(dir_.file("mock-err.txt"));
    }
    bus_ = {"DBUS_SESSION_BUS_ADDRESS=" + mock_->address};
  }
  void TearDown() override {
    stopApp();
    mock_.reset();
  }

  // Waits until the daemon got `first` in that order, then a notification
  // titled `then`.
  bool eventuallyShown(const std::vector<json>& first, const std::string& then) {
    json last;
    const bool ok = waitFor(
        [&] {
          last = mock_->shown();
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

  std::vector<std::string> bus_;
  std::unique_ptr<NotifyMock> mock_;
};

TEST_F(IslandTest, RequestsAlertsAndChosenAnnouncementsReachTheNotificationDaemon) {
  startApp(bus_);
  ToolRun island = vigilo({"island", "Build done", "All 212 tests pass"});
  ASSERT_EQ(island.status, 0) << island.err;
  // An empty title is the product's name; a title too long to be meant is refused.
  ASSERT_EQ(vigilo({"island", "", "from a script"}).status, 0);
  ToolRun longTitle = vigilo({"island", std::string(2000, 'x')});
  EXPECT_EQ(longTitle.err, "vigilo: title is too long (at most 1024 characters)\n");
  // Announcements stay in the output until the person turns them on.
  ASSERT_EQ(vigilo({"hold", "--reason", "quiet hold"}).status, 0);
  ASSERT_EQ(vigilo({"release"}).status, 0);
  ASSERT_EQ(vigilo({"set", "notch_island", "true"}).status, 0);
  ASSERT_EQ(vigilo({"hold", "--reason", "shown hold"}).status, 0);
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
  mock_.reset();
  startApp(bus_);
  ToolRun island = vigilo({"island", "Hello"});
  EXPECT_EQ(island.status, 1);
  EXPECT_EQ(island.err,
            "vigilo: Couldn't show the announcement: No desktop session bus, so alerts can't show as desktop "
            "notifications.\n");
  ToolRun doctor = vigilo({"doctor"}, bus_);
  EXPECT_NE(doctor.out.find("Not available: No desktop session bus, so alerts can't show as desktop notifications."),
            std::string::npos)
      << doctor.out;
  EXPECT_EQ(doctor.out.find("Notifications: shown"), std::string::npos) << doctor.out;
}

}  // namespace
}  // namespace vigilo::test
