#include "safety/setup.h"

#include "platform/own_program.h"

#include <cstdlib>
#include <filesystem>
#include <pwd.h>
#include <unistd.h>

#include "engine/log.h"
#include "platform/files.h"
#include "safety/watchdog_script.h"

namespace vigilo {
namespace fs = std::filesystem;
namespace {

constexpr const char* kFixByHand = "open Vigilo › Settings › General › Set Up";

// AppleScript string literal contents: backslashes and quotes escaped.
std::string appleScriptString(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    out += c;
  }
  return out;
}

// A user name as sudoers reads it: every character it gives a meaning to
// escaped with a backslash. Bytes of non-ASCII letters are left as they are.
std::string sudoersUser(const std::string& user, uid_t uid) {
  // "ALL" is a keyword and a leading "#" a user id whatever the escaping;
  // the uid names the same person without either meaning.
  if (user.empty() || user == "ALL" || user[0] == '#') return "#" + std::to_string(uid);
  std::string out;
  for (char c : user) {
    const auto u = static_cast<unsigned char>(c);
    const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
                       c == '.' || c == '-' || u >= 0x80;
    if (u < 0x20 || u == 0x7f) return "#" + std::to_string(uid);
    if (!plain) out += '\\';
    out += c;
  }
  return out;
}

}  // namespace

Result Setup::refreshWatchdogScript() {
  if (Result made = makePrivateFolder(c_.appFolder); !made) return made;
  return writeFileDurably(scriptPath(), watchdogScript(), 0755);
}

bool Setup::watchdogReady() { return watchdogLoaded() && entryExists(scriptPath()); }

bool Setup::cliInstalled() const { return entryExists(cliLinkPath()); }

// ------------------------------------------------------------------ macOS

std::vector<std::string> MacSetup::commands() {
  std::vector<std::string> out;
  for (const char* a : {"-a disablesleep 1", "-a disablesleep 0", "-b powermode 0", "-b powermode 1", "-b powermode 2",
                        "-b lowpowermode 0", "-b lowpowermode 1", "sleepnow"}) {
    out.push_back(std::string("/usr/bin/pmset ") + a);
  }
  for (const char* s : {"3600", "1800", "900", "300", "60"}) out.push_back(std::string("/usr/bin/pmset relative wake ") + s);
  out.push_back("/usr/bin/tmutil disable");
  out.push_back("/usr/bin/tmutil enable");
  out.push_back("/bin/rm -f /private/etc/sudoers.d/vigilo");
  out.push_back("/bin/rm -f /usr/local/bin/vigilo");
  return out;
}

std::string MacSetup::sudoersText(const std::string& user, uid_t uid) {
  std::string list;
  for (const auto& c : commands()) {
    if (!list.empty()) list += ", ";
    list += c;
  }
  return "# Installed by Vigilo. Lets Vigilo flip only these power switches without a password.\n"
         "Cmnd_Alias VIGILO_PMSET = " +
         list + "\n" + sudoersUser(user, uid) + " ALL=(root) NOPASSWD: VIGILO_PMSET\n";
}

std::string MacSetup::executable() const {
  return c_.executable.empty() ? std::string(kDefaultMacExecutable) : c_.executable;
}

std::string MacSetup::cliLinkCommand() const {
  return "/bin/mkdir -p /usr/local/bin && /bin/ln -sf " + shellQuote(executable()) + " /usr/local/bin/vigilo";
}

std::string MacSetup::adminScript(const std::string& command, const std::string& prompt) {
  return "do shell script \"" + appleScriptString(command) + "\" with administrator privileges with prompt \"" +
         appleScriptString(prompt) + "\"";
}

Result MacSetup::runAsAdmin(const std::string& command, const std::string& prompt) {
  CommandOutput out = run({"/usr/bin/osascript", "-e", adminScript(command, prompt)});
  if (out.ok()) return Result::ok();
  // osascript reports the person's Cancel as error -128.
  if (out.output.find("-128") != std::string::npos || out.output.find("User canceled") != std::string::npos) {
    return Result::fail("Setup cancelled.");
  }
  logLine("Vigilo: setup command failed (" + std::to_string(out.status) + "): " + out.output);
  return Result::fail("Setup failed.");
}

bool MacSetup::sudoReady() {
  // "sudo -l <command>" answers whether the command is allowed without
  // running it, so the check never changes the sleep switch.
  return run({"/usr/bin/sudo", "-n", "-l", "/usr/bin/pmset", "-a", "disablesleep", "0"}).ok();
}

bool MacSetup::wakeReady() {
  return run({"/usr/bin/sudo", "-n", "-l", "/usr/bin/pmset", "relative", "wake", "60"}).ok();
}

Result MacSetup::installSudoers(std::vector<std::string>& said) {
  std::string folder = stagingFolder;
  if (folder.empty()) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp != nullptr && *tmp == '/' ? tmp : "/tmp") + "/vigilo-setup-XXXXXX";
    if (::mkdtemp(pattern.data()) == nullptr) return Result::fail("Setup failed.");
    folder = pattern;
  }
  const std::string temp = folder + "/vigilo-sudoers";
  if (!writeFileDurably(temp, sudoersText(c_.user, c_.uid), 0644)) return Result::fail("Setup failed.");
  const bool linkThere = cliInstalled();
  std::string command = "/bin/mkdir -p /private/etc/sudoers.d && /usr/bin/install -m 0440 -o root -g wheel " +
                        shellQuote(temp) +
                        " /private/etc/sudoers.d/.vigilo.staging && /usr/sbin/visudo -cf "
                        "/private/etc/sudoers.d/.vigilo.staging && /bin/mv -f /private/etc/sudoers.d/.vigilo.staging "
                        "/private/etc/sudoers.d/vigilo";
  // A second setup keeps the link that is already there.
  if (!linkThere) command += " && " + cliLinkCommand();
  Result r = runAsAdmin(command, kSetupPrompt);
  std::error_code ec;
  fs::remove(temp, ec);
  if (stagingFolder.empty()) fs::remove(folder, ec);
  if (!r) return r;
  said.push_back("Installed the sleep permission " + std::string(kSudoersFile));
  if (!linkThere) said.push_back("Linked the vigilo command: " + std::string(kMacCliLink) + " → " + executable());
  if (!sudoReady()) return Result::fail("Installed, but sudo isn't accepting it yet. Try Set up again.");
  if (!wakeReady()) logLine("Vigilo: sudoers installed but the wake commands aren't accepted");
  return Result::ok();
}

std::string MacSetup::propertyListPath() const {
  return c_.home + "/Library/LaunchAgents/" + kWatchdogLabel + ".plist";
}

std::string MacSetup::propertyList() const {
  std::string path;
  for (char c : scriptPath()) {
    switch (c) {
      case '&': path += "&amp;"; break;
      case '<': path += "&lt;"; break;
      case '>': path += "&gt;"; break;
      default: path += c;
    }
  }
  return std::string(
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
             "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
             "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
             "<plist version=\"1.0\">\n"
             "<dict>\n"
             "\t<key>Label</key>\n"
             "\t<string>") +
         kWatchdogLabel +
         "</string>\n"
         "\t<key>ProgramArguments</key>\n"
         "\t<array>\n"
         "\t\t<string>/bin/sh</string>\n"
         "\t\t<string>" +
         path +
         "</string>\n"
         "\t</array>\n"
         "\t<key>StartInterval</key>\n"
         "\t<integer>60</integer>\n"
         "\t<key>RunAtLoad</key>\n"
         "\t<true/>\n"
         "</dict>\n"
         "</plist>\n";
}

std::string MacSetup::watchdogScript() const { return macWatchdogScript(c_.home, c_.appFolder, executable()); }

Result MacSetup::installWatchdog() {
  if (Result r = refreshWatchdogScript(); !r) return Result::fail("Couldn't start the watchdog: " + r.message());
  std::error_code ec;
  fs::create_directories(c_.home + "/Library/LaunchAgents", ec);
  if (Result r = writeFileDurably(propertyListPath(), propertyList(), 0644); !r) {
    return Result::fail("Couldn't start the watchdog: " + r.message());
  }
  // A loaded agent reads the refreshed script on its next run.
  if (watchdogLoaded()) return Result::ok();
  CommandOutput out = run({"/bin/launchctl", "bootstrap", "gui/" + std::to_string(c_.uid), propertyListPath()});
  if (!out.ok()) return Result::fail("Couldn't start the watchdog: " + out.said());
  return Result::ok();
}

bool MacSetup::watchdogInstalled() const { return entryExists(propertyListPath()); }

bool MacSetup::watchdogLoaded() {
  return run({"/bin/launchctl", "print", "gui/" + std::to_string(c_.uid) + "/" + kWatchdogLabel}).ok();
}

Result MacSetup::install(std::vector<std::string>& said) {
  if (Result r = installSudoers(said); !r) return r;
  if (Result r = installWatchdog(); !r) return r;
  said.push_back("Started the watchdog " + propertyListPath());
  return Result::ok();
}

Result MacSetup::uninstall(std::vector<std::string>& said) {
  run({"/bin/launchctl", "bootout", "gui/" + std::to_string(c_.uid) + "/" + kWatchdogLabel});
  std::error_code ec;
  fs::remove(propertyListPath(), ec);
  fs::remove(scriptPath(), ec);
  said.push_back("Stopped and removed the watchdog");
  std::string command = "/bin/rm -f /private/etc/sudoers.d/vigilo";
  const bool link = cliInstalled();
  if (link) command += " && /bin/rm -f /usr/local/bin/vigilo";
  if (Result r = runAsAdmin(command, kRemovePrompt); !r) return r;
  said.push_back("Removed the sleep permission " + std::string(kSudoersFile));
  if (link) said.push_back("Removed the vigilo command " + std::string(kMacCliLink));
  return Result::ok();
}

std::vector<std::string> MacSetup::doctorLines() {
  const bool loaded = watchdogLoaded();
  if (loaded && entryExists(scriptPath())) return {"Watchdog: running every 60 seconds"};
  if (loaded) return {"Watchdog: loaded but its script is missing (" + std::string(kFixByHand) + ")"};
  if (watchdogInstalled()) return {"Watchdog: installed but not loaded (" + std::string(kFixByHand) + ")"};
  return {"Watchdog: missing (open Vigilo to set it up)"};
}

// ------------------------------------------------------------------ host

std::string runningExecutable() { return ownExecutable().value_or(""); }

SetupContext currentSetupContext(const std::string& appFolder) {
  SetupContext c;
  c.appFolder = appFolder;
  c.executable = runningExecutable();
  c.uid = ::getuid();
  const char* home = std::getenv("HOME");
  struct passwd* pw = ::getpwuid(c.uid);
  if (pw != nullptr) c.user = pw->pw_name;
  c.home = home != nullptr && *home == '/' ? home : (pw != nullptr ? pw->pw_dir : "/");
  return c;
}


}  // namespace vigilo
