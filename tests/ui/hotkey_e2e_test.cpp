#include <fcntl.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "e2e/sim_app.h"
#include "platform/linux/bus_children.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

class HotkeyTest : public DesktopSessionTest {
 protected:
  std::string mode() { return status().value("mode", std::string()); }
  int press(const char* shortcut) {
    return sd_bus_call_method(bus_->bus(), "org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop",
                              "org.freedesktop.portal.GlobalShortcuts", "Press", nullptr, nullptr, "s", shortcut);
  }
};

TEST_F(HotkeyTest, PressesThroughThePortalCycleTheRunningAppsMode) {
  const int log = ::open(dir_.file("portal.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  helper_ = spawn({"/usr/bin/python3", "-m", "dbusmock", "--session", "--template",
                   sourceDir(__FILE__) + "/global_shortcuts_portal.py"},
                  log, log, env());
  ::close(log);
  ASSERT_TRUE(waitFor(
      [&] {
        std::uint32_t v = 0;
        return sd_bus_get_property_trivial(bus_->bus(), "org.freedesktop.portal.Desktop",
                                           "/org/freedesktop/portal/desktop", "org.freedesktop.portal.GlobalShortcuts",
                                           "version", nullptr, 'u', &v) >= 0;
      },
      20s))
      << readFile(dir_.file("portal.txt"));
  writeFile(home_ + "/config.json", R"({"mode": "off"})");
  startApp(env());
  ASSERT_TRUE(waitFor([&] { return readFile(dir_.file("portal.txt")).find("BindShortcuts") != std::string::npos; }, 10s))
      << readFile(dir_.file("portal.txt")) << app_->output();
  EXPECT_NE(readFile(dir_.file("portal.txt")).find("[('cycle-mode', 'CTRL+ALT+LOGO+a')]"), std::string::npos);

  for (const char* expected : {"auto", "always", "off"}) {
    ASSERT_GE(press("cycle-mode"), 0);
    EXPECT_TRUE(waitFor([&] { return mode() == expected; }, 5s)) << expected << " " << app_->output();
  }
  // Another shortcut's press is not ours.
  press("something-else");
  EXPECT_EQ(mode(), "off");
  EXPECT_EQ(status()["unavailable"].dump().find("hotkey"), std::string::npos) << status()["unavailable"].dump();
  // A portal that goes away takes the binding along, and the status says so.
  endChild(helper_);
  EXPECT_TRUE(waitFor([&] { return status()["unavailable"].dump().find("portal went away") != std::string::npos; }, 5s))
      << status().dump();
}

TEST_F(HotkeyTest, WithoutThePortalStatusAndDoctorSayTheHotkeyIsNotAvailable) {
  startApp(env());
  const std::string why =
      "The desktop offers no global shortcuts (the portal's org.freedesktop.portal.GlobalShortcuts), so the hotkey "
      "isn't available.";
  EXPECT_TRUE(waitFor([&] { return status()["unavailable"].dump().find(why) != std::string::npos; }, 5s))
      << status().dump();
  ToolRun doctor = vigilo({"doctor"}, env());
  EXPECT_NE(doctor.out.find("Not available: hotkey: " + why), std::string::npos) << doctor.out << doctor.err;
  // Turned off in the settings, nothing is claimed unavailable.
  ASSERT_EQ(vigilo({"set", "hotkey", "false"}).status, 0);
  EXPECT_TRUE(waitFor([&] { return status()["unavailable"].dump().find("hotkey") == std::string::npos; }, 5s));
  EXPECT_NE(vigilo({"doctor"}, env()).out.find("Hotkey: off"), std::string::npos);
}

}  // namespace
}  // namespace vigilo::test
