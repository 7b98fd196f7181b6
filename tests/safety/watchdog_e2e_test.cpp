#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <functional>
#include <sstream>

#include "e2e/sim_app.h"
#include "platform/command_runner.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

// Given the real app on a simulated laptop with its lid shut and another
// app already paused there, in a temporary app folder and home.
class WatchdogEndToEnd : public SimAppTest {
 protected:
  WatchdogEndToEnd() {
    std::filesystem::create_directories(person_);
    SystemClock clock;
    SimLaptop laptop(clock);
    laptop.setLidClosed(true);
    paused_ = laptop.startProcess("/usr/bin/ffmpeg", {"ffmpeg", "-i", "talk.mov"});
    laptop.stop(paused_);
    start_ = laptop.process(paused_)->startMicros;
    writeFile(state_, laptop.toJson().dump());
  }
  struct Seen {
    bool sleepDisabled = false;
    bool pausedStillStopped = false;
    std::uint64_t commands = 0;
  };
  Seen laptop() const {
    SystemClock clock;
    SimLaptop l(clock);
    l.fromJson(nlohmann::json::parse(readFile(state_), nullptr, false));
    const SimProcess* p = l.process(paused_);
    return Seen{l.sleepDisabled(), p != nullptr && p->stopped, l.commandCount()};
  }
  // Runs the watchdog script as the systemd timer does: its own small
  // environment, no VIGILO_HOME.
  int runWatchdog() const {
    ProcessRunner runner;
    auto out = runner.run({"/usr/bin/env", "-i", "HOME=" + person_, "PATH=/usr/bin:/bin", "VIGILO_NO_AUTOSTART=1",
                           "/bin/sh", home_ + "/watchdog.sh"});
    output_ = out.output;
    return out.status;
  }

  std::string person_ = dir_.file("person");
  std::int32_t paused_ = 0;
  std::uint64_t start_ = 0;
  mutable std::string output_;
};

TEST_F(WatchdogEndToEnd, AKilledAppIsCleanedUpByOneWatchdogRun) {
  writeFile(home_ + "/config.json", R"({"mode": "on"})");
  startApp({"HOME=" + person_});
  ASSERT_TRUE(waitFor([&] { return laptop().sleepDisabled && inHome("hold") && inHome("watchdog.sh"); }, 10s))
      << app_->output();
  app_->signal(SIGKILL);
  ASSERT_EQ(app_->wait(5s), 128 + SIGKILL);
  app_.reset();

  // The paused app's records, as the closed-lid savings write them.
  writeFile(home_ + "/touched.json", R"([{"pid":)" + std::to_string(paused_) + R"(,"start":)" +
                                         std::to_string(start_) + R"(,"path":"/usr/bin/ffmpeg","paused":true}])");
  writeFile(home_ + "/resume-pids", std::to_string(paused_) + "\t/usr/bin/ffmpeg\n");

  // A heartbeat written a moment ago: the app may only be slow.
  EXPECT_EQ(runWatchdog(), 0) << output_;
  EXPECT_TRUE(laptop().sleepDisabled);

  // Stale: one run puts everything back.
  std::filesystem::last_write_time(home_ + "/alive", std::filesystem::file_time_type::clock::now() - 60s);
  EXPECT_EQ(runWatchdog(), 0) << output_;
  Seen after = laptop();
  EXPECT_FALSE(after.sleepDisabled);
  EXPECT_FALSE(after.pausedStillStopped);
  for (const char* f : {"hold", "touched.json", "resume-pids", "alive"}) EXPECT_FALSE(inHome(f)) << f;
  EXPECT_TRUE(inHome("watchdog.sh"));

  // Nothing is left for the next run to do.
  EXPECT_EQ(runWatchdog(), 0) << output_;
  EXPECT_EQ(laptop().commands, after.commands);
}

TEST_F(WatchdogEndToEnd, AQuitLeavesTheHeartbeatOnlyWhileAChangeIsOutstanding) {
  for (bool approveOn : {false, true}) {
    if (approveOn) writeFile(home_ + "/auto-approve.json", "{}");
    startApp({"HOME=" + person_});
    ASSERT_TRUE(waitFor([&] { return inHome("alive") && inHome("watchdog.sh"); }, 10s)) << app_->output();
    stopApp();
    EXPECT_EQ(inHome("alive"), approveOn);
  }
}

TEST_F(WatchdogEndToEnd, DoctorReportsTheSetupLineByLine) {
  ToolRun doctor = runTool({"doctor"}, home_, {"HOME=" + person_, "VIGILO_SIMULATE=" + state_, "XDG_CONFIG_HOME="});
  EXPECT_EQ(doctor.status, 0) << doctor.err;
  std::vector<std::string> lines;
  std::istringstream in(doctor.out);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  // The setup, line by line; then what this machine offers, which varies.
  ASSERT_GE(lines.size(), 8u) << doctor.out;
  EXPECT_THAT(std::vector<std::string>(lines.begin(), lines.begin() + 8),
              ::testing::ElementsAre("Vigilo folder: " + home_, "App: not running", "Sleep permission: in place",
                                     ::testing::StartsWith("Watchdog: "),
                                     "Command link: missing (run: vigilo setup)",
                                     ::testing::StartsWith("Polkit rule: "), "Sleep switched off right now: no",
                                     "Changes Vigilo has made right now: none"));
  EXPECT_THAT(lines, ::testing::Contains("Phones: none paired (vigilo pair pairs one)"));
  // With "Approve everything" on and a change left, both are told.
  writeFile(home_ + "/auto-approve.json", "{}");
  writeFile(home_ + "/timemachine-restore", "");
  doctor = runTool({"doctor"}, home_, {"HOME=" + person_, "VIGILO_SIMULATE=" + state_});
  EXPECT_THAT(doctor.out, ::testing::HasSubstr(
                              "Changes Vigilo has made right now:\n  automatic backups switched off (record: "
                              "timemachine-restore)\nApprove everything is on: Claude Code and Codex run without "
                              "asking (turn off in Settings › Agents)\n"));
}

TEST_F(WatchdogEndToEnd, RescueTurnsApproveEverythingOffOrSaysWhyNot) {
  const std::string settings = person_ + "/settings.json";
  writeFile(settings, R"({"permissions":{"defaultMode":"bypassPermissions"}})");
  std::filesystem::create_directories(home_ + "/approve-restore");
  writeFile(home_ + "/auto-approve.json", "{}");
  writeFile(home_ + "/approve-restore/claude.target", settings);
  writeFile(home_ + "/approve-restore/claude.restored", "{}");
  writeFile(home_ + "/approve-restore/claude.sha", std::string(64, 'a'));  // changed since
  ToolRun rescue = runTool({"rescue"}, home_, {"VIGILO_SIMULATE=" + state_});
  EXPECT_EQ(rescue.status, 1);
  EXPECT_THAT(rescue.out, ::testing::HasSubstr("Couldn't turn Approve everything off: Claude Code's settings " +
                                               settings + " changed since Vigilo edited them"));
  ProcessRunner runner;
  writeFile(home_ + "/approve-restore/claude.sha",
            runner.run({"/usr/bin/sha256sum", settings}).output.substr(0, 64));
  rescue = runTool({"rescue"}, home_, {"VIGILO_SIMULATE=" + state_});
  EXPECT_EQ(rescue.status, 0) << rescue.out;
  EXPECT_EQ(rescue.out,
            "Everything Vigilo changed is back to how it was. Vigilo is stopped; open it again when you want it.\n"
            "Approve everything is off: Claude Code and Codex ask before acting again.\n");
  EXPECT_EQ(readFile(settings), "{}");
  EXPECT_FALSE(inHome("auto-approve.json"));
}

TEST_F(WatchdogEndToEnd, ADamagedMachineNoteIsSetAsideOnEveryRecoveryPath) {
  const std::string note = home_ + "/machine.json";
  const std::vector<std::pair<const char*, std::function<void()>>> damages = {
      {"machine not text", [&] { writeFile(note, R"({"machine": 5})"); }},
      {"truncated", [&] { writeFile(note, R"({"machine": "si)"); }},
      {"a folder", [&] { std::filesystem::create_directories(note); }},
      {"a link", [&] {
         writeFile(dir_.file("other.json"), R"({"machine": "real"})");
         std::filesystem::create_symlink(dir_.file("other.json"), note);
       }},
  };
  // Each damage on one of the paths in turn: every path meets several.
  const std::vector<std::vector<std::string>> commands = {{"doctor"}, {"rescue"}, {"cli", "watchdog"}};
  for (std::size_t i = 0; i < damages.size(); ++i) {
    const std::vector<std::string>& command = commands[i % commands.size()];
    SCOPED_TRACE(std::string(damages[i].first) + ", " + command.back());
    for (const auto& e : std::filesystem::directory_iterator(home_)) std::filesystem::remove_all(e.path());
    damages[i].second();
    ToolRun run = runTool(command, home_, {"HOME=" + person_, "VIGILO_SIMULATE=" + state_});
    EXPECT_TRUE(run.status == 0 || run.status == 1) << run.status << run.err;
    EXPECT_THAT(run.err, ::testing::HasSubstr("Vigilo's note of which machine its folder belongs to (machine.json) "
                                              "was damaged and was set aside as machine.broken-"));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(note)));
  }
  // The app itself starts, and notes its machine afresh.
  writeFile(note, R"({"machine": {"sim": true}})");
  startApp({"HOME=" + person_});
  EXPECT_TRUE(outputHas("(machine.json) was damaged and was set aside as machine.broken-")) << app_->output();
  EXPECT_THAT(readFile(note), ::testing::HasSubstr("\"sim\""));
}

}  // namespace
}  // namespace vigilo::test
