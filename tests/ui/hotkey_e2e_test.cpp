#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "e2e/app_process.h"
#include "platform/linux/bus_children.h"
#include "test_support.h"
#include "ui/hotkey.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

TEST(HotkeyModeTest, EachPressMovesToTheNextModeAndComesRound) {
  Mode m = Mode::Off;
  std::vector<std::string> seen;
  for (int i = 0; i < 4; ++i) seen.push_back(modeRequestText(m = nextMode(m)));
  EXPECT_EQ(seen, (std::vector<std::string>{"auto", "always", "off", "auto"}));
}

std::string portalTemplate() {
  const auto here = std::filesystem::path(VIGILO_BINARY).parent_path() / std::filesystem::path(__FILE__).parent_path();
  return (here / "global_shortcuts_portal.py").lexically_normal().string();
}

// Given a private session bus, and the app on the simulated laptop there.
class HotkeyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup)";
    int fds[2];
    ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
    daemon_ = spawn({"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1"}, fds[1], fds[1]);
    ::close(fds[1]);
    std::string line;
    pollfd p{fds[0], POLLIN, 0};
    while (line.find('\n') == std::string::npos && ::poll(&p, 1, 5000) > 0) {
      char buf[256];
      const ssize_t n = ::read(fds[0], buf, sizeof buf);
      if (n <= 0) break;
      line.append(buf, static_cast<std::size_t>(n));
    }
    // Kept open: a daemon whose output pipe closes dies of SIGPIPE.
    addressPipe_ = fds[0];
    address_ = line.substr(0, line.find('\n'));
    ASSERT_FALSE(address_.empty()) << "dbus-daemon printed no address";
    sd_bus* raw = nullptr;
    ASSERT_GE(sd_bus_new(&raw), 0);
    bus_.reset(raw);
    sd_bus_set_address(raw, address_.c_str());
    sd_bus_set_bus_client(raw, 1);
    ASSERT_GE(sd_bus_start(raw), 0);
    home_ = dir_.file("home");
    std::filesystem::create_directories(home_);
  }
  void TearDown() override {
    if (app_) {
      app_->signal(SIGTERM);
      app_->wait(10s);
    }
    bus_.reset();
    endChild(portal_);
    endChild(daemon_);
    if (addressPipe_ >= 0) ::close(addressPipe_);
  }

  std::vector<std::string> env() const { return {"DBUS_SESSION_BUS_ADDRESS=" + address_}; }
  void startApp() {
    app_ = std::make_unique<AppProcess>(std::vector<std::string>{"app", "--simulate", dir_.file("laptop.json")}, home_,
                                        dir_.file("app.txt"), env());
    ASSERT_TRUE(waitFor([&] { return runTool({"status"}, home_).status == 0; }, 10s)) << app_->output();
  }
  json status() { return json::parse(runTool({"status", "--json"}, home_).out, nullptr, false); }
  std::string mode() { return status().value("mode", std::string()); }

  TempDir dir_;
  std::string home_;
  std::string address_;
  pid_t daemon_ = -1;
  int addressPipe_ = -1;
  pid_t portal_ = -1;
  std::unique_ptr<sd_bus, BusUnref> bus_;
  std::unique_ptr<AppProcess> app_;
};

TEST_F(HotkeyTest, PressesThroughThePortalCycleTheRunningAppsMode) {
  const int log = ::open(dir_.file("portal.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  portal_ = spawn({"/usr/bin/python3", "-m", "dbusmock", "--session", "--template", portalTemplate()}, log, log, env());
  ::close(log);
  ASSERT_TRUE(waitFor(
      [&] {
        std::uint32_t v = 0;
        return sd_bus_get_property_trivial(bus_.get(), "org.freedesktop.portal.Desktop",
                                           "/org/freedesktop/portal/desktop", "org.freedesktop.portal.GlobalShortcuts",
                                           "version", nullptr, 'u', &v) >= 0;
      },
      20s))
      << readFile(dir_.file("portal.txt"));
  writeFile(home_ + "/config.json", R"({"mode": "off"})");
  startApp();
  ASSERT_TRUE(waitFor([&] { return readFile(dir_.file("portal.txt")).find("BindShortcuts") != std::string::npos; }, 10s))
      << readFile(dir_.file("portal.txt")) << app_->output();
  EXPECT_NE(readFile(dir_.file("portal.txt")).find("[('cycle-mode', 'CTRL+ALT+LOGO+a')]"), std::string::npos);

  for (const char* expected : {"auto", "always", "off"}) {
    ASSERT_GE(sd_bus_call_method(bus_.get(), "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                                 "org.freedesktop.portal.GlobalShortcuts", "Press", nullptr, nullptr, "s", "cycle-mode"),
              0);
    EXPECT_TRUE(waitFor([&] { return mode() == expected; }, 5s)) << expected << " " << app_->output();
  }
  // Another shortcut's press is not ours.
  sd_bus_call_method(bus_.get(), "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                     "org.freedesktop.portal.GlobalShortcuts", "Press", nullptr, nullptr, "s", "something-else");
  EXPECT_EQ(mode(), "off");
  EXPECT_EQ(status()["unavailable"].dump().find("hotkey"), std::string::npos) << status()["unavailable"].dump();
  // A portal that goes away takes the binding along, and the status says so.
  endChild(portal_);
  EXPECT_TRUE(waitFor([&] { return status()["unavailable"].dump().find("portal went away") != std::string::npos; }, 5s))
      << status().dump();
}

TEST_F(HotkeyTest, WithoutThePortalStatusAndDoctorSayTheHotkeyIsNotAvailable) {
  startApp();
  const std::string why =
      "The desktop offers no global shortcuts (the portal's org.freedesktop.portal.GlobalShortcuts), so the hotkey "
      "isn't available.";
  EXPECT_TRUE(waitFor([&] { return status()["unavailable"].dump().find(why) != std::string::npos; }, 5s))
      << status().dump();
  ToolRun doctor = runTool({"doctor"}, home_, env());
  EXPECT_NE(doctor.out.find("Not available: hotkey: " + why), std::string::npos) << doctor.out << doctor.err;
  // Turned off in the settings, nothing is claimed unavailable.
  ASSERT_EQ(runTool({"set", "hotkey", "false"}, home_).status, 0);
  EXPECT_TRUE(waitFor([&] { return status()["unavailable"].dump().find("hotkey") == std::string::npos; }, 5s));
  EXPECT_NE(runTool({"doctor"}, home_, env()).out.find("Hotkey: off"), std::string::npos);
}

}  // namespace
}  // namespace vigilo::test
