#include <algorithm>
#include <csignal>
#include <filesystem>
#include <sstream>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "e2e/inotify_watch.h"
#include "e2e/sim_app.h"
#include "engine/config.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

// Given a temporary app folder and a simulated laptop's state file, both
// driven only from outside, as a person would.
using AppTest = SimAppTest;

bool outputOf(const AppProcess& app, const std::string& text) {
  return app.output().find(text) != std::string::npos;
}

TEST_F(AppTest, KilledWhileHoldingIsAdoptedAndReleasedAtTheNextLaunchOrPutBackByRescue) {
  const auto killWhileHolding = [&] {
    writeFile(home_ + "/config.json", R"({"mode": "on"})");
    auto app = launch();
    // The status line is printed after the switch and its record are made,
    // so all three are waited for.
    const auto held = [&] { return sleepDisabled() && inHome("hold") && outputOf(*app, "Awake until you"); };
    ASSERT_TRUE(waitFor(held, 10s)) << app->output();
    app->signal(SIGKILL);
    EXPECT_EQ(app->wait(5s), 128 + SIGKILL);
    EXPECT_TRUE(sleepDisabled());
    EXPECT_TRUE(inHome("hold"));
  };
  killWhileHolding();
  // Without VIGILO_SIMULATE, the folder's own record names the laptop.
  ToolRun doctor = runTool({"doctor"}, home_);
  EXPECT_NE(doctor.out.find("Machine: the simulated laptop " + state_ + "\n"), std::string::npos) << doctor.out;

  // Next launch, with nothing wanting the machine awake: adopted for the
  // grace period, then released. The laptop's clock runs ten times fast, so
  // the half-minute grace passes in seconds.
  writeFile(home_ + "/config.json", R"({"mode": "auto"})");
  nlohmann::json laptop = nlohmann::json::parse(readFile(state_));
  laptop["clockSpeed"] = 10;
  writeFile(state_, laptop.dump());
  auto app = launch();
  ASSERT_TRUE(waitFor([&] { return outputOf(*app, "sleeps when closed"); }, 10s)) << app->output();
  EXPECT_TRUE(sleepDisabled());
  EXPECT_TRUE(inHome("hold"));
  ASSERT_TRUE(waitFor([&] { return !sleepDisabled() && !inHome("hold"); }, 15s)) << app->output();
  EXPECT_FALSE(inHome("sleep-off-before"));
  app->signal(SIGTERM);
  EXPECT_EQ(app->wait(10s), 0) << app->output();
  EXPECT_FALSE(inHome("alive"));

  // Killed again, it is put back by `vigilo rescue` with no app running.
  killWhileHolding();
  ToolRun rescue = runTool({"rescue"}, home_);
  EXPECT_EQ(rescue.status, 0) << rescue.out << rescue.err;
  EXPECT_FALSE(sleepDisabled());
  EXPECT_FALSE(inHome("hold"));
}

TEST_F(AppTest, TerminatedWhileHoldingPutsSleepBackAndFollowsLiveEdits) {
  auto app = launch();
  ASSERT_TRUE(waitFor([&] { return outputOf(*app, "Nothing running"); }, 10s)) << app->output();
  EXPECT_FALSE(sleepDisabled());

  // An edit of the settings file is picked up while running.
  writeFile(home_ + "/config.json", R"({"mode": "on"})");
  ASSERT_TRUE(waitFor([&] { return sleepDisabled(); }, 15s)) << app->output();

  app->signal(SIGTERM);
  EXPECT_EQ(app->wait(10s), 0) << app->output();
  EXPECT_FALSE(sleepDisabled());
  EXPECT_FALSE(inHome("hold"));
  EXPECT_FALSE(inHome("alive"));
}

TEST_F(AppTest, DamagedFilesNeverCrashTheApp) {
  const std::string huge(20 * 1024 * 1024, '{');
  for (const std::string& content :
       {std::string("{\"mode\": \"on\", \"quietMin"), std::string("{\"mode\": 5, \"heatGuard\": []}"), huge}) {
    for (const std::string& file : {home_ + "/config.json", home_ + "/safety.json", home_ + "/runtime.json", state_}) {
      writeFile(file, content);
    }
    auto app = launch();
    ASSERT_TRUE(waitFor([&] { return outputOf(*app, "sleeps when closed"); }, 15s)) << app->output();
    app->signal(SIGTERM);
    EXPECT_EQ(app->wait(10s), 0) << app->output();
  }
}

TEST_F(AppTest, RefusesBadArgumentsPlainly) {
  // Without --simulate the app runs on this machine's Linux backend; with no
  // system bus (as in a container) it starts, says once what it can't do,
  // and quits cleanly.
  AppProcess real({"app"}, home_, dir_.file("a.txt"),
                  {"DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + dir_.file("no-bus")});
  // The warnings follow the first status line: wait for the last of them.
  ASSERT_TRUE(waitFor([&] { return outputOf(real, "warning: Linux has no system backup service"); }, 10s))
      << real.output();
  const std::string said = real.output();
  EXPECT_NE(said.find("Needs a one-time setup"), std::string::npos) << said;
  const std::string noBusWarning = "warning: There's no system D-Bus here";
  ASSERT_NE(said.find(noBusWarning), std::string::npos) << said;
  EXPECT_EQ(said.find(noBusWarning, said.find(noBusWarning) + 1), std::string::npos) << said;
  real.signal(SIGTERM);
  EXPECT_EQ(real.wait(10s), 0) << real.output();
  AppProcess bad({"app", "--bogus"}, home_, dir_.file("b.txt"));
  EXPECT_EQ(bad.wait(10s), 2);
  EXPECT_TRUE(outputOf(bad, "vigilo: app doesn't know \"--bogus\"")) << bad.output();

  // A second app on the same folder is refused while the first runs.
  auto first = launch();
  ASSERT_TRUE(waitFor([&] { return outputOf(*first, "sleeps when closed"); }, 10s));
  // It exits with a status of its own, which the user service doesn't
  // restart on, and asks the running app to show its panel (which needs a
  // display this test doesn't give it).
  auto second = launch();
  EXPECT_EQ(second->wait(10s), 3);
  EXPECT_TRUE(outputOf(*second, "another Vigilo app is already running")) << second->output();
  EXPECT_TRUE(outputOf(*second, "couldn't open the running app's panel: The panel needs a graphical session"));
  first->signal(SIGTERM);
  EXPECT_EQ(first->wait(10s), 0);
}

// Given a runtime folder (a tmpfs on a real login), the idle app writes
// nothing to the app folder's disk: what it rewrites every tick lives
// there, and the watchdog looks for it there.
TEST_F(AppTest, AnIdleAppBeatsInTheRuntimeFolderAndLeavesTheAppFolderAlone) {
  const std::string runtime = dir_.file("run");
  std::filesystem::create_directory(runtime);
  std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
  writeFile(state_, R"({"clockSpeed": 60})");
  writeFile(home_ + "/config.json", R"({"mode": "auto"})");
  // Its output is the journal's stream, as under systemd.
  writeFile(dir_.file("app.txt"), "");
  struct stat out {};
  ASSERT_EQ(::stat(dir_.file("app.txt").c_str(), &out), 0);
  const std::string journal = std::to_string(out.st_dev) + ":" + std::to_string(out.st_ino);
  app_ = std::make_unique<AppProcess>(std::vector<std::string>{"app", "--simulate", state_}, home_,
                                      dir_.file("app.txt"),
                                      std::vector<std::string>{"XDG_RUNTIME_DIR=" + runtime, "JOURNAL_STREAM=" + journal});
  std::string beats;
  ASSERT_TRUE(waitFor(
      [&] {
        for (const auto& e : std::filesystem::directory_iterator(runtime)) beats = e.path().string();
        return fileExists(beats + "/alive") && inHome("watchdog.sh");
      },
      10s))
      << app_->output();
  EXPECT_EQ(std::filesystem::status(beats).permissions(), std::filesystem::perms::owner_all);
  EXPECT_NE(readFile(home_ + "/watchdog.sh").find("\nR=" + beats + "\n"), std::string::npos);
  // Past the first minute's writes (what the app learned so far), then 60
  // heartbeats, two minutes on the laptop's fast clock.
  InotifyWatch folder(home_), beat(beats);
  ASSERT_TRUE(folder.ok() && beat.ok());
  auto beatsSeen = [&] { return std::count(beat.names().begin(), beat.names().end(), "alive"); };
  ASSERT_TRUE(waitFor([&] { return beatsSeen() >= 40; }, 20s)) << app_->output();
  folder.clear();
  ASSERT_TRUE(waitFor([&] { return beatsSeen() >= 100; }, 20s)) << app_->output();
  EXPECT_EQ(folder.names(), std::vector<std::string>{}) << "written in the app folder while idle";
  EXPECT_FALSE(inHome("alive"));
  // The journal gets each line's priority and stamps the time itself.
  const std::string said = app_->output();
  EXPECT_EQ(said.rfind("<6>Vigilo on the simulated laptop", 0), 0u) << said;
  EXPECT_NE(said.find("\n<4>warning: "), std::string::npos) << said;
  std::istringstream lines(said);
  for (std::string line; std::getline(lines, line);) EXPECT_EQ(line.rfind('<', 0), 0u) << line;

  // A clean quit takes the heartbeat and its folder away.
  stopApp();
  EXPECT_FALSE(std::filesystem::exists(beats));
}

}  // namespace
}  // namespace vigilo::test
