#include "platform/macos/mac_commands.h"

#include <algorithm>

namespace vigilo::mac {
namespace {

constexpr const char* kSudo = "/usr/bin/sudo";
constexpr const char* kPmset = "/usr/bin/pmset";

std::vector<std::string> asRoot(std::vector<std::string> argv) {
  argv.insert(argv.begin(), {kSudo, "-n"});
  return argv;
}

std::vector<std::string> pmsetGet(const char* what) {
  std::vector<std::string> argv{kPmset, "-g"};
  if (*what) argv.emplace_back(what);
  return argv;
}

}  // namespace

std::vector<std::string> setSleepDisabled(bool disabled) {
  return asRoot({kPmset, "-a", "disablesleep", disabled ? "1" : "0"});
}

std::vector<std::string> sleepNow() { return asRoot({kPmset, "sleepnow"}); }

const std::vector<int>& allowedWakeSteps() {
  static const std::vector<int> steps{3600, 1800, 900, 300, 60};
  return steps;
}

std::optional<std::vector<std::string>> relativeWake(int seconds) {
  const auto& steps = allowedWakeSteps();
  if (std::find(steps.begin(), steps.end(), seconds) == steps.end()) return std::nullopt;
  return asRoot({kPmset, "relative", "wake", std::to_string(seconds)});
}

std::optional<std::vector<std::string>> setBatteryPowerMode(const std::string& key, int value) {
  const int highest = key == "powermode" ? 2 : key == "lowpowermode" ? 1 : -1;
  if (value < 0 || value > highest) return std::nullopt;
  return asRoot({kPmset, "-b", key, std::to_string(value)});
}

std::vector<std::string> setAutomaticBackups(bool enabled) {
  return asRoot({"/usr/bin/tmutil", enabled ? "enable" : "disable"});
}

std::vector<std::string> displaySleepNow() { return {kPmset, "displaysleepnow"}; }

std::vector<std::string> shutDownSimulators() { return {"/usr/bin/xcrun", "simctl", "shutdown", "all"}; }

std::vector<std::string> readAutoBackup() {
  return {"/usr/bin/defaults", "read", "/Library/Preferences/com.apple.TimeMachine", "AutoBackup"};
}

std::vector<std::string> openApp() { return {"/usr/bin/open", "-b", "com.tarnwell.Vigilo"}; }

std::vector<std::string> readPowerSource() { return pmsetGet("batt"); }
std::vector<std::string> readThermal() { return pmsetGet("therm"); }
std::vector<std::string> readAssertions() { return pmsetGet("assertions"); }
std::vector<std::string> readLiveSettings() { return pmsetGet(""); }
std::vector<std::string> readCustomSettings() { return pmsetGet("custom"); }

std::vector<std::string> readSmartBattery() { return {"/usr/sbin/ioreg", "-r", "-c", "AppleSmartBattery", "-a"}; }
std::vector<std::string> readClamshell() { return {"/usr/sbin/ioreg", "-r", "-k", "AppleClamshellState", "-d", "1"}; }
std::vector<std::string> readConsoleSessions() { return {"/usr/sbin/ioreg", "-n", "Root", "-d1", "-a"}; }

namespace {
std::vector<std::string> ps(std::optional<int> pid, const char* columns) {
  std::vector<std::string> argv{"/usr/bin/env", "LC_ALL=C", "/bin/ps"};
  if (pid) {
    argv.insert(argv.end(), {"-ww", "-p", std::to_string(*pid)});
  } else {
    argv.emplace_back("-axww");
  }
  argv.insert(argv.end(), {"-o", columns});
  return argv;
}
}  // namespace

std::vector<std::string> listProcesses(std::optional<int> pid) {
  return ps(pid, "pid=,ppid=,lstart=,time=,stat=,command=");
}
std::vector<std::string> listProcessPaths(std::optional<int> pid) { return ps(pid, "pid=,comm="); }

std::vector<std::string> setBackgroundPriority(int pid, bool background) {
  return {"/usr/sbin/taskpolicy", background ? "-b" : "-B", "-p", std::to_string(pid)};
}

}  // namespace vigilo::mac
