#pragma once

#include <memory>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

#include "platform/result.h"
#include "platform/command_runner.h"

namespace vigilo {

// Who and where: the values the setup's files are built from.
struct SetupContext {
  std::string home;        // the person's home folder
  std::string appFolder;   // Vigilo's app folder
  std::string executable;  // the running executable ("" when unknown)
  std::string user;        // the person's short name
  uid_t uid = 0;
};

// The one-time setup and the watchdog it installs: what lets Vigilo switch
// sleep while the lid is shut, the `vigilo` command link, and the safety net
// that puts everything back when the app has died. Each call is
// synchronous, on the main thread, and says in plain English what failed.
class Setup {
 public:
  explicit Setup(SetupContext context, CommandRunner& runner) : c_(std::move(context)), run_(runner) {}
  Setup(const Setup&) = delete;
  Setup& operator=(const Setup&) = delete;
  virtual ~Setup() = default;

  const SetupContext& context() const { return c_; }
  std::string scriptPath() const { return c_.appFolder + "/watchdog.sh"; }

  // How the person repairs this setup, as a sentence.
  virtual std::string repairHint() const = 0;
  // The watchdog script's text for this executable and folder.
  virtual std::string watchdogScript() const = 0;
  // Rewrites the script (mode 0755), so it always names the running
  // executable; at every launch.
  virtual Result refreshWatchdogScript();
  // Writes the script and the agent (or units) and loads them. Failure:
  // "Couldn't start the watchdog: " and the loader's output.
  virtual Result installWatchdog() = 0;
  // The agent's (or the timer's) file exists.
  virtual bool watchdogInstalled() const = 0;
  // The system runs it.
  virtual bool watchdogLoaded() = 0;
  // Loaded, and the script is in place.
  bool watchdogReady();
  // Whether the watchdog is installed for this app folder: only then may the
  // app repair it by itself.
  virtual bool watchdogIsThisFolders() const { return watchdogInstalled(); }

  // The command link.
  virtual std::string cliLinkPath() const = 0;
  bool cliInstalled() const;

  // The whole setup, and its removal. `said` collects a line for each thing
  // done. On a Mac the system asks for the administrator password.
  virtual Result install(std::vector<std::string>& said) = 0;
  virtual Result uninstall(std::vector<std::string>& said) = 0;

  // The lines `vigilo doctor` adds for the setup, beginning with
  // "Watchdog: ".
  virtual std::vector<std::string> doctorLines() = 0;

 protected:
  CommandOutput run(const std::vector<std::string>& argv) { return run_.run(argv); }

  SetupContext c_;
  CommandRunner& run_;
};

// ------------------------------------------------------------------ macOS

inline constexpr const char* kSudoersFile = "/private/etc/sudoers.d/vigilo";
inline constexpr const char* kMacCliLink = "/usr/local/bin/vigilo";
inline constexpr const char* kSetupPrompt = "Vigilo needs your password once to control sleep while the lid is closed.";
inline constexpr const char* kRemovePrompt =
    "Vigilo needs your password to remove its sleep permission and the vigilo command.";

// The Mac's setup: a sudoers rule for exactly the power switches, the link
// in /usr/local/bin and a launch agent. Every command line goes through the
// runner, so it is checked on any machine.
class MacSetup final : public Setup {
 public:
  std::string repairHint() const override { return "Run Set Up again in Settings › General."; }
  using Setup::Setup;

  // The commands the rule allows, in order.
  static std::vector<std::string> commands();
  // The rule file's content. A name sudoers would read as something else
  // ("ALL", "#5") is written as "#<uid>", which names the same user.
  static std::string sudoersText(const std::string& user, uid_t uid);
  // "/bin/mkdir -p /usr/local/bin && /bin/ln -sf <executable> /usr/local/bin/vigilo".
  std::string cliLinkCommand() const;
  // The AppleScript statement that runs `command` as administrator.
  static std::string adminScript(const std::string& command, const std::string& prompt);
  // Runs it through osascript: "Setup cancelled." or "Setup failed." on failure.
  Result runAsAdmin(const std::string& command, const std::string& prompt);
  // Writes the rule to a staging file, has visudo check it and only then
  // moves it into place, links the command, checks that sudo accepts it.
  Result installSudoers(std::vector<std::string>& said);
  // The rule accepts the wake commands.
  bool wakeReady();
  // sudo accepts the rule for the sleep switch without a password.
  bool sudoReady();
  std::string propertyListPath() const;
  std::string propertyList() const;
  // Where the rule is staged before the move (overridable by tests).
  std::string stagingFolder = "";

  std::string watchdogScript() const override;
  Result installWatchdog() override;
  bool watchdogInstalled() const override;
  bool watchdogLoaded() override;
  std::string cliLinkPath() const override { return kMacCliLink; }
  Result install(std::vector<std::string>& said) override;
  Result uninstall(std::vector<std::string>& said) override;
  std::vector<std::string> doctorLines() override;

 private:
  std::string executable() const;
};

// ------------------------------------------------------------------ Linux

inline constexpr const char* kPolkitRulesFolder = "/etc/polkit-1/rules.d";

// Linux: a systemd user timer runs the watchdog, the command link goes to
// ~/.local/bin, and a polkit rule (installed once as root through pkexec,
// with the person's consent) lets this user's Vigilo take the lid-switch
// inhibitor from its user service, where polkit's default asks for an
// active local session.
class LinuxSetup final : public Setup {
 public:
  std::string repairHint() const override { return "Run: vigilo setup"; }
  using Setup::Setup;

  std::string unitFolder() const;
  std::string serviceText() const;
  std::string timerText() const;
  // The polkit rule for `user`.
  static std::string polkitRule(const std::string& user);
  std::string polkitRulePath() const;
  bool polkitRuleInstalled() const;
  // Installs the rule as root (pkexec, which asks for the password).
  Result installPolkitRule(std::vector<std::string>& said);
  Result removePolkitRule(std::vector<std::string>& said);
  // Where the rule goes (tests point it elsewhere) and how root is reached:
  // pkexec, or nothing when already root.
  std::string rulesFolder = kPolkitRulesFolder;
  bool withPolkitRule = true;

  std::string watchdogScript() const override;
  Result refreshWatchdogScript() override;
  Result installWatchdog() override;
  bool watchdogInstalled() const override;
  bool watchdogLoaded() override;
  bool watchdogIsThisFolders() const override;
  std::string cliLinkPath() const override { return c_.home + "/.local/bin/vigilo"; }
  Result install(std::vector<std::string>& said) override;
  Result uninstall(std::vector<std::string>& said) override;
  std::vector<std::string> doctorLines() override;

 private:
  std::vector<std::string> systemctl(std::vector<std::string> args) const;
};

// The executable this process runs ("" when it cannot be read).
std::string runningExecutable();
// The context of the person running this process, for `appFolder`.
SetupContext currentSetupContext(const std::string& appFolder);
// This machine's setup: MacSetup on a Mac, LinuxSetup elsewhere.

}  // namespace vigilo
