#include <filesystem>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "safety/recording_runner.h"
#include "safety/setup.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

const std::string kCommandList =
    "/usr/bin/pmset -a disablesleep 1, /usr/bin/pmset -a disablesleep 0, /usr/bin/pmset -b powermode 0, "
    "/usr/bin/pmset -b powermode 1, /usr/bin/pmset -b powermode 2, /usr/bin/pmset -b lowpowermode 0, "
    "/usr/bin/pmset -b lowpowermode 1, /usr/bin/pmset sleepnow, /usr/bin/pmset relative wake 3600, "
    "/usr/bin/pmset relative wake 1800, /usr/bin/pmset relative wake 900, /usr/bin/pmset relative wake 300, "
    "/usr/bin/pmset relative wake 60, /usr/bin/tmutil disable, /usr/bin/tmutil enable, "
    "/bin/rm -f /private/etc/sudoers.d/vigilo, /bin/rm -f /usr/local/bin/vigilo";

// Given the Mac's setup for "ada" (uid 501) in a temporary home, with every
// command line recorded instead of run.
class MacSetupTest : public ::testing::Test {
 protected:
  MacSetupTest() {
    home_ = dir_.file("home");
    std::filesystem::create_directories(home_);
    std::filesystem::create_directories(dir_.file("staging"));
    setup_ = std::make_unique<MacSetup>(
        SetupContext{home_, home_ + "/Library/Application Support/Vigilo", "", "ada", 501}, runner_);
    setup_->stagingFolder = dir_.file("staging");
  }
  // The staged rule passes the real visudo, as the admin command would check.
  static bool visudoAccepts(const std::string& path) {
    ProcessRunner real;
    return real.run({"/usr/sbin/visudo", "-cf", path}).ok();
  }

  TempDir dir_;
  std::string home_;
  RecordingRunner runner_;
  std::unique_ptr<MacSetup> setup_;
};

TEST_F(MacSetupTest, TheRuleListsExactlyTheSwitchesAndPassesTheRealVisudoForAwkwardUserNames) {
  EXPECT_EQ(MacSetup::sudoersText("ada", 501),
            "# Installed by Vigilo. Lets Vigilo flip only these power switches without a password.\n"
            "Cmnd_Alias VIGILO_PMSET = " +
                kCommandList + "\nada ALL=(root) NOPASSWD: VIGILO_PMSET\n");
  // Each user name, and how the rule writes it.
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"ada.l-b_2", "ada.l-b_2"}, {"x:y=z", "x\\:y\\=z"}, {"a\\b", "a\\\\b"}, {"%staff", "\\%staff"},
      {"o'\"q", "o\\'\\\"q"},     {"ALL", "#501"},       {"#0", "#501"},       {"bad\nline", "#501"},
  };
  for (const auto& [user, writtenAs] : cases) {
    const std::string text = MacSetup::sudoersText(user, 501);
    EXPECT_THAT(text, HasSubstr("\n" + writtenAs + " ALL=(root) NOPASSWD: VIGILO_PMSET\n")) << user;
    // Checked by the real visudo where it is installed (scripts/setup installs sudo).
    if (!std::filesystem::exists("/usr/sbin/visudo")) continue;
    writeFile(dir_.file("rule"), text);
    EXPECT_TRUE(visudoAccepts(dir_.file("rule"))) << user << "\n" << text;
  }
}

TEST_F(MacSetupTest, InstallStagesChecksThenMovesAndLinksInOneAdminCommand) {
  bool stagedWasValid = false;
  runner_.answer = [&](const std::vector<std::string>& argv) {
    if (argv[0] == "/usr/bin/osascript" && std::filesystem::exists("/usr/sbin/visudo")) {
      stagedWasValid = visudoAccepts(dir_.file("staging/vigilo-sudoers"));
    }
    // The agent is not loaded yet: "launchctl print" fails.
    return CommandOutput{argv[1] == "print" ? 113 : 0, ""};
  };
  std::vector<std::string> said;
  ASSERT_TRUE(setup_->install(said));
  const std::string command =
      "/bin/mkdir -p /private/etc/sudoers.d && /usr/bin/install -m 0440 -o root -g wheel " + dir_.file("staging") +
      "/vigilo-sudoers /private/etc/sudoers.d/.vigilo.staging && /usr/sbin/visudo -cf "
      "/private/etc/sudoers.d/.vigilo.staging && /bin/mv -f /private/etc/sudoers.d/.vigilo.staging "
      "/private/etc/sudoers.d/vigilo && /bin/mkdir -p /usr/local/bin && /bin/ln -sf "
      "/Applications/Vigilo.app/Contents/MacOS/Vigilo /usr/local/bin/vigilo";
  ASSERT_EQ(runner_.calls.size(), 5u);
  EXPECT_THAT(runner_.calls[0],
              ElementsAre("/usr/bin/osascript", "-e",
                          "do shell script \"" + command +
                              "\" with administrator privileges with prompt \"Vigilo needs your password once to "
                              "control sleep while the lid is closed.\""));
  if (std::filesystem::exists("/usr/sbin/visudo")) {
    EXPECT_TRUE(stagedWasValid);
  }
  const auto lines = runner_.lines();
  EXPECT_THAT(std::vector<std::string>(lines.begin() + 1, lines.end()),
              ElementsAre("/usr/bin/sudo -n -l /usr/bin/pmset -a disablesleep 0",
                          "/usr/bin/sudo -n -l /usr/bin/pmset relative wake 60",
                          "/bin/launchctl print gui/501/com.tarnwell.vigilo.watchdog",
                          "/bin/launchctl bootstrap gui/501 " + home_ +
                              "/Library/LaunchAgents/com.tarnwell.vigilo.watchdog.plist"));
  // The staged file is gone; the script and the agent are in place.
  EXPECT_FALSE(fileExists(dir_.file("staging/vigilo-sudoers")));
  const std::string plist = readFile(home_ + "/Library/LaunchAgents/com.tarnwell.vigilo.watchdog.plist");
  EXPECT_THAT(plist, HasSubstr("<array>\n\t\t<string>/bin/sh</string>\n\t\t<string>" + home_ +
                               "/Library/Application Support/Vigilo/watchdog.sh</string>\n\t</array>"));
  EXPECT_THAT(plist, HasSubstr("<key>StartInterval</key>\n\t<integer>60</integer>"));
  EXPECT_EQ(std::filesystem::status(setup_->scriptPath()).permissions() & std::filesystem::perms::all,
            std::filesystem::perms(0755));
}

TEST_F(MacSetupTest, FailuresSayWhatHappenedInPlainWords) {
  struct Case {
    const char* name;
    std::function<CommandOutput(const std::vector<std::string>&)> answer;
    std::string error;
  };
  const std::vector<Case> cases = {
      {"cancelled",
       [](const std::vector<std::string>& a) {
         return CommandOutput{a[0] == "/usr/bin/osascript" ? 1 : 0, "execution error: User canceled. (-128)"};
       },
       "Setup cancelled."},
      {"sudo not accepting",
       [](const std::vector<std::string>& a) { return CommandOutput{a[0] == "/usr/bin/sudo" ? 1 : 0, ""}; },
       "Installed, but sudo isn't accepting it yet. Try Set up again."},
      {"launchctl refused",
       [](const std::vector<std::string>& a) {
         if (a[0] != "/bin/launchctl") return CommandOutput{0, ""};
         return CommandOutput{a[1] == "print" ? 113 : 5, "Bootstrap failed: 5: Input/output error\n"};
       },
       "Couldn't start the watchdog: Bootstrap failed: 5: Input/output error"},
  };
  for (const Case& c : cases) {
    runner_.calls.clear();
    runner_.answer = c.answer;
    std::vector<std::string> said;
    Result r = setup_->install(said);
    EXPECT_FALSE(r) << c.name;
    EXPECT_EQ(r.message(), c.error) << c.name;
  }
  // The wake commands alone refused: setup works, the log says so.
  runner_.answer = [](const std::vector<std::string>& a) {
    return CommandOutput{a.back() == "60" || a[1] == "print" ? 1 : 0, ""};
  };
  std::vector<std::string> said;
  EXPECT_TRUE(setup_->install(said));
}

TEST_F(MacSetupTest, TheAdminPromptCarriesQuotesAndBackslashesSafely) {
  EXPECT_EQ(MacSetup::adminScript("/bin/ln -sf '/Apps/A \"B\"\\C' /x", "Say \"hi\""),
            "do shell script \"/bin/ln -sf '/Apps/A \\\"B\\\"\\\\C' /x\" with administrator privileges with "
            "prompt \"Say \\\"hi\\\"\"");
}

TEST_F(MacSetupTest, DoctorFollowsTheWatchdogAndRemovalUnloadsItBeforeTheRuleGoes) {
  bool loaded = false;
  runner_.answer = [&](const std::vector<std::string>&) { return CommandOutput{loaded ? 0 : 113, ""}; };
  EXPECT_THAT(setup_->doctorLines(), ElementsAre("Watchdog: missing (open Vigilo to set it up)"));
  setup_->installWatchdog();  // launchctl refuses: installed, not loaded
  loaded = true;
  EXPECT_THAT(setup_->doctorLines(), ElementsAre("Watchdog: running every 60 seconds"));
  std::filesystem::remove(setup_->scriptPath());
  EXPECT_THAT(setup_->doctorLines(),
              ElementsAre("Watchdog: loaded but its script is missing (open Vigilo › Settings › General › Set Up)"));

  std::vector<std::string> said;
  ASSERT_TRUE(setup_->installWatchdog());
  runner_.calls.clear();
  ASSERT_TRUE(setup_->uninstall(said));
  EXPECT_THAT(runner_.lines(),
              ElementsAre("/bin/launchctl bootout gui/501/com.tarnwell.vigilo.watchdog",
                          "/usr/bin/osascript -e do shell script \"/bin/rm -f /private/etc/sudoers.d/vigilo\" with "
                          "administrator privileges with prompt \"Vigilo needs your password to remove its sleep "
                          "permission and the vigilo command.\""));
  EXPECT_FALSE(fileExists(setup_->scriptPath()));
  EXPECT_FALSE(fileExists(setup_->propertyListPath()));
}

}  // namespace
}  // namespace vigilo::test
