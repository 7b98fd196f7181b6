#include <fcntl.h>
#include <gtest/gtest.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "e2e/sim_app.h"
#include "panel/png_reader.h"
#include "platform/linux/bus_children.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

// Walks one (ia{sv}av) menu node for the item labelled `label`.
std::optional<int> findLabel(sd_bus_message* m, const std::string& label) {
  std::optional<int> found;
  std::int32_t id = 0;
  if (sd_bus_message_enter_container(m, 'r', "ia{sv}av") <= 0 || sd_bus_message_read(m, "i", &id) < 0) return found;
  sd_bus_message_enter_container(m, 'a', "{sv}");
  while (sd_bus_message_enter_container(m, 'e', "sv") > 0) {
    const char* key = nullptr;
    sd_bus_message_read(m, "s", &key);
    if (std::string(key) == "label") {
      const char* text = nullptr;
      sd_bus_message_read(m, "v", "s", &text);
      if (text != nullptr && label == text) found = id;
    } else {
      sd_bus_message_skip(m, "v");
    }
    sd_bus_message_exit_container(m);
  }
  sd_bus_message_exit_container(m);
  sd_bus_message_enter_container(m, 'a', "v");
  while (sd_bus_message_enter_container(m, 'v', "(ia{sv}av)") > 0) {
    if (auto child = findLabel(m, label); child && !found) found = child;
    sd_bus_message_exit_container(m);
  }
  sd_bus_message_exit_container(m);
  sd_bus_message_exit_container(m);
  return found;
}

// Given the desktop session with no tray host yet.
class TrayTest : public DesktopSessionTest {
 protected:
  void SetUp() override {
    if (!pythonCan("import dbus, gi.repository.GLib")) GTEST_SKIP() << "python3-dbus is not installed (scripts/setup)";
    DesktopSessionTest::SetUp();
  }

  // The tray host, under the process name `as` when given.
  void startWatcher(const std::string& as = "") {
    const int log = ::open(dir_.file("watcher.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    std::vector<std::string> argv{"/usr/bin/python3", sourceDir(__FILE__) + "/fake_watcher.py"};
    if (!as.empty()) argv.push_back(as);
    helper_ = spawn(argv, log, log, env());
    ::close(log);
  }
  int registrations() {
    const std::string log = readFile(dir_.file("watcher.txt")), line = "registered " + itemName();
    int n = 0;
    for (auto at = log.find(line); at != std::string::npos; at = log.find(line, at + 1)) ++n;
    return n;
  }

  std::string itemName() const { return "org.kde.StatusNotifierItem-" + std::to_string(app_->pid()) + "-1"; }
  // A property of the tray item; for the tooltip, its text.
  std::string property(const char* name) {
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/StatusNotifierItem",
                                     "org.freedesktop.DBus.Properties", "Get", nullptr, &raw, "ss",
                                     "org.kde.StatusNotifierItem", name);
    Message reply(raw);
    const char* text = nullptr;
    if (r < 0) return {};
    if (std::string_view(name) == "ToolTip") {
      sd_bus_message_enter_container(raw, 'v', "(sa(iiay)ss)");
      sd_bus_message_enter_container(raw, 'r', "sa(iiay)ss");
      sd_bus_message_skip(raw, "sa(iiay)s");
      sd_bus_message_read(raw, "s", &text);
    } else {
      sd_bus_message_read(raw, "v", "s", &text);
    }
    return text != nullptr ? text : "";
  }

  // Clicks the menu item labelled `label`, as a host does; false when there is none.
  bool click(const std::string& label) {
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/MenuBar", "com.canonical.dbusmenu",
                                     "GetLayout", nullptr, &raw, "iias", 0, -1, 0);
    Message reply(raw);
    std::uint32_t revision = 0;
    if (r < 0 || sd_bus_message_read(raw, "u", &revision) < 0) return false;
    const std::optional<int> id = findLabel(raw, label);
    return id && sd_bus_call_method(bus_->bus(), itemName().c_str(), "/MenuBar", "com.canonical.dbusmenu",
                                    "Event", nullptr, nullptr, "isvu", *id, "clicked", "s", "", 0u) >= 0;
  }
  void expectBecomes(const char* name, const std::string& expected) {
    EXPECT_TRUE(waitFor([&] { return property(name) == expected; }, 5s)) << name << " is " << property(name);
  }

  // The README's picture of the item and its menu, drawn from the bus as a
  // host shows them, into the build folder.
  void drawTrayPicture() {
    if (!pythonCan("import gi; gi.require_version('GdkPixbuf', '2.0')")) return;
    const std::string shot = (std::filesystem::path(VIGILO_BINARY).parent_path() / "tray-menu.png").string();
    std::filesystem::remove(shot);
    const std::string script = sourceDir(__FILE__) + "/tray_picture.py";
    ShellRun painter = shell("DBUS_SESSION_BUS_ADDRESS='" + address_ + "' timeout 30 /usr/bin/python3 '" +
                             script + "' " + itemName() + " '" + shot + "'");
    ASSERT_EQ(painter.status, 0) << painter.out;
    auto picture = readPng(shot);
    ASSERT_TRUE(picture.has_value()) << painter.out;
    EXPECT_GT(distinctColours(*picture), 8);
  }
};

TEST_F(TrayTest, RegistersWhenTheHostAppearsFollowsTheStatusAndTakesClicks) {
  writeFile(home_ + "/config.json", R"({"mode": "auto"})");
  startApp(env());
  // No tray host yet: the app runs on and says why there is no icon.
  ASSERT_TRUE(waitFor([&] { return outputHas("no StatusNotifierWatcher"); }, 10s)) << app_->output();

  startWatcher();
  ASSERT_TRUE(waitFor([&] { return registrations() == 1; }, 20s))
      << readFile(dir_.file("watcher.txt")) << app_->output();
  EXPECT_EQ(property("ToolTip"), "Nothing running · sleeps when closed");
  // The icons come from the checkout beside the build.
  EXPECT_EQ(property("IconThemePath"),
            std::filesystem::path(std::string(VIGILO_SOURCE_DIR) + "/data/icons").lexically_normal().string());
  EXPECT_TRUE(waitFor([&] { return outputHas("The tray icon is shown"); }, 4s)) << app_->output();

  ASSERT_EQ(vigilo({"hold", "--reason", "training run"}).status, 0);
  expectBecomes("ToolTip", "training run · stays awake closed");
  ASSERT_EQ(vigilo({"release"}).status, 0);
  ASSERT_TRUE(click("Always"));
  expectBecomes("ToolTip", "Awake until you turn it off");
  EXPECT_EQ(status().value("mode", ""), "always") << status().dump();
  // This host draws icons as they are: the full-colour ones.
  EXPECT_EQ(property("IconName"), "vigilo-awake-always");

  // A host that recolours symbolic icons to its panel (GNOME Shell) takes
  // over: the item registers again and names the symbolic variant.
  endChild(helper_);
  startWatcher("gnome-shell");
  ASSERT_TRUE(waitFor([&] { return registrations() == 2; }, 20s)) << readFile(dir_.file("watcher.txt"));
  expectBecomes("IconName", "vigilo-awake-always-symbolic");
  drawTrayPicture();

  ASSERT_TRUE(click("Quit Vigilo"));
  EXPECT_EQ(app_->wait(10s), 0) << app_->output();
  EXPECT_NE(app_->output().find("Quitting: putting everything back"), std::string::npos);
}

TEST_F(TrayTest, SaysSoWhenItsIconsCantBeFound) {
  // Given a `vigilo` copied out of its build folder, with no icons beside
  // it and none in the icon theme's folders.
  std::filesystem::create_directories(dir_.file("bin"));
  std::filesystem::copy_file(VIGILO_BINARY, dir_.file("bin/vigilo"));
  binary_ = dir_.file("bin/vigilo");
  startWatcher();
  startApp({env()[0], "XDG_DATA_HOME=" + dir_.file("none"), "XDG_DATA_DIRS=" + dir_.file("none")});
  ASSERT_TRUE(waitFor([&] { return outputHas("warning: the tray icon has no picture: Vigilo's icons aren't installed"); },
                      10s))
      << app_->output();
  EXPECT_FALSE(outputHas("The tray icon is shown")) << app_->output();
}

}  // namespace
}  // namespace vigilo::test
