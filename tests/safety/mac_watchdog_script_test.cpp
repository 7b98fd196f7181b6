#include <filesystem>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "safety/script_harness.h"
#include "safety/watchdog_script.h"

namespace vigilo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr long long kNow = kScriptNow;

class MacWatchdogScriptTest : public WatchdogScriptFixture {
 protected:
  MacWatchdogScriptTest() : WatchdogScriptFixture(true) {}
  std::string plist() const { return setupFiles_[0]; }
};

// The same scenarios for the Mac's script (true) and Linux's (false).
class WatchdogScriptTest : public WatchdogScriptFixture, public ::testing::WithParamInterface<bool> {
 protected:
  WatchdogScriptTest() : WatchdogScriptFixture(GetParam()) {}
};

TEST_P(WatchdogScriptTest, AFreshHeartbeatIsLeftAloneAStaleOneHandsOverToTheApp) {
  // Given "alive" 39 seconds old: the app lives, nothing is done.
  put("alive");
  put("gone", "123");
  setModified(file("alive"), kNow - 39);
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(tools_.logLines(), IsEmpty());
  EXPECT_FALSE(has("gone"));  // the executable is there again
  // 40 seconds: the app died or hangs; its executable undoes the records.
  setModified(file("alive"), kNow - 40);
  EXPECT_EQ(run(), 0);
  EXPECT_THAT(tools_.logLines(), ElementsAre("exe cli watchdog"));
  if (mac_) return;  // a clean quit on a Mac: see below
  // A clean quit with nothing left does nothing; with a hold left the
  // executable puts it back on the machine the folder belongs to.
  std::filesystem::remove(file("alive"));
  tools_.clearLog();
  run();
  EXPECT_THAT(tools_.logLines(), IsEmpty());
  put("hold");
  run();
  EXPECT_THAT(tools_.logLines(), ElementsAre("exe cli watchdog"));
}

TEST_P(WatchdogScriptTest, WithTheAppGoneItContinuesOnlyItsOwnPausedProcessesAndPutsRecordsBack) {
  removeApp();
  PausedProcess ours, reused;
  tools_.setProcessName(ours.pid(), "/usr/bin/sleep");
  tools_.setProcessName(reused.pid(), "/Applications/Other.app/Contents/MacOS/Other");
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
  for (const char* f : {"resume-pids", "touched.json", "powermode-restore", "hold"}) EXPECT_FALSE(has(f)) << f;
  if (!mac_) {
    // Only the person's session can set the brightness: the record waits.
    EXPECT_TRUE(has("brightness-restore"));
    return;
  }
  EXPECT_FALSE(has("timemachine-restore"));
  EXPECT_THAT(tools_.logLines(),
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
  EXPECT_EQ(readFile(file("gone")), std::to_string(kNow) + "\n");
  EXPECT_THAT(tools_.logLines(), IsEmpty());

  tools_.setNow(kNow + 599);
  run();
  EXPECT_TRUE(has("watchdog.sh"));
  for (const std::string& f : setupFiles_) EXPECT_TRUE(fileExists(f)) << f;

  tools_.setNow(kNow + 600);
  EXPECT_EQ(run(), 0);
  if (mac_) {
    EXPECT_THAT(tools_.logLines(), ElementsAre("sudo -n /bin/rm -f /private/etc/sudoers.d/vigilo",
                                               "sudo -n /bin/rm -f " + link_, "id -u",
                                               "launchctl bootout gui/501/com.tarnwell.vigilo.watchdog"));
  } else {
    EXPECT_THAT(tools_.logLines(), ElementsAre("systemctl --user disable --now vigilo-watchdog.timer",
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
  EXPECT_EQ(s.substr(0, s.find("\n\n")),
            "#!/bin/sh\n"
            "# Vigilo watchdog (written by Vigilo; refreshed each launch).\n"
            "D=\"$HOME/Library/Application Support/Vigilo\"\n"
            "EXE=/Applications/Vigilo.app/Contents/MacOS/Vigilo\n"
            "LABEL=com.tarnwell.vigilo.watchdog\n"
            "S=/usr/bin/sudo\n"
            "TAB=$(printf '\\t')");
  // Another folder and an executable path with a quote are quoted for sh.
  const std::string odd = macWatchdogScript("/Users/ada", "/tmp/v home", "/Apps/it's/Vigilo");
  EXPECT_NE(odd.find("D='/tmp/v home'\nEXE='/Apps/it'\\''s/Vigilo'\n"), std::string::npos);
  EXPECT_NE(odd.find("\nVIGILO_HOME=$D\nexport VIGILO_HOME\n"), std::string::npos);
  EXPECT_EQ(s.find("VIGILO_HOME"), std::string::npos);
  writeFile(dir_.file("odd.sh"), odd);
  ProcessRunner runner;
  EXPECT_EQ(runner.run({"/bin/sh", "-n", dir_.file("odd.sh")}).status, 0);
}

TEST_F(MacWatchdogScriptTest, AfterACleanQuitOnlyALeftoverHoldIsReleased) {
  // Sleep was off before the app took over: not ours to switch on.
  put("hold");
  put("sleep-off-before");
  run();
  EXPECT_FALSE(has("hold"));
  EXPECT_TRUE(has("sleep-off-before"));
  EXPECT_THAT(tools_.logLines(), IsEmpty());

  // Ours, and sudo refuses: the record stays for the next run.
  std::filesystem::remove(file("sleep-off-before"));
  put("hold");
  put("powermode-restore", "powermode 1");
  tools_.setSudoFails(true);
  run();
  EXPECT_TRUE(has("hold"));
  tools_.setSudoFails(false);
  tools_.clearLog();
  run();
  EXPECT_FALSE(has("hold"));
  // Only the hold: the other records are the app's own to put back.
  EXPECT_TRUE(has("powermode-restore"));
  EXPECT_THAT(tools_.logLines(), ElementsAre("sudo -n /usr/bin/pmset -a disablesleep 0"));
}

TEST_F(MacWatchdogScriptTest, PowerModeRecordsOutsideTheAllowedValuesAreDroppedWithoutPmset) {
  removeApp();
  for (const char* bad : {"powermode 7", "lowpowermode 2", "powermode 1 extra", "", "powermode; rm -rf /"}) {
    put("powermode-restore", bad);
    tools_.clearLog();
    run();
    EXPECT_FALSE(has("powermode-restore")) << bad;
    EXPECT_THAT(tools_.logLines(), IsEmpty()) << bad;
  }
  // A refused put-back keeps its record for the next minute.
  put("powermode-restore", "powermode 2");
  tools_.setSudoFails(true);
  run();
  EXPECT_TRUE(has("powermode-restore"));
}

TEST_F(MacWatchdogScriptTest, AGoneTimeThatIsNoNumberCountsAsNowAndALiveLinkStays) {
  removeApp();
  ::symlink(script().c_str(), link_.c_str());  // leads somewhere: not ours to remove
  put("gone", "yesterday");
  run();
  EXPECT_TRUE(has("watchdog.sh"));
  put("gone", std::to_string(kNow - 3600));
  tools_.clearLog();
  run();
  EXPECT_THAT(tools_.logLines(), ElementsAre("sudo -n /bin/rm -f /private/etc/sudoers.d/vigilo", "id -u",
                                             "launchctl bootout gui/501/com.tarnwell.vigilo.watchdog"));
}

TEST_F(MacWatchdogScriptTest, ApproveEverythingIsPutBackOnlyWhereTheFileIsAsVigiloLeftIt) {
  removeApp();
  const std::string claude = dir_.file("claude-settings.json");
  const std::string codex = dir_.file("codex-config.toml");
  writeFile(claude, "{\"permissions\":{\"defaultMode\":\"bypassPermissions\"}}");
  writeFile(codex, "approval_policy = \"never\"\n# edited by the person since\n");
  ::chmod(claude.c_str(), 0644);
  const std::string r = folder_ + "/approve-restore";
  std::filesystem::create_directories(r);
  put("auto-approve.json", "{}");
  writeFile(r + "/claude.target", claude + "\n");
  writeFile(r + "/claude.restored", "{}");
  ::chmod((r + "/claude.restored").c_str(), 0600);  // as Vigilo keeps it
  // SHA-256 of the Claude file exactly as written above.
  ProcessRunner runner;
  std::string sum = runner.run({"/usr/bin/sha256sum", claude}).output.substr(0, 64);
  writeFile(r + "/claude.sha", sum + "\n");
  writeFile(r + "/codex.target", codex);
  writeFile(r + "/codex.restored", "approval_policy = \"on-request\"\n");
  writeFile(r + "/codex.sha", std::string(64, '0'));
  run();
  EXPECT_EQ(readFile(claude), "{}");
  struct stat st {};
  ASSERT_EQ(::stat(claude.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);  // not the restore folder's private mode
  EXPECT_EQ(readFile(codex), "approval_policy = \"never\"\n# edited by the person since\n");
  EXPECT_TRUE(has("auto-approve.json"));  // Codex waits for the app
  EXPECT_FALSE(fileExists(r + "/claude.target"));

  // The next run does not take the restored Claude file for a changed one;
  // once Codex is back too, the record goes.
  writeFile(codex, "approval_policy = \"never\"\n");
  writeFile(r + "/codex.sha", runner.run({"/usr/bin/sha256sum", codex}).output.substr(0, 64));
  run();
  EXPECT_EQ(readFile(codex), "approval_policy = \"on-request\"\n");
  EXPECT_FALSE(has("auto-approve.json"));
  EXPECT_FALSE(std::filesystem::exists(r));
}

TEST_F(MacWatchdogScriptTest, ApproveRestoreNeverWritesThroughALinkAndDropsARecordWhoseEditNeverHappened) {
  removeApp();
  const std::string claude = dir_.file("claude-settings.json");
  const std::string victim = dir_.file("victim");
  const std::string r = folder_ + "/approve-restore";
  ProcessRunner runner;
  auto sha = [&](const std::string& path) { return runner.run({"/usr/bin/sha256sum", path}).output.substr(0, 64); };
  const std::string record = "{\n  \"claudeTouched\": true,\n  \"codexTouched\": false,\n  \"ends\": \"manual\"\n}\n";
  struct Case {
    const char* what;
    bool folder;        // the restore copies were written
    bool edited;        // the Claude file holds Vigilo's edit
    std::string after;  // the Claude file after the run
  };
  const std::vector<Case> cases = {
      {"edited, a link planted at the old temporary name", true, true, "{}"},
      {"killed before the edit", true, false, "{\"mine\": 1}"},
      {"killed before the restore copies", false, false, "{\"mine\": 1}"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::filesystem::remove_all(r);
    writeFile(victim, "keep");
    writeFile(claude, c.edited ? "{\"permissions\":{\"defaultMode\":\"bypassPermissions\"}}" : "{\"mine\": 1}");
    std::filesystem::remove(claude + ".vigilo-tmp");
    std::filesystem::create_symlink(victim, claude + ".vigilo-tmp");
    put("auto-approve.json", record);
    if (c.folder) {
      std::filesystem::create_directories(r);
      writeFile(r + "/claude.restored", c.edited ? "{}" : "{\"mine\": 1}");
      writeFile(r + "/claude.sha", sha(claude) + "\n");
      if (!c.edited) writeFile(r + "/claude.sha", std::string(64, 'e') + "\n");
      writeFile(r + "/claude.target", claude + "\n");
    }
    run();
    EXPECT_EQ(readFile(claude), c.after);
    EXPECT_EQ(readFile(victim), "keep");
    EXPECT_FALSE(has("auto-approve.json"));
    EXPECT_FALSE(std::filesystem::exists(r));
    // Nothing of the script's own is left beside the file.
    std::vector<std::string> beside;
    for (const auto& e : std::filesystem::directory_iterator(dir_.path())) {
      const std::string name = e.path().filename().string();
      if (name.rfind("claude-settings.json.", 0) == 0) beside.push_back(name);
    }
    EXPECT_THAT(beside, ElementsAre("claude-settings.json.vigilo-tmp"));
  }
}

}  // namespace
}  // namespace vigilo::test
