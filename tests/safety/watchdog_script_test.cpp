// The Mac's and Linux's watchdog scripts, run by dash against stand-in tools.

#include "safety/watchdog_script.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/command_runner.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr long long kScriptNow = 1'800'000'000;

// A real process that stays paused until continued.
class PausedProcess {
 public:
  PausedProcess() : pid_(::fork()) {
    if (pid_ == 0) {
      ::execl("/bin/sleep", "sleep", "60", static_cast<char*>(nullptr));
      ::_exit(127);
    }
    // Paused only after the exec, so that the kernel names it "sleep".
    for (int i = 0; i < 200; ++i) {
      std::error_code ec;
      if (fs::read_symlink("/proc/" + std::to_string(pid_) + "/exe", ec).filename() == "sleep") break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::kill(pid_, SIGSTOP);
    for (int i = 0; i < 200 && !stopped(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ~PausedProcess() {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  pid_t pid() const { return pid_; }
  bool stopped() const {
    const std::string stat = readFile("/proc/" + std::to_string(pid_) + "/stat");
    const auto close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] == 'T';
  }

 private:
  pid_t pid_;
};

void setModified(const std::string& path, long long when) {
  const utimbuf times{static_cast<time_t>(when), static_cast<time_t>(when)};
  ::utime(path.c_str(), &times);
}

std::string sha256(const std::string& path) {
  return ProcessRunner().run({"/usr/bin/sha256sum", path}).output.substr(0, 64);
}

// Given the Mac's (true) or Linux's (false) watchdog script for a temporary
// home: the absolute tool paths the Mac script uses are pointed at the
// stand-ins, everything else is the script as written.
class WatchdogScriptTest : public ::testing::TestWithParam<bool> {
 protected:
  WatchdogScriptTest() : WatchdogScriptTest(GetParam()) {}
  explicit WatchdogScriptTest(bool mac) : mac_(mac) {
    fs::create_directories(bin_);
    tool("sudo", "[ ! -e \"$FAKE_DIR/sudo-fails\" ]");
    tool("launchctl", "exit 0");
    tool("systemctl", "exit 0");
    tool("id", "echo 501");
    tool("date", "if [ \"$1\" = +%s ]; then cat \"$FAKE_DIR/now\"; else /bin/date \"$@\"; fi");
    tool("ps",
         "while read -r p n; do [ \"$p\" = \"$2\" ] && { echo \"$n\"; exit 0; }; done "
         "<\"$FAKE_DIR/ps-table\"; exit 1");
    tool("shasum", "shift 2; sha256sum \"$@\"");
    writeFile(tools_ + "/ps-table", "");
    clearLog();
    setNow(kScriptNow);
    home_ = dir_.file("home");
    exe_ = dir_.file(mac ? "Vigilo" : "vigilo");
    if (mac) {
      folder_ = home_ + "/Library/Application Support/Vigilo";
      link_ = dir_.file("usr-local-bin-vigilo");
      setupFiles_ = {home_ + "/Library/LaunchAgents/com.tarnwell.vigilo.watchdog.plist"};
    } else {
      folder_ = home_ + "/.local/share/vigilo";
      units_ = home_ + "/.config/systemd/user";
      link_ = home_ + "/.local/bin/vigilo";
      setupFiles_ = {units_ + "/vigilo-watchdog.timer", units_ + "/vigilo-watchdog.service"};
    }
    for (const std::string& f : setupFiles_) {
      fs::create_directories(fs::path(f).parent_path());
      writeFile(f, mac ? "<plist/>" : "");
    }
    fs::create_directories(folder_);
    fs::create_directories(fs::path(link_).parent_path());
    writeFile(exe_, "#!/bin/sh\necho \"exe $*\" >>\"$FAKE_DIR/log\"\n");
    ::chmod(exe_.c_str(), 0755);
    std::string s =
        mac ? macWatchdogScript(home_, folder_, exe_) : linuxWatchdogScript(folder_, exe_, link_, units_);
    const std::vector<std::pair<std::string, std::string>> standIns = {
        {"/usr/bin/sudo", bin_ + "/sudo"},
        {"/bin/launchctl", bin_ + "/launchctl"},
        {"/usr/bin/id", bin_ + "/id"},
        {"/usr/bin/shasum", bin_ + "/shasum"},
        {"/usr/local/bin/vigilo", link_}};
    for (const auto& [from, to] : mac ? standIns : decltype(standIns){}) {
      for (auto at = s.find(from); at != std::string::npos; at = s.find(from, at + to.size())) {
        s.replace(at, from.size(), to);
      }
    }
    writeFile(script(), s);
  }
  std::string script() const { return folder_ + "/watchdog.sh"; }
  std::string file(const std::string& name) const { return folder_ + "/" + name; }
  bool has(const std::string& name) const { return fileExists(file(name)); }
  void put(const std::string& name, const std::string& text = "") const { writeFile(file(name), text); }
  void removeApp() const { fs::remove(exe_); }
  // Runs the script with /bin/sh under the temporary home, the stand-ins
  // first on the PATH.
  int run() const {
    return ProcessRunner()
        .run({"/usr/bin/env", "-i", "HOME=" + home_, "PATH=" + bin_ + ":/usr/bin:/bin", "FAKE_DIR=" + tools_,
              "/bin/sh", script()})
        .status;
  }
  // The stand-in tools log their argv as one line in "log" and answer from
  // files the test writes: sudo fails while "sudo-fails" exists, ps prints
  // the name "ps-table" lists for a pid, date +%s prints "now".
  void tool(const std::string& name, const std::string& body) const {
    writeFile(bin_ + "/" + name, "#!/bin/sh\necho \"" + name + " $*\" >>\"$FAKE_DIR/log\"\n" + body + "\n");
    ::chmod((bin_ + "/" + name).c_str(), 0755);
  }
  // What the script asks of the machine, not how it reads the clock.
  std::vector<std::string> logLines() const {
    std::vector<std::string> lines;
    std::istringstream in(readFile(tools_ + "/log"));
    for (std::string line; std::getline(in, line);) {
      if (line.rfind("date ", 0) != 0) lines.push_back(line);
    }
    return lines;
  }
  void clearLog() const { writeFile(tools_ + "/log", ""); }
  void setNow(long long now) const { writeFile(tools_ + "/now", std::to_string(now) + "\n"); }
  void setSudoFails(bool fails) const {
    if (fails) {
      writeFile(tools_ + "/sudo-fails", "");
    } else {
      fs::remove(tools_ + "/sudo-fails");
    }
  }
  void setProcessName(pid_t pid, const std::string& name) const {
    std::ofstream(tools_ + "/ps-table", std::ios::app) << pid << " " << name << "\n";
  }

  bool mac_;
  TempDir dir_;
  std::string tools_ = dir_.file("tools"), bin_ = tools_ + "/bin";
  std::string home_, folder_, units_, link_, exe_;
  std::vector<std::string> setupFiles_;  // what the installer put outside the folder
};

class MacWatchdogScriptTest : public WatchdogScriptTest {
 protected:
  MacWatchdogScriptTest() : WatchdogScriptTest(true) {}
};

class LinuxWatchdogScriptTest : public WatchdogScriptTest {
 protected:
  LinuxWatchdogScriptTest() : WatchdogScriptTest(false) {}
};

TEST_P(WatchdogScriptTest, AFreshHeartbeatIsLeftAloneAStaleOneHandsOverToTheApp) {
  // Given "alive" 39 seconds old: the app lives, nothing is done.
  put("alive");
  put("gone", "123");
  setModified(file("alive"), kScriptNow - 39);
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(logLines(), IsEmpty());
  EXPECT_FALSE(has("gone"));  // the executable is there again
  // 40 seconds: the app died or hangs; its executable undoes the records.
  setModified(file("alive"), kScriptNow - 40);
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(logLines(), ElementsAre("exe cli watchdog"));
  if (mac_) return;  // a clean quit on a Mac: see below
  // A clean quit with nothing left does nothing; with a hold left the
  // executable puts it back on the machine the folder belongs to.
  std::filesystem::remove(file("alive"));
  clearLog();
  run();
  EXPECT_THAT(logLines(), IsEmpty());
  put("hold");
  run();
  EXPECT_THAT(logLines(), ElementsAre("exe cli watchdog"));
}

TEST_P(WatchdogScriptTest, WithTheAppGoneItContinuesOnlyItsOwnPausedProcessesAndPutsRecordsBack) {
  removeApp();
  PausedProcess ours, reused;
  setProcessName(ours.pid(), "/usr/bin/sleep");
  setProcessName(reused.pid(), "/Applications/Other.app/Contents/MacOS/Other");
  put("resume-pids", std::to_string(ours.pid()) + "\t/bin/sleep\n" + std::to_string(reused.pid()) +
                         "\t/opt/other/bin/other\nabc\t/bin/sleep\n 12\t/bin/sleep\n");
  put("touched.json", "[]");
  put("powermode-restore", "lowpowermode 1\n");
  put("timemachine-restore");
  put("brightness-restore", "0.8");
  put("hold");
  EXPECT_EQ(run(), 0);

  EXPECT_FALSE(ours.stopped());
  EXPECT_TRUE(reused.stopped());  // its pid now belongs to another program
  for (const char* f : {"resume-pids", "touched.json", "powermode-restore", "hold"})
    EXPECT_FALSE(has(f)) << f;
  if (!mac_) {
    // Only the person's session can set the brightness: the record waits.
    EXPECT_TRUE(has("brightness-restore"));
    return;
  }
  EXPECT_FALSE(has("timemachine-restore"));
  EXPECT_THAT(logLines(),
              ElementsAre("ps -p " + std::to_string(ours.pid()) + " -o comm=",
                          "ps -p " + std::to_string(reused.pid()) + " -o comm=",
                          "sudo -n /usr/bin/pmset -b lowpowermode 1", "sudo -n /usr/bin/tmutil enable",
                          "sudo -n /usr/bin/pmset -a disablesleep 0"));
}

TEST_P(WatchdogScriptTest, GoneForTenMinutesRemovesTheSetupAndItself) {
  removeApp();
  ::symlink(dir_.file("nowhere").c_str(), link_.c_str());
  put("alive");
  run();
  EXPECT_EQ(readFile(file("gone")), std::to_string(kScriptNow) + "\n");
  EXPECT_THAT(logLines(), IsEmpty());

  setNow(kScriptNow + 599);
  run();
  EXPECT_TRUE(has("watchdog.sh"));
  for (const std::string& f : setupFiles_) EXPECT_TRUE(fileExists(f)) << f;

  setNow(kScriptNow + 600);
  EXPECT_EQ(run(), 0);
  if (mac_) {
    EXPECT_THAT(logLines(),
                ElementsAre("sudo -n /bin/rm -f /private/etc/sudoers.d/vigilo", "sudo -n /bin/rm -f " + link_,
                            "id -u", "launchctl bootout gui/501/com.tarnwell.vigilo.watchdog"));
  } else {
    EXPECT_THAT(logLines(), ElementsAre("systemctl --user disable --now vigilo-watchdog.timer",
                                        "systemctl --user daemon-reload"));
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(link_)));
  }
  for (const char* f : {"watchdog.sh", "gone", "alive"}) EXPECT_FALSE(has(f)) << f;
  for (const std::string& f : setupFiles_) EXPECT_FALSE(fileExists(f)) << f;
}

INSTANTIATE_TEST_SUITE_P(MacAndLinux, WatchdogScriptTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Mac" : "Linux"; });

TEST_F(MacWatchdogScriptTest, BeginsAsTheLaunchAgentExpectsAndParses) {
  const std::string s = macWatchdogScript("/Users/ada", "/Users/ada/Library/Application Support/Vigilo",
                                          "/Applications/Vigilo.app/Contents/MacOS/Vigilo");
  EXPECT_EQ(s.rfind("#!/bin/sh\n", 0), 0u);
  EXPECT_NE(s.find("\nD=\"$HOME/Library/Application Support/Vigilo\"\n"), std::string::npos);
  // Another folder and an executable path with a quote are quoted for sh.
  const std::string odd = macWatchdogScript("/Users/ada", "/tmp/v home", "/Apps/it's/Vigilo");
  EXPECT_NE(odd.find("D='/tmp/v home'\nEXE='/Apps/it'\\''s/Vigilo'\n"), std::string::npos);
  EXPECT_NE(odd.find("\nVIGILO_HOME=$D\nexport VIGILO_HOME\n"), std::string::npos);
  EXPECT_EQ(s.find("VIGILO_HOME"), std::string::npos);
  writeFile(dir_.file("odd.sh"), odd);
  ProcessRunner runner;
  EXPECT_EQ(runner.run({"/bin/sh", "-n", dir_.file("odd.sh")}).status, 0);
}

TEST_F(LinuxWatchdogScriptTest, ASimulatedLaptopsRecordsAreLeftToVigilo) {
  removeApp();
  PausedProcess real;
  put("machine.json", R"({"file":"/tmp/laptop.json","machine":"sim"})");
  put("resume-pids", std::to_string(real.pid()) + "\t/usr/bin/sleep\n");
  put("hold");
  run();
  EXPECT_TRUE(real.stopped());
  EXPECT_TRUE(has("resume-pids") && has("hold"));
}

TEST_F(MacWatchdogScriptTest, AfterACleanQuitOnlyALeftoverHoldIsReleased) {
  // Sleep was off before the app took over: not ours to switch on.
  put("hold");
  put("sleep-off-before");
  run();
  EXPECT_FALSE(has("hold"));
  EXPECT_TRUE(has("sleep-off-before"));
  EXPECT_THAT(logLines(), IsEmpty());

  // Ours, and sudo refuses: the record stays for the next run.
  fs::remove(file("sleep-off-before"));
  put("hold");
  put("powermode-restore", "powermode 1");
  setSudoFails(true);
  run();
  EXPECT_TRUE(has("hold"));
  setSudoFails(false);
  clearLog();
  run();
  EXPECT_FALSE(has("hold"));
  // Only the hold: the other records are the app's own to put back.
  EXPECT_TRUE(has("powermode-restore"));
  EXPECT_THAT(logLines(), ElementsAre("sudo -n /usr/bin/pmset -a disablesleep 0"));
}

TEST_F(MacWatchdogScriptTest, PowerModeRecordsOutsideTheAllowedValuesAreDroppedWithoutPmset) {
  removeApp();
  for (const char* bad : {"powermode 7", "powermode 1 extra", "powermode; rm -rf /"}) {
    put("powermode-restore", bad);
    clearLog();
    run();
    EXPECT_FALSE(has("powermode-restore")) << bad;
    EXPECT_THAT(logLines(), IsEmpty()) << bad;
  }
  // A refused put-back keeps its record for the next minute.
  put("powermode-restore", "powermode 2");
  setSudoFails(true);
  run();
  EXPECT_TRUE(has("powermode-restore"));
}

TEST_F(MacWatchdogScriptTest, AGoneTimeThatIsNoNumberCountsAsNowAndALiveLinkStays) {
  removeApp();
  ::symlink(script().c_str(), link_.c_str());  // leads somewhere: not ours to remove
  put("gone", "yesterday");
  run();
  EXPECT_TRUE(has("watchdog.sh"));
  put("gone", std::to_string(kScriptNow - 3600));
  clearLog();
  run();
  EXPECT_THAT(logLines(), ElementsAre("sudo -n /bin/rm -f /private/etc/sudoers.d/vigilo", "id -u",
                                      "launchctl bootout gui/501/com.tarnwell.vigilo.watchdog"));
}

// "Approve everything" is put back only where a file is as Vigilo left it,
// never through a link planted at the temporary name, and a record whose
// edit never happened is dropped.
TEST_F(MacWatchdogScriptTest, ApproveEverythingIsPutBackOnlyWhereTheFileIsAsVigiloLeftIt) {
  removeApp();
  const std::string claude = dir_.file("claude-settings.json"), codex = dir_.file("codex-config.toml");
  const std::string victim = dir_.file("victim"), r = folder_ + "/approve-restore";
  const std::string bypass = "{\"permissions\":{\"defaultMode\":\"bypassPermissions\"}}";
  auto record = [&](const std::string& agent, const std::string& target, const std::string& restored,
                    const std::string& sha) {
    fs::create_directories(r);
    writeFile(r + "/" + agent + ".target", target + "\n");
    writeFile(r + "/" + agent + ".restored", restored);
    writeFile(r + "/" + agent + ".sha", sha + "\n");
  };
  writeFile(claude, bypass);
  ::chmod(claude.c_str(), 0644);
  writeFile(codex, "approval_policy = \"never\"\n# edited by the person since\n");
  put("auto-approve.json", "{}");
  record("claude", claude, "{}", sha256(claude));
  ::chmod((r + "/claude.restored").c_str(), 0600);  // as Vigilo keeps it
  record("codex", codex, "approval_policy = \"on-request\"\n", std::string(64, '0'));
  run();
  EXPECT_EQ(readFile(claude), "{}");
  EXPECT_EQ(fs::status(claude).permissions(), fs::perms(0644)) << "not the restore folder's private mode";
  EXPECT_EQ(readFile(codex), "approval_policy = \"never\"\n# edited by the person since\n");
  EXPECT_TRUE(has("auto-approve.json")) << "Codex waits for the app";
  EXPECT_FALSE(fileExists(r + "/claude.target"));
  // The restored Claude file is not taken for a changed one; once Codex is
  // back too, the record goes.
  writeFile(codex, "approval_policy = \"never\"\n");
  writeFile(r + "/codex.sha", sha256(codex));
  run();
  EXPECT_EQ(readFile(codex), "approval_policy = \"on-request\"\n");
  EXPECT_FALSE(has("auto-approve.json"));
  EXPECT_FALSE(fs::exists(r));

  struct Case {
    const char* what;
    bool folder;  // the restore copies were written
    bool edited;  // the Claude file holds Vigilo's edit
  };
  for (const Case& c : {Case{"edited, a link planted at the old temporary name", true, true},
                        Case{"killed before the restore copies", false, false}}) {
    SCOPED_TRACE(c.what);
    writeFile(victim, "keep");
    writeFile(claude, c.edited ? bypass : "{\"mine\": 1}");
    fs::remove(claude + ".vigilo-tmp");
    fs::create_symlink(victim, claude + ".vigilo-tmp");
    put("auto-approve.json",
        "{\n  \"claudeTouched\": true,\n  \"codexTouched\": false,\n  \"ends\": \"manual\"\n}\n");
    const std::string after = c.edited ? "{}" : "{\"mine\": 1}";
    if (c.folder) record("claude", claude, after, c.edited ? sha256(claude) : std::string(64, 'e'));
    run();
    EXPECT_EQ(readFile(claude), after);
    EXPECT_EQ(readFile(victim), "keep");
    EXPECT_FALSE(has("auto-approve.json"));
    EXPECT_FALSE(fs::exists(r));
    std::vector<std::string> beside;  // nothing of the script's own is left beside the file
    for (const auto& e : fs::directory_iterator(dir_.path())) {
      const std::string name = e.path().filename().string();
      if (name.rfind("claude-settings.json.", 0) == 0) beside.push_back(name);
    }
    EXPECT_THAT(beside, ElementsAre("claude-settings.json.vigilo-tmp"));
  }
}

}  // namespace
}  // namespace vigilo::test
