#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

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
    helper_ = spawn(argv, log, log, {"DBUS_SESSION_BUS_ADDRESS=" + bus_->address()});
    ::close(log);
  }
  int registrations() {
    const std::string log = readFile(dir_.file("watcher.txt"));
    int n = 0;
    for (auto at = log.find("registered " + itemName()); at != std::string::npos;
         at = log.find("registered " + itemName(), at + 1)) {
      ++n;
    }
    return n;
  }

  std::string iconName() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/StatusNotifierItem",
                                     "org.freedesktop.DBus.Properties", "Get", &error, &raw, "ss",
                                     "org.kde.StatusNotifierItem", "IconName");
    sd_bus_error_free(&error);
    Message reply(raw);
    const char* name = nullptr;
    if (r < 0 || sd_bus_message_read(raw, "v", "s", &name) < 0 || name == nullptr) return {};
    return name;
  }
  std::string itemName() const { return "org.kde.StatusNotifierItem-" + std::to_string(app_->pid()) + "-1"; }

  std::string tooltip() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/StatusNotifierItem",
                                     "org.freedesktop.DBus.Properties", "Get", &error, &raw, "ss",
                                     "org.kde.StatusNotifierItem", "ToolTip");
    sd_bus_error_free(&error);
    Message reply(raw);
    if (r < 0) return {};
    const char *icon = nullptr, *title = nullptr, *text = nullptr;
    sd_bus_message_enter_container(raw, 'v', "(sa(iiay)ss)");
    sd_bus_message_enter_container(raw, 'r', "sa(iiay)ss");
    sd_bus_message_read(raw, "s", &icon);
    sd_bus_message_skip(raw, "a(iiay)");
    sd_bus_message_read(raw, "ss", &title, &text);
    return text != nullptr ? text : "";
  }

  std::optional<int> menuItem(const std::string& label) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/MenuBar", "com.canonical.dbusmenu",
                                     "GetLayout", &error, &raw, "iias", 0, -1, 0);
    sd_bus_error_free(&error);
    Message reply(raw);
    std::uint32_t revision = 0;
    if (r < 0 || sd_bus_message_read(raw, "u", &revision) < 0) return std::nullopt;
    return findLabel(raw, label);
  }

  int click(int id) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/MenuBar", "com.canonical.dbusmenu", "Event",
                                     &error, nullptr, "isvu", id, "clicked", "s", "", 0u);
    sd_bus_error_free(&error);
    return r;
  }

  std::string iconThemePath() {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus_->bus(), itemName().c_str(), "/StatusNotifierItem",
                                     "org.freedesktop.DBus.Properties", "Get", &error, &raw, "ss",
                                     "org.kde.StatusNotifierItem", "IconThemePath");
    sd_bus_error_free(&error);
    Message reply(raw);
    const char* path = nullptr;
    if (r < 0 || sd_bus_message_read(raw, "v", "s", &path) < 0 || path == nullptr) return {};
    return path;
  }

  std::string statusLine() {
    ToolRun run = vigilo({"status"});
    return run.out.substr(0, run.out.find('\n'));
  }

  // The README's picture of the item and its menu, drawn from the bus as a
  // host shows them, into the build folder.
  void drawTrayPicture() {
    if (!pythonCan("import gi; gi.require_version('GdkPixbuf', '2.0')")) return;
    const std::string shot = (std::filesystem::path(VIGILO_BINARY).parent_path() / "tray-menu.png").string();
    std::filesystem::remove(shot);
    const int log = ::open(dir_.file("picture.txt").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_t painter = spawn({"/usr/bin/python3", sourceDir(__FILE__) + "/tray_picture.py", itemName(), shot}, log, log,
                          {"DBUS_SESSION_BUS_ADDRESS=" + bus_->address()});
    ::close(log);
    int status = -1;
    const bool done = waitFor([&] { return ::waitpid(painter, &status, WNOHANG) == painter; }, 30s);
    if (!done) endChild(painter);
    ASSERT_TRUE(done && WIFEXITED(status) && WEXITSTATUS(status) == 0) << readFile(dir_.file("picture.txt"));
    auto picture = readPng(shot);
    ASSERT_TRUE(picture.has_value()) << readFile(dir_.file("picture.txt"));
    EXPECT_GT(distinctColours(*picture), 8);
  }
};

TEST_F(TrayTest, RegistersWhenTheHostAppearsFollowsTheStatusAndTakesClicks) {
  writeFile(home_ + "/config.json", R"({"mode": "auto"})");
  startApp({"DBUS_SESSION_BUS_ADDRESS=" + bus_->address()});
  // No tray host yet: the app runs on and says why there is no icon.
  ASSERT_TRUE(waitFor([&] { return outputHas("no StatusNotifierWatcher"); }, 10s)) << app_->output();

  startWatcher();
  ASSERT_TRUE(waitFor(
      [&] { return readFile(dir_.file("watcher.txt")).find("registered " + itemName()) != std::string::npos; }, 20s))
      << readFile(dir_.file("watcher.txt")) << app_->output();
  EXPECT_EQ(tooltip(), "Nothing running · sleeps when closed");
  // The icons come from the checkout beside the build.
  EXPECT_EQ(iconThemePath(), std::filesystem::path(std::string(VIGILO_SOURCE_DIR) + "/data/icons").lexically_normal().string());
  EXPECT_TRUE(waitFor([&] { return outputHas("The tray icon is shown"); }, 4s)) << app_->output();

  // A hold changes the status; the tooltip follows within a tick.
  ASSERT_EQ(vigilo({"hold", "--reason", "training run"}).status, 0);
  EXPECT_TRUE(waitFor([&] { return tooltip() == "training run · stays awake closed"; }, 4s)) << tooltip();
  ASSERT_EQ(vigilo({"release"}).status, 0);

  auto always = menuItem("Always");
  ASSERT_TRUE(always);
  ASSERT_GE(click(*always), 0);
  EXPECT_TRUE(waitFor([&] { return statusLine() == "Awake until you turn it off"; }, 5s)) << statusLine();
  EXPECT_EQ(status().value("mode", ""), "always") << status().dump();
  EXPECT_TRUE(waitFor([&] { return tooltip() == "Awake until you turn it off"; }, 3s)) << tooltip();
  // This host draws icons as they are: the full-colour ones.
  EXPECT_EQ(iconName(), "vigilo-awake-always");

  // A host that recolours symbolic icons to its panel (GNOME Shell) takes
  // over: the item registers again and names the symbolic variant.
  endChild(helper_);
  startWatcher("gnome-shell");
  ASSERT_TRUE(waitFor([&] { return registrations() == 2; }, 20s)) << readFile(dir_.file("watcher.txt"));
  EXPECT_TRUE(waitFor([&] { return iconName() == "vigilo-awake-always-symbolic"; }, 5s)) << iconName();
  drawTrayPicture();

  // Quit from the menu puts everything back and ends the app cleanly.
  auto quit = menuItem("Quit Vigilo");
  ASSERT_TRUE(quit);
  ASSERT_GE(click(*quit), 0);
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
  startApp({"DBUS_SESSION_BUS_ADDRESS=" + bus_->address(), "XDG_DATA_HOME=" + dir_.file("none"),
            "XDG_DATA_DIRS=" + dir_.file("none")});
  ASSERT_TRUE(waitFor([&] { return outputHas("warning: the tray icon has no picture: Vigilo's icons aren't installed"); },
                      10s))
      << app_->output();
  EXPECT_FALSE(outputHas("The tray icon is shown")) << app_->output();
}

}  // namespace
}  // namespace vigilo::test
