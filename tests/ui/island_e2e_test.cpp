#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "commands/channel.h"
#include "e2e/piped_process.h"
#include "e2e/sim_app.h"
#include "platform/linux/bus_children.h"
#include "platform/linux/desktop_session.h"
#include "platform/runtime_folder.h"
#include "remote/notify_mock.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given a private session bus with dbusmock's notification daemon, and the
// app running on the simulated laptop there.
class IslandTest : public DesktopSessionTest {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup)";
    mock_ = std::make_unique<NotifyMock>(dir_.file("mock-err.txt"));
    if (mock_->address.empty()) {
      GTEST_SKIP() << "dbusmock's notification daemon didn't start: " << readFile(dir_.file("mock-err.txt"));
    }
    address_ = mock_->address;
  }
  // The notifications the daemon got, once there are `count` of them.
  json shownOnce(std::size_t count) {
    json shown;
    waitFor(
        [&] {
          shown = mock_->shown();
          return shown.is_array() && shown.size() == count;
        },
        15s);
    EXPECT_EQ(shown.size(), count) << shown.dump();
    return shown;
  }

  std::unique_ptr<NotifyMock> mock_;
};

TEST_F(IslandTest, RequestsAlertsAndChosenAnnouncementsReachTheNotificationDaemon) {
  startApp(env());
  ToolRun island = vigilo({"island", "Build done", "All 212 tests pass"});
  ASSERT_EQ(island.status, 0) << island.err;
  // An empty title is the product's name; a title too long to be meant is refused.
  ASSERT_EQ(vigilo({"island", "", "from a script"}).status, 0);
  EXPECT_EQ(vigilo({"island", std::string(2000, 'x')}).status, 1);
  // Announcements stay in the output until the person turns them on.
  ASSERT_EQ(vigilo({"hold", "--reason", "quiet hold"}).status, 0);
  ASSERT_EQ(vigilo({"release"}).status, 0);
  ASSERT_EQ(vigilo({"set", "notch_island", "true"}).status, 0);
  ASSERT_EQ(vigilo({"hold", "--reason", "shown hold"}).status, 0);
  // The engine's own alert: an edit that loosens a safety setting.
  json config = json::parse(readFile(home_ + "/config.json"));
  config["batteryFloor"] = 1;
  writeFile(home_ + "/config.json", config.dump());
  json shown = shownOnce(5);
  ASSERT_EQ(shown.size(), 5u) << app_->output();
  EXPECT_EQ(shown[4][1], "Settings file change ignored");
  shown.erase(4);
  EXPECT_EQ(shown, json::parse(R"([["Vigilo", "Build done", "All 212 tests pass"],
      ["Vigilo", "Vigilo", "from a script"], ["Vigilo", "Vigilo", "shown hold"],
      ["Vigilo", "Vigilo", "Staying awake"]])"));
}

TEST_F(IslandTest, WithoutASessionBusIslandSaysWhyAndDoctorToo) {
  // Given the bus gone, taken along by the ended mock.
  mock_.reset();
  startApp(env());
  ToolRun island = vigilo({"island", "Hello"});
  EXPECT_EQ(island.status, 1);
  EXPECT_NE(island.err.find("Couldn't show the announcement"), std::string::npos) << island.err;
  ToolRun doctor = vigilo({"doctor"}, env());
  EXPECT_NE(doctor.out.find("Not available: No desktop session bus, so alerts can't show as desktop notifications."),
            std::string::npos)
      << doctor.out;
  EXPECT_EQ(doctor.out.find("Notifications: shown"), std::string::npos) << doctor.out;
}

// Given a login session played by a runtime folder with the session bus in
// it, a notification daemon on that bus, and a user manager that the desktop
// hasn't handed a display yet: an agent's MCP client starts `vigilo mcp`
// with nothing but HOME and PATH (and the simulated laptop), and the app it
// starts still reaches the desktop.
TEST_F(IslandTest, AnAppStartedByAnAgentWithAStrippedEnvironmentJoinsTheDesktop) {
  mock_.reset();
  const std::string runtime = dir_.file("run/" + std::to_string(::getuid()));
  std::filesystem::create_directories(runtime);
  std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
  mock_ = std::make_unique<NotifyMock>(dir_.file("mock-err.txt"),
                                       std::vector<std::string>{runtime, "LANG=C.UTF-8", "XDG_SESSION_TYPE=tty"});
  ASSERT_FALSE(mock_->address.empty()) << readFile(dir_.file("mock-err.txt"));
  const std::string user = dir_.file("user");
  const std::string folder = user + "/.local/share/vigilo";
  // Whatever fails below, no app is left behind.
  struct Leftovers {
    std::string folder;
    ~Leftovers() {
      if (auto app = runningApp(folder); app && *app > 0) {
        ::kill(*app, SIGTERM);
        waitFor([&] { return !runningApp(folder); }, 15s);
      }
    }
  } leftovers{folder};

  std::filesystem::create_directories(user);
  auto stripped = [&](std::vector<std::string> args) {
    std::vector<std::string> argv{"/usr/bin/env", "-i", "HOME=" + user, "PATH=/usr/bin:/bin",
                                  "VIGILO_SIMULATE=" + state_, std::string(kRunUserVariable) + "=" + dir_.file("run"),
                                  VIGILO_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  };
  {
    PipedProcess mcp(stripped({"mcp"}), {}, dir_.file("mcp-err.txt"));
    mcp.write(R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})" "\n");
    ASSERT_TRUE(mcp.readLine(10s));
    mcp.write(R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"vigilo_status","arguments":{}}})" "\n");
    auto reply = mcp.readLine(20s);
    ASSERT_TRUE(reply) << readFile(dir_.file("mcp-err.txt"));
    EXPECT_FALSE(json::parse(*reply)["result"].value("isError", false)) << *reply;
  }
  const auto app = runningApp(folder);
  ASSERT_TRUE(app && *app > 0) << readFile(folder + "/app.log");
  // Its notifications reach the daemon: an announcement, and why the panel
  // can't open without a display.
  auto run = [&](std::vector<std::string> args) {
    PipedProcess tool(stripped(std::move(args)), {}, dir_.file("tool-err.txt"));
    tool.closeInput();
    return tool.wait(20s);
  };
  EXPECT_EQ(run({"island", "Build done", "from an agent"}), 0) << readFile(dir_.file("tool-err.txt"));
  EXPECT_EQ(run({"open"}), 1);
  const json shown = shownOnce(2);
  ASSERT_EQ(shown.size(), 2u);
  EXPECT_EQ(shown[0], json::parse(R"(["Vigilo", "Build done", "from an agent"])"));
  EXPECT_EQ(shown[1][1], "Vigilo can't open its panel");

  ::kill(*app, SIGTERM);
  EXPECT_TRUE(waitFor([&] { return !runningApp(folder); }, 15s)) << readFile(folder + "/app.log");
}

// The display the desktop handed the user manager fills what the caller
// lacks; what the caller has, even empty, stays.
TEST_F(IslandTest, TheDesktopsVariablesComeFromTheUserManager) {
  mock_.reset();
  const std::string runtime = dir_.file("run");
  std::filesystem::create_directories(runtime);
  mock_ = std::make_unique<NotifyMock>(dir_.file("mock-err.txt"),
                                       std::vector<std::string>{runtime, "DISPLAY=:42", "WAYLAND_DISPLAY=wayland-1",
                                                                "XAUTHORITY=/x/.Xauthority", "PATH=/elsewhere"});
  ASSERT_FALSE(mock_->address.empty()) << readFile(dir_.file("mock-err.txt"));
  static std::map<std::string, std::string> caller;
  const auto current = [](const char* name) -> const char* {
    const auto it = caller.find(name);
    return it == caller.end() ? nullptr : it->second.c_str();
  };
  using Gaps = std::vector<EnvironmentEntry>;
  EXPECT_EQ(desktopSessionGaps({runtime, "unix:path=/nonexistent"}, current),
            (Gaps{{"XDG_RUNTIME_DIR", runtime},
                  {"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + runtime + "/bus"},
                  {"DISPLAY", ":42"},
                  {"WAYLAND_DISPLAY", "wayland-1"},
                  {"XAUTHORITY", "/x/.Xauthority"}}));
  // A caller that names its bus and has an empty WAYLAND_DISPLAY.
  caller = {{"WAYLAND_DISPLAY", ""}, {"DBUS_SESSION_BUS_ADDRESS", mock_->address}};
  EXPECT_EQ(desktopSessionGaps({runtime, "unix:path=/nonexistent"}, current),
            (Gaps{{"XDG_RUNTIME_DIR", runtime}, {"DISPLAY", ":42"}, {"XAUTHORITY", "/x/.Xauthority"}}));
}

}  // namespace
}  // namespace vigilo::test
