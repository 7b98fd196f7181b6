// The real `vigilo app` on the macOS backend, end to end on Linux: the Mac's
// command lines run against stand-in tools (fake-bin/, POSIX sh) that keep a
// simulated Mac in a state file and log every argv they are given.

#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "e2e/app_process.h"
#include "platform/command_runner.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

class MacCliTest : public ::testing::Test {
 protected:
  MacCliTest() {
    std::filesystem::create_directories(appFolder_);
    std::filesystem::create_directories(userHome_);
    // The simulated laptop's default file, in the layout Vigilo writes.
    json mac = {{"lid", "open"},
                {"sleepDisabled", false},
                {"automaticBackups", true},
                {"locked", false},
                {"thermal", 0},
                {"powerModes", {{"lowpowermode", 0}, {"powermode", 0}}},
                {"battery", {{"present", true}, {"percent", 80.0}, {"adapter", false}, {"charging", false},
                             {"voltage", 11400}}},
                {"setup", {{"ready", true}, {"reason", ""}}}};
    writeFile(state_, mac.dump(2) + "\n");
  }
  ~MacCliTest() override {
    if (app_) {
      app_->signal(SIGKILL);
      app_->wait(5s);
    }
    for (pid_t pid : stand_ins_) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }

  json mac() const { return json::parse(readFile(state_), nullptr, false); }
  // An app of the simulated Mac: its bundle in this test's folder (with an
  // Info.plist when it has a bundle id) and, standing in for it, an idle
  // process of this machine, so that the stop and continue signals Vigilo
  // sends with kill(2) reach something that shows them.
  std::int32_t addApp(const std::string& name, const std::string& bundleId) {
    const std::string bundle = dir_.file("Applications/" + name + ".app");
    std::filesystem::create_directories(bundle + "/Contents/MacOS");
    if (!bundleId.empty()) {
      writeFile(bundle + "/Contents/Info.plist",
                "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">\n<dict>\n"
                "\t<key>CFBundleIdentifier</key>\n\t<string>" + bundleId + "</string>\n"
                "\t<key>CFBundleName</key>\n\t<string>" + name + "</string>\n</dict>\n</plist>\n");
    }
    pid_t pid = 0;
    char sleepPath[] = "/bin/sleep";
    char seconds[] = "600";
    char* argv[] = {sleepPath, seconds, nullptr};
    EXPECT_EQ(posix_spawn(&pid, "/bin/sleep", nullptr, nullptr, argv, environ), 0);
    stand_ins_.push_back(pid);
    const std::string path = bundle + "/Contents/MacOS/" + name;
    json m = mac();
    m["processes"].push_back(json{{"pid", pid},
                                  {"ppid", 1},
                                  {"path", path},
                                  {"args", {path, "-NSDocumentRevisionsDebugMode", "YES"}},
                                  {"startMicros", 1767229200000000},
                                  {"cpuMicros", 1500000},
                                  {"stopped", false},
                                  {"slowed", false}});
    writeFile(state_, m.dump(2) + "\n");
    return pid;
  }
  // The process's state letter on this machine: "T" while stopped.
  static std::string runState(std::int32_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string pidText, command, state;
    in >> pidText >> command >> state;
    return state;
  }
  bool slowed(std::int32_t pid) const {
    const json m = mac();
    if (!m.is_object() || !m.contains("processes")) return false;
    for (const json& p : m["processes"]) {
      if (p.value("pid", 0) == pid) return p.value("slowed", false);
    }
    return false;
  }
  void setLid(const std::string& lid) {
    json m = mac();
    m["lid"] = lid;
    writeFile(state_, m.dump(2) + "\n");
  }
  bool inApp(const std::string& name) const { return fileExists(appFolder_ + "/" + name); }
  std::vector<std::string> logged(const std::string& prefix) const {
    std::vector<std::string> out;
    std::istringstream in(fileExists(log_) ? readFile(log_) : "");
    for (std::string line; std::getline(in, line);) {
      if (line.rfind(prefix, 0) == 0) out.push_back(line);
    }
    return out;
  }
  // What changed the Mac, in order: the privileged lines, not sudo's "-l"
  // questions nor the readings.
  std::vector<std::string> changes() const {
    std::vector<std::string> out;
    for (std::string& line : logged("/usr/bin/sudo -n ")) {
      if (line.rfind("/usr/bin/sudo -n -l", 0) != 0) out.push_back(std::move(line));
    }
    return out;
  }
  // Runs the Mac watchdog script with dash, as launchd would, in this
  // test's environment.
  CommandOutput runWatchdog() {
    std::vector<std::string> argv = {"/usr/bin/timeout", "60", "/usr/bin/env"};
    argv.insert(argv.end(), env_.begin(), env_.end());
    argv.insert(argv.end(), {"/bin/dash", appFolder_ + "/watchdog.sh"});
    return ProcessRunner().run(argv);
  }

  TempDir dir_;
  std::string appFolder_ = dir_.file("app");
  std::string userHome_ = dir_.file("user");
  std::string state_ = dir_.file("mac.json");
  std::string log_ = dir_.file("mac.log");
  std::vector<std::string> env_ = {"VIGILO_PLATFORM=macos-cli", "VIGILO_MAC_ROOT=" + sourceDir(__FILE__) + "/fake-bin",
                                   "VIGILO_MAC_STATE=" + state_, "VIGILO_MAC_LOG=" + log_, "HOME=" + userHome_,
                                   "VIGILO_HOME=" + appFolder_};
  std::unique_ptr<AppProcess> app_;
  std::vector<pid_t> stand_ins_;
};

TEST_F(MacCliTest, HoldLidShutSavingsCrashAndTheWatchdogPutsItAllBack) {
  writeFile(appFolder_ + "/config.json",
            R"({"mode": "on", "preset": "max_battery", "pauseTimeMachine": true, "lowPowerWhileClosed": true})");
  json laptop = mac();
  laptop["processes"] = json::array({json{{"pid", 1}, {"ppid", 0}, {"path", "/sbin/launchd"},
                                          {"args", {"/sbin/launchd"}}, {"startMicros", 1767225600000000},
                                          {"cpuMicros", 723410000}, {"stopped", false}, {"slowed", false}}});
  writeFile(state_, laptop.dump(2) + "\n");
  // By the preset: an app with a bundle id is paused, one without is slowed.
  const std::int32_t editor = addApp("Editor", "com.example.Editor");
  const std::int32_t builder = addApp("Builder", "");
  app_ = std::make_unique<AppProcess>(std::vector<std::string>{"app"}, appFolder_, dir_.file("app.txt"), env_);
  ASSERT_TRUE(waitFor([&] { return mac()["sleepDisabled"] == true; }, 15s)) << app_->output();
  EXPECT_TRUE(inApp("hold"));

  setLid("closed");
  ASSERT_TRUE(waitFor([&] {
    const json m = mac();
    return m["powerModes"]["lowpowermode"] == 1 && m["automaticBackups"] == false;
  }, 15s)) << app_->output();
  ASSERT_TRUE(waitFor([&] { return runState(editor) == "T" && slowed(builder); }, 15s))
      << runState(editor) << "\n" << readFile(log_) << app_->output();

  // The crash: every change has its record, and the heartbeat goes stale.
  app_->signal(SIGKILL);
  ASSERT_EQ(app_->wait(5s), 128 + SIGKILL);
  app_.reset();
  for (const char* record : {"hold", "powermode-restore", "timemachine-restore", "resume-pids", "touched.json", "alive",
                             "watchdog.sh"}) {
    EXPECT_TRUE(inApp(record)) << record;
  }
  const std::time_t old = std::time(nullptr) - 120;
  const utimbuf stale{old, old};
  ASSERT_EQ(utime((appFolder_ + "/alive").c_str(), &stale), 0);

  const CommandOutput watchdog = runWatchdog();
  EXPECT_EQ(watchdog.status, 0) << watchdog.output;
  for (const char* record : {"hold", "powermode-restore", "timemachine-restore", "resume-pids", "touched.json"}) {
    EXPECT_FALSE(inApp(record)) << record;
  }
  // The paused app is continued and the slowed one taken out of the
  // background band.
  EXPECT_NE(runState(editor), "T");
  EXPECT_FALSE(slowed(builder));
  EXPECT_EQ(logged("/usr/sbin/taskpolicy"),
            (std::vector<std::string>{"/usr/sbin/taskpolicy -b -p " + std::to_string(builder),
                                      "/usr/sbin/taskpolicy -B -p " + std::to_string(builder)}));
  // Each change once, and each put back in the opposite order.
  EXPECT_EQ(changes(), (std::vector<std::string>{
                           "/usr/bin/sudo -n /usr/bin/pmset -a disablesleep 1",
                           "/usr/bin/sudo -n /usr/bin/pmset -b lowpowermode 1",
                           "/usr/bin/sudo -n /usr/bin/tmutil disable",
                           "/usr/bin/sudo -n /usr/bin/pmset -b lowpowermode 0",
                           "/usr/bin/sudo -n /usr/bin/tmutil enable",
                           "/usr/bin/sudo -n /usr/bin/pmset -a disablesleep 0",
                       }))
      << readFile(log_);
}

}  // namespace
}  // namespace vigilo::test
