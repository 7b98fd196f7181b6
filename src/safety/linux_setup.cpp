#include <cstdlib>
#include <filesystem>
#include <unistd.h>

#include "platform/files.h"
#include "safety/setup.h"
#include "safety/watchdog_script.h"

namespace vigilo {
namespace fs = std::filesystem;
namespace {

// One word of a unit file's command line: quoted, with systemd's "%"
// specifiers and the C escapes it reads kept literal.
std::string unitWord(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    if (c == '%') out += '%';
    out += c;
  }
  return out + "\"";
}

// A JavaScript string literal.
std::string jsString(const std::string& text) {
  std::string out = "\"";
  for (char c : text) {
    const auto u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20 || u == 0x7f) {
      char buf[8];
      std::snprintf(buf, sizeof buf, "\\x%02x", u);
      out += buf;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

constexpr const char* kSystemctl = "/usr/bin/systemctl";

}  // namespace

std::vector<std::string> LinuxSetup::systemctl(std::vector<std::string> args) const {
  std::vector<std::string> argv{kSystemctl, "--user"};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

std::string LinuxSetup::unitFolder() const {
  const char* config = std::getenv("XDG_CONFIG_HOME");
  const std::string base = config != nullptr && *config == '/' ? std::string(config) : c_.home + "/.config";
  return base + "/systemd/user";
}

std::string LinuxSetup::serviceText() const {
  return "# Written by Vigilo (vigilo setup); vigilo setup --remove removes it.\n"
         "[Unit]\n"
         "Description=Vigilo watchdog: puts back what Vigilo changed when the app has died\n"
         "\n"
         "[Service]\n"
         "Type=oneshot\n"
         "ExecStart=/bin/sh " +
         unitWord(scriptPath()) + "\n";
}

std::string LinuxSetup::timerText() const {
  return "# Written by Vigilo (vigilo setup); vigilo setup --remove removes it.\n"
         "[Unit]\n"
         "Description=Runs Vigilo's watchdog every minute\n"
         "\n"
         "[Timer]\n"
         "OnActiveSec=1s\n"
         "OnUnitActiveSec=60\n"
         "AccuracySec=1s\n"
         "\n"
         "[Install]\n"
         "WantedBy=timers.target\n";
}

std::string LinuxSetup::polkitRule(const std::string& user) {
  return "// Installed by Vigilo (vigilo setup). Lets Vigilo, running as " + user +
         " from its systemd user\n"
         "// service, keep the laptop awake with the lid shut: logind's inhibitor\n"
         "// locks are otherwise granted to active local sessions only.\n"
         "// Removed by: vigilo setup --remove\n"
         "polkit.addRule(function(action, subject) {\n"
         "    if ((action.id == \"org.freedesktop.login1.inhibit-handle-lid-switch\" ||\n"
         "         action.id == \"org.freedesktop.login1.inhibit-block-sleep\" ||\n"
         "         action.id == \"org.freedesktop.login1.inhibit-block-idle\") &&\n"
         "        subject.user == " +
         jsString(user) +
         ") {\n"
         "        return polkit.Result.YES;\n"
         "    }\n"
         "});\n";
}

std::string LinuxSetup::polkitRulePath() const {
  return rulesFolder + "/49-vigilo-" + std::to_string(c_.uid) + ".rules";
}

bool LinuxSetup::polkitRuleInstalled() const { return entryExists(polkitRulePath()); }

Result LinuxSetup::installPolkitRule(std::vector<std::string>& said) {
  const char* tmp = std::getenv("TMPDIR");
  std::string folder = std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") + "/vigilo-setup-XXXXXX";
  if (::mkdtemp(folder.data()) == nullptr) return Result::fail("Couldn't write the polkit rule to a temporary file.");
  const std::string temp = folder + "/vigilo.rules";
  Result wrote = writeFileDurably(temp, polkitRule(c_.user), 0644);
  // polkitd reads only names ending in ".rules": the rule is staged under
  // another name and moved into place whole.
  const std::string staging = rulesFolder + "/.vigilo-" + std::to_string(c_.uid) + ".staging";
  const std::string command = "/usr/bin/install -m 0644 -o root -g root " + shellQuote(temp) + " " +
                              shellQuote(staging) + " && /bin/mv -f " + shellQuote(staging) + " " +
                              shellQuote(polkitRulePath());
  CommandOutput out;
  if (wrote) {
    std::vector<std::string> argv{"/bin/sh", "-c", command};
    if (::geteuid() != 0) argv.insert(argv.begin(), "/usr/bin/pkexec");
    out = run(argv);
  }
  std::error_code ec;
  fs::remove_all(folder, ec);
  if (!wrote) return Result::fail("Couldn't write the polkit rule to a temporary file: " + wrote.message());
  // pkexec: 126 when the person dismissed the password dialog, 127 when
  // they couldn't be authorised.
  if (out.status == 126) return Result::fail("Setup cancelled.");
  if (!out.ok()) return Result::fail("Couldn't install the polkit rule: " + out.said());
  said.push_back("Installed the polkit rule " + polkitRulePath() +
                 " (lets Vigilo's user service keep the laptop awake with the lid shut)");
  return Result::ok();
}

Result LinuxSetup::removePolkitRule(std::vector<std::string>& said) {
  if (!polkitRuleInstalled()) return Result::ok();
  std::vector<std::string> argv{"/bin/rm", "-f", polkitRulePath()};
  if (::geteuid() != 0) argv.insert(argv.begin(), "/usr/bin/pkexec");
  CommandOutput out = run(argv);
  if (out.status == 126) return Result::fail("Removal cancelled; the polkit rule " + polkitRulePath() + " stays.");
  if (!out.ok()) return Result::fail("Couldn't remove the polkit rule " + polkitRulePath() + ": " + out.said());
  said.push_back("Removed the polkit rule " + polkitRulePath());
  return Result::ok();
}

std::string LinuxSetup::watchdogScript() const {
  return linuxWatchdogScript(c_.appFolder, c_.executable, cliLinkPath(), unitFolder());
}

Result LinuxSetup::refreshWatchdogScript() {
  // Without a known executable the script could only ever find the app gone
  // and remove the setup; the last good script stays instead.
  if (c_.executable.empty()) return Result::fail("Couldn't tell where Vigilo's executable is.");
  return Setup::refreshWatchdogScript();
}

Result LinuxSetup::installWatchdog() {
  if (Result r = refreshWatchdogScript(); !r) return Result::fail("Couldn't start the watchdog: " + r.message());
  std::error_code ec;
  fs::create_directories(unitFolder(), ec);
  const std::string base = unitFolder() + "/" + kWatchdogUnit;
  if (Result r = writeFileDurably(base + ".service", serviceText(), 0644); !r) {
    return Result::fail("Couldn't start the watchdog: " + r.message());
  }
  if (Result r = writeFileDurably(base + ".timer", timerText(), 0644); !r) {
    return Result::fail("Couldn't start the watchdog: " + r.message());
  }
  CommandOutput reload = run(systemctl({"daemon-reload"}));
  CommandOutput out = reload.ok() ? run(systemctl({"enable", "--now", std::string(kWatchdogUnit) + ".timer"})) : reload;
  if (!out.ok()) {
    return Result::fail("Couldn't start the watchdog: " + out.said() +
                        ". Without a systemd user manager (over SSH, in a container) it can't run; log in on the "
                        "laptop and run vigilo setup again.");
  }
  return Result::ok();
}

bool LinuxSetup::watchdogInstalled() const { return entryExists(unitFolder() + "/" + kWatchdogUnit + ".timer"); }

bool LinuxSetup::watchdogIsThisFolders() const {
  if (!watchdogInstalled()) return false;
  auto service = readWholeFile(unitFolder() + "/" + kWatchdogUnit + ".service", 64 * 1024);
  return service && service->find("ExecStart=/bin/sh " + unitWord(scriptPath()) + "\n") != std::string::npos;
}

bool LinuxSetup::watchdogLoaded() {
  return run(systemctl({"is-active", "--quiet", std::string(kWatchdogUnit) + ".timer"})).ok();
}

Result LinuxSetup::install(std::vector<std::string>& said) {
  if (c_.executable.empty()) return Result::fail("Couldn't tell where Vigilo's executable is, so nothing was set up.");
  const std::string link = cliLinkPath();
  std::error_code ec;
  // A link that still leads somewhere is kept, as on a second setup; a
  // dangling one is replaced.
  if (!fs::exists(link, ec)) {
    fs::create_directories(fs::path(link).parent_path(), ec);
    if (fs::is_symlink(fs::symlink_status(link, ec))) fs::remove(link, ec);
    fs::create_symlink(c_.executable, link, ec);
    if (ec) return Result::fail("Couldn't link the vigilo command at " + link + ": " + ec.message());
    said.push_back("Linked the vigilo command: " + link + " → " + c_.executable);
  }
  // Each step stands on its own: a timer that can't start yet (no user
  // manager over SSH) doesn't keep the rule from being installed.
  Result watchdog = installWatchdog();
  if (watchdog) {
    said.push_back("Started the watchdog (" + unitFolder() + "/" + kWatchdogUnit +
                   ".timer, every 60 seconds; it runs " + scriptPath() + ")");
  }
  if (withPolkitRule && !polkitRuleInstalled()) {
    if (Result r = installPolkitRule(said); !r) return r;
  }
  return watchdog;
}

Result LinuxSetup::uninstall(std::vector<std::string>& said) {
  const std::string base = unitFolder() + "/" + kWatchdogUnit;
  std::error_code ec;
  if (watchdogInstalled() || entryExists(base + ".service")) {
    run(systemctl({"disable", "--now", std::string(kWatchdogUnit) + ".timer"}));
    fs::remove(base + ".timer", ec);
    fs::remove(base + ".service", ec);
    run(systemctl({"daemon-reload"}));
    said.push_back("Stopped and removed the watchdog timer " + base + ".timer");
  }
  if (fs::remove(scriptPath(), ec)) said.push_back("Removed " + scriptPath());
  const std::string link = cliLinkPath();
  if (fs::is_symlink(fs::symlink_status(link, ec)) && fs::remove(link, ec)) {
    said.push_back("Removed the vigilo command " + link);
  }
  if (withPolkitRule) return removePolkitRule(said);
  return Result::ok();
}

std::vector<std::string> LinuxSetup::doctorLines() {
  std::vector<std::string> out;
  const bool loaded = watchdogLoaded();
  if (loaded && watchdogIsThisFolders() && entryExists(scriptPath())) {
    out.push_back("Watchdog: running every 60 seconds (" + std::string(kWatchdogUnit) + ".timer)");
  } else if (loaded && !watchdogIsThisFolders()) {
    out.push_back("Watchdog: running for another Vigilo folder (run: vigilo setup)");
  } else if (loaded) {
    out.push_back("Watchdog: loaded but its script is missing (run: vigilo setup)");
  } else if (watchdogInstalled()) {
    out.push_back("Watchdog: installed but not loaded (run: vigilo setup)");
  } else {
    out.push_back("Watchdog: missing (run: vigilo setup)");
  }
  std::error_code ec;
  const std::string link = cliLinkPath();
  if (fs::is_symlink(fs::symlink_status(link, ec))) {
    out.push_back(std::string("Command link: ") + link + (fs::exists(link, ec) ? "" : " (broken: run vigilo setup)"));
  } else {
    out.push_back("Command link: missing (run: vigilo setup)");
  }
  out.push_back(polkitRuleInstalled()
                    ? "Polkit rule: " + polkitRulePath()
                    : std::string("Polkit rule: missing (needed only to keep the laptop awake from the user service; "
                                  "run: vigilo setup)"));
  return out;
}

}  // namespace vigilo
