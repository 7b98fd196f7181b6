#include <csignal>
#include <filesystem>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "commands/channel.h"
#include "e2e/piped_process.h"
#include "e2e/sim_app.h"
#include "panel/png_reader.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// The build folder, where the pictures of each tab are kept after a run.
std::string buildFolder() { return std::filesystem::path(VIGILO_BINARY).parent_path().string(); }

// The mean of every channel of every pixel, 0 (black) to 1 (white).
double meanBrightness(const Picture& p) {
  double sum = 0;
  std::size_t count = 0;
  for (std::size_t i = 0; i + p.channels <= p.pixels.size(); i += p.channels) {
    for (int c = 0; c < 3; ++c) sum += p.pixels[i + c];
    count += 3;
  }
  return count == 0 ? 0 : sum / count / 255.0;
}

// A private X server for one test on a display it chose, gone with it.
class Xvfb {
 public:
  Xvfb() {
    if (::access("/usr/bin/Xvfb", X_OK) != 0) return;
    std::vector<std::string> argv{"/usr/bin/Xvfb", "-displayfd", "1", "-nolisten", "tcp",
                                  "-screen", "0", "1024x768x24"};
    server_ = std::make_unique<PipedProcess>(argv, std::vector<std::string>{}, "/dev/null");
    if (auto number = server_->readLine(10s)) display_ = ":" + *number;
  }
  ~Xvfb() {
    if (!server_) return;
    server_->signal(SIGTERM);
    server_->wait(5s);
  }
  bool running() const { return !display_.empty(); }
  const std::string& display() const { return display_; }

 private:
  std::unique_ptr<PipedProcess> server_;
  std::string display_;
};

// Given a running `vigilo app --simulate` whose environment has a display
// (or none, for `startWithoutDisplay`), driven through the real binary.
class PanelTest : public SimAppTest {
 protected:
  void startWithDisplay(std::vector<std::string> env = {}) {
    if (!xvfb_.running()) GTEST_SKIP() << "Xvfb (Debian's xvfb package) isn't installed: the panel can't be drawn";
    display_ = "DISPLAY=" + xvfb_.display();
    env.push_back(display_);
    env.emplace_back("WAYLAND_DISPLAY=");
    startApp(env);
  }
  ToolRun vigilo(const std::vector<std::string>& args) {
    return SimAppTest::vigilo(args, display_.empty() ? std::vector<std::string>{} : std::vector{display_});
  }
  int batteryFloor() {
    json c = json::parse(vigilo({"config", "--json"}).out, nullptr, false);
    return c.is_object() ? c["config"].value("batteryFloor", -1) : -1;
  }
  // The panel windows of this app folder that run now.
  int panelsRunning() {
    int n = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
      const std::string cmdline = readFile(entry.path().string() + "/cmdline");
      const std::string environ = readFile(entry.path().string() + "/environ");
      if (cmdline.find(std::string("panel\0--page", 12)) != std::string::npos &&
          environ.find("VIGILO_HOME=" + home_ + std::string(1, '\0')) != std::string::npos) {
        ++n;
      }
    }
    return n;
  }
  void expectPicture(const std::string& path) {
    auto picture = readPng(path);
    ASSERT_TRUE(picture.has_value()) << path << " isn't a readable PNG";
    EXPECT_EQ(picture->width, 640u);
    EXPECT_GE(picture->height, 620u);
    EXPECT_GT(distinctColours(*picture), 8) << path << " is (nearly) blank";
  }

  Xvfb xvfb_;
  std::string display_;
};

TEST_F(PanelTest, EachTabDrawsAndSnapshotWritesAPicture) {
  // Given the build installed into a staging root: bin/vigilo with its panel
  // in lib/vigilo, nothing beside it, and the build folder out of reach.
  const std::string root = dir_.file("stage");
  ASSERT_EQ(installBuild(root), "");
  binary_ = root + "/usr/bin/vigilo";
  startWithDisplay();
  if (IsSkipped()) return;
  ASSERT_EQ(vigilo({"hold", "--for", "2h", "--reason", "Training the model"}).status, 0);
  // Each tab, drawn by the panel process from the running app's state, and
  // the appearance setting honoured, not only stored; the pictures stay in
  // the build folder to look at.
  for (const auto& [look, page] : std::vector<std::pair<std::string, std::string>>{
           {"dark", "now"}, {"", "power"}, {"", "settings"}, {"", "setup"}, {"light", "now"}}) {
    if (!look.empty()) {
      ASSERT_EQ(vigilo({"set", "appearance", look}).status, 0);
    }
    const std::string path = buildFolder() + "/panel-" + page + (look.empty() ? "" : "-" + look) + ".png";
    std::filesystem::remove(path);
    ToolRun run = vigilo({"panel", "--page", page, "--snapshot", path});
    ASSERT_EQ(run.status, 0) << run.err;
    expectPicture(path);
    if (look == "dark") {
      EXPECT_LT(meanBrightness(*readPng(path)), 0.35);
    } else if (look == "light") {
      EXPECT_GT(meanBrightness(*readPng(path)), 0.65);
    }
  }
  // The request, through the app, without a window.
  const std::string out = dir_.file("out.png");
  ToolRun shot = vigilo({"snapshot", out});
  ASSERT_EQ(shot.status, 0) << shot.err << app_->output();
  EXPECT_EQ(shot.out, "Saved the panel to " + out + "\n");
  expectPicture(out);
  EXPECT_EQ(panelsRunning(), 0);

  EXPECT_EQ(vigilo({"snapshot", dir_.file("out.jpg")}).status, 1);
  EXPECT_FALSE(fileExists(dir_.file("out.jpg")));
  ToolRun nowhere = vigilo({"snapshot", dir_.file("missing/out.png")});
  EXPECT_NE(nowhere.err.find("couldn't write " + dir_.file("missing/out.png")), std::string::npos) << nowhere.err;

  // One window at a time: a second open turns it to its page.
  ToolRun first = vigilo({"open", "settings", "--json"});
  ASSERT_EQ(first.status, 0) << first.err;
  EXPECT_EQ(json::parse(first.out)["opened"], true);
  ASSERT_TRUE(waitFor([&] { return panelsRunning() == 1; }, 5s));
  // The desktop knows the window as Vigilo's (vigilo.desktop's
  // StartupWMClass), and takes its icon and name from that entry.
  if (::access("/usr/bin/xprop", X_OK) == 0) {
    const std::string xprop = "/usr/bin/xprop -display " + xvfb_.display() + " -name Vigilo -notype ";
    std::string wmClass;
    // The window may still be mapping.
    const auto mapped = [&] { return (wmClass = shell(xprop + "WM_CLASS").out).rfind("WM_CLASS = ", 0) == 0; };
    ASSERT_TRUE(waitFor(mapped, 5s)) << wmClass;
    EXPECT_EQ(wmClass.substr(0, wmClass.find(',')), "WM_CLASS = \"vigilo\"") << wmClass;
  }
  ToolRun again = vigilo({"open", "power", "--json"});
  ASSERT_EQ(again.status, 0) << again.err;
  EXPECT_EQ(json::parse(again.out)["opened"], false);
  EXPECT_EQ(json::parse(again.out)["page"], "power");
  EXPECT_EQ(panelsRunning(), 1);
  ToolRun attic = vigilo({"open", "attic"});
  EXPECT_EQ(attic.err, "vigilo: There is no panel page attic. Pages: now, power, settings or setup\n");
  // The app takes its panel with it.
  stopApp();
  EXPECT_TRUE(waitFor([&] { return panelsRunning() == 0; }, 5s));
}

TEST_F(PanelTest, OnlyThePanelsConfirmedControlsLoosenTheBatteryFloor) {
  // The test driver types 10 into the battery floor's row, clicks Set and
  // answers the confirmation with yes, as a person would.
  startWithDisplay({"VIGILO_PANEL_SCRIPT=set:battery_floor=10;confirm"});
  if (IsSkipped()) return;
  ASSERT_EQ(vigilo({"set", "battery_floor", "30"}).status, 0);
  EXPECT_EQ(vigilo({"set", "battery_floor", "10"}).status, 1);
  // A caller that guesses at the key gets what any other caller gets.
  const json guess = {{"key", "battery_floor"}, {"value", 10}, {"panel_key", std::string(64, 'a')}};
  json forged = RequestClient(home_).send("set", guess, 5);
  EXPECT_EQ(forged.value("ok", true), false);
  EXPECT_EQ(batteryFloor(), 30);

  ASSERT_EQ(vigilo({"open", "settings"}).status, 0);
  ASSERT_TRUE(waitFor([&] { return batteryFloor() == 10; }, 8s)) << app_->output();
  // The new floor is the baseline: an edit by hand can't undo it either way.
  EXPECT_EQ(json::parse(readFile(home_ + "/safety.json"))["batteryFloor"], 10);
}

TEST_F(PanelTest, WithoutADisplayOpenAndSnapshotSaySo) {
  // Given an app with no graphical session (a server, SSH, a container).
  startApp({"DISPLAY=", "WAYLAND_DISPLAY="});
  ToolRun open = vigilo({"open"});
  EXPECT_EQ(open.status, 1);
  EXPECT_EQ(open.err,
            "vigilo: The panel needs a graphical session, and this app has none (neither WAYLAND_DISPLAY nor "
            "DISPLAY is set). vigilo status shows the same; or run vigilo app from your desktop session.\n");
  EXPECT_NE(vigilo({"snapshot", dir_.file("x.png")}).err.find("this app has no display"), std::string::npos);
  EXPECT_EQ(vigilo({"on"}).status, 0);  // the app carries on
}

}  // namespace
}  // namespace vigilo::test
