#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "engine/engine_fixture.h"
#include "safety/recording_runner.h"
#include "safety/setup.h"
#include "safety/watchdog.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

// Given Linux's setup in a temporary home with recorded command lines.
class LinuxSetupTest : public ::testing::Test {
 protected:
  LinuxSetupTest() {
    ::setenv("XDG_CONFIG_HOME", "", 1);
    home_ = dir_.file("home");
    std::filesystem::create_directories(home_);
    writeFile(dir_.file("vigilo"), "");
    setup_ = std::make_unique<LinuxSetup>(
        SetupContext{home_, home_ + "/.local/share/vigilo", dir_.file("vigilo"), "ada", 1000}, runner_);
    setup_->rulesFolder = dir_.file("rules.d");
    std::filesystem::create_directories(setup_->rulesFolder);
  }
  TempDir dir_;
  std::string home_;
  RecordingRunner runner_;
  std::unique_ptr<LinuxSetup> setup_;
};

// From nothing installed through setup, a healthy and a damaged setup to
// removal, with what doctor says at each step.
TEST_F(LinuxSetupTest, SetupDoctorAndRemovalStepByStep) {
  bool active = false;
  runner_.answer = [&](const std::vector<std::string>&) { return CommandOutput{active ? 0 : 3, ""}; };
  EXPECT_THAT(setup_->doctorLines(),
              ElementsAre("Watchdog: missing (run: vigilo setup)", "Command link: missing (run: vigilo setup)",
                          "Polkit rule: missing (needed only to keep the laptop awake from the user service; run: "
                          "vigilo setup)"));
  active = true;
  runner_.calls.clear();
  std::vector<std::string> said;
  ASSERT_TRUE(setup_->install(said));
  EXPECT_EQ(std::filesystem::read_symlink(home_ + "/.local/bin/vigilo"), dir_.file("vigilo"));
  EXPECT_THAT(runner_.lines(), ElementsAre("/usr/bin/systemctl --user daemon-reload",
                                           "/usr/bin/systemctl --user enable --now vigilo-watchdog.timer",
                                           HasSubstr("/usr/bin/install -m 0644 -o root -g root ")));
  const std::string units = home_ + "/.config/systemd/user/";
  EXPECT_THAT(readFile(units + "vigilo-watchdog.service"),
              HasSubstr("ExecStart=/bin/sh \"" + home_ + "/.local/share/vigilo/watchdog.sh\"\n"));
  EXPECT_THAT(readFile(units + "vigilo-watchdog.timer"), HasSubstr("OnUnitActiveSec=60\n"));
  // The units pass systemd's own check (system mode needs no running manager).
  if (std::filesystem::exists("/usr/bin/systemd-analyze")) {
    ProcessRunner real;
    auto out = real.run({"/usr/bin/systemd-analyze", "verify", units + "vigilo-watchdog.timer",
                         units + "vigilo-watchdog.service"});
    EXPECT_EQ(out.output, "");
  }
  // The rule went through root's shell (recorded here, so put in place by hand).
  writeFile(setup_->polkitRulePath(), LinuxSetup::polkitRule("ada"));
  EXPECT_THAT(setup_->doctorLines(), ElementsAre("Watchdog: running every 60 seconds (vigilo-watchdog.timer)",
                                                 "Command link: " + home_ + "/.local/bin/vigilo",
                                                 "Polkit rule: " + dir_.file("rules.d/49-vigilo-1000.rules")));
  // Damaged: the timer stopped, the executable moved away.
  active = false;
  std::filesystem::remove(dir_.file("vigilo"));
  EXPECT_THAT(setup_->doctorLines(),
              ElementsAre("Watchdog: installed but not loaded (run: vigilo setup)",
                          "Command link: " + home_ + "/.local/bin/vigilo (broken: run vigilo setup)",
                          HasSubstr("Polkit rule: ")));

  said.clear();
  runner_.calls.clear();
  setup_->withPolkitRule = false;
  ASSERT_TRUE(setup_->uninstall(said));
  EXPECT_THAT(runner_.lines(), ElementsAre("/usr/bin/systemctl --user disable --now vigilo-watchdog.timer",
                                           "/usr/bin/systemctl --user daemon-reload"));
  EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(home_ + "/.local/bin/vigilo")));
  EXPECT_FALSE(fileExists(units + "vigilo-watchdog.timer"));
}

TEST_F(LinuxSetupTest, ATimerThatCannotStartStillLeavesTheOtherStepsDone) {
  runner_.answer = [](const std::vector<std::string>& argv) {
    return CommandOutput{argv[0] == "/usr/bin/systemctl" ? 1 : 0, "Failed to connect to bus: No medium found\n"};
  };
  std::vector<std::string> said;
  Result r = setup_->install(said);
  EXPECT_EQ(r.message(),
            "Couldn't start the watchdog: Failed to connect to bus: No medium found. Without a systemd user manager "
            "(over SSH, in a container) it can't run; log in on the laptop and run vigilo setup again.");
  EXPECT_THAT(said, ElementsAre(HasSubstr("Linked the vigilo command"), HasSubstr("Installed the polkit rule")));
}

TEST_F(LinuxSetupTest, ThePolkitRuleGrantsOnlyThisUserTheInhibitorActions) {
  if (!std::filesystem::exists("/usr/bin/node")) GTEST_SKIP() << "node isn't installed";
  // polkitd's rules are JavaScript; node runs the rule against polkit's
  // calling convention for each action and user.
  for (const std::string user : {"ada", "x\");polkit.Result.YES;//"}) {
    writeFile(dir_.file("rule.js"), LinuxSetup::polkitRule(user));
    writeFile(dir_.file("check.js"), R"(
const fs = require('fs');
const rules = [];
const polkit = {Result: {YES: 'yes', NO: 'no'}, addRule: (f) => rules.push(f)};
new Function('polkit', fs.readFileSync(process.argv[2], 'utf8'))(polkit);
const ask = (id, user) => rules.map((f) => f({id}, {user})).find((r) => r !== undefined) || 'default';
const out = [];
for (const id of ['org.freedesktop.login1.inhibit-handle-lid-switch', 'org.freedesktop.login1.inhibit-block-sleep',
                  'org.freedesktop.login1.inhibit-block-idle', 'org.freedesktop.login1.power-off']) {
  out.push(ask(id, process.argv[3]), ask(id, 'mallory'));
}
console.log(out.join(' '));
)");
    ProcessRunner real;
    auto out = real.run({"/usr/bin/node", dir_.file("check.js"), dir_.file("rule.js"), user});
    EXPECT_EQ(out.output, "yes default yes default yes default default default\n") << user;
  }
}

TEST_F(LinuxSetupTest, ThePolkitRuleIsStagedThenMovedAsRoot) {
  if (::geteuid() != 0) GTEST_SKIP() << "installs as root directly only when run as root";
  ProcessRunner real;
  LinuxSetup setup(setup_->context(), real);
  setup.rulesFolder = dir_.file("rules.d");
  std::vector<std::string> said;
  ASSERT_TRUE(setup.installPolkitRule(said));
  EXPECT_EQ(readFile(setup.polkitRulePath()), LinuxSetup::polkitRule("ada"));
  EXPECT_EQ(std::filesystem::status(setup.polkitRulePath()).permissions() & std::filesystem::perms::all,
            std::filesystem::perms(0644));
  EXPECT_FALSE(fileExists(dir_.file("rules.d/.vigilo-1000.staging")));
  ASSERT_TRUE(setup.removePolkitRule(said));
  EXPECT_FALSE(fileExists(setup.polkitRulePath()));
}

// Given the engine on the simulated laptop with the safety net plugged in.
class WatchdogJobsTest : public EngineTest {
 protected:
  WatchdogJobsTest() {
    ::setenv("XDG_CONFIG_HOME", "", 1);
    runner_.answer = [this](const std::vector<std::string>& argv) {
      return CommandOutput{argv.back() == "vigilo-watchdog.timer" && !running_ && argv[2] == "is-active" ? 3 : 0, ""};
    };
  }
  Engine& launchWithWatchdog() {
    engine_ = std::make_unique<Engine>(*sim_, folder_, EngineOptions{});
    engine_->addSlowJobs(&watchdog_);
    engine_->launch();
    return *engine_;
  }
  RecordingRunner runner_;
  std::unique_ptr<LinuxSetup> setup_ = std::make_unique<LinuxSetup>(
      SetupContext{dir_.file("person"), folder_, dir_.file("vigilo"), "ada", 1000}, runner_);
  Watchdog watchdog_{*setup_};
  bool running_ = false;
};

TEST_F(WatchdogJobsTest, OnlyThisFoldersDeadTimerIsRepairedAndOnlyOnce) {
  // No watchdog set up for this folder: another folder's is never touched.
  Engine& e = launchWithWatchdog();
  advance(12);
  EXPECT_FALSE(watchdog_.watchdogRepairTried());
  EXPECT_TRUE(watchdog_.warning());
  EXPECT_THAT(runner_.lines(), Not(Contains(HasSubstr("enable"))));
  writeFile(folder_ + "/auto-approve.json", "{}");
  writeFile(folder_ + "/timemachine-restore", "");
  EXPECT_THAT(Watchdog::systemChanges(e), ElementsAre("timemachine-restore", "auto-approve.json"));
  std::filesystem::remove(folder_ + "/auto-approve.json");
  std::filesystem::remove(folder_ + "/timemachine-restore");

  // Set up once for this folder; the script is written again at launch.
  setup_->withPolkitRule = false;
  ASSERT_TRUE(setup_->installWatchdog());
  runner_.calls.clear();
  std::filesystem::remove(setup_->scriptPath());
  launchWithWatchdog();
  EXPECT_THAT(readFile(setup_->scriptPath()), HasSubstr("EXE=" + dir_.file("vigilo")));
  advance(6 * 2);  // tick 3: the first check
  EXPECT_TRUE(watchdog_.watchdogRepairTried());
  EXPECT_THAT(runner_.lines(), Contains("/usr/bin/systemctl --user enable --now vigilo-watchdog.timer"));
  EXPECT_EQ(watchdog_.warning(),
            "The safety watchdog isn't running, so a crash wouldn't be cleaned up "
            "automatically. Run: vigilo setup");
  // Five minutes later: no second repair; the warning stays until it runs.
  runner_.calls.clear();
  advance(300);
  EXPECT_THAT(runner_.lines(), Not(Contains(HasSubstr("enable"))));
  running_ = true;
  advance(300);
  EXPECT_FALSE(watchdog_.warning());
}

}  // namespace
}  // namespace vigilo::test
