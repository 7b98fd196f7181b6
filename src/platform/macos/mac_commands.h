#pragma once

#include <optional>
#include <string>
#include <vector>

// The exact command lines the macOS backend runs, each as the argv a
// CommandRunner takes (argv[0] a full path, no shell). Privileged ones go
// through "/usr/bin/sudo -n", which never prompts: it runs only what the
// setup's sudoers rule allows and fails at once otherwise. That rule, the
// launch agent's launchctl calls and the administrator prompt through
// osascript are built by the setup itself (MacSetup in safety/setup.h); the
// argv here must stay within the rule's list, `MacSetup::commands()`.

namespace vigilo::mac {

// ---------------------------------------------------------------- privileged

// "/usr/bin/sudo -n /usr/bin/pmset -a disablesleep 1" (or 0).
std::vector<std::string> setSleepDisabled(bool disabled);
// "/usr/bin/sudo -n /usr/bin/pmset sleepnow".
std::vector<std::string> sleepNow();
// "/usr/bin/sudo -n /usr/bin/pmset relative wake <seconds>": only for the
// steps the rule allows (3600, 1800, 900, 300, 60); nothing for any other.
std::optional<std::vector<std::string>> relativeWake(int seconds);
// "/usr/bin/sudo -n /usr/bin/pmset -b <key> <value>": only "powermode" 0-2
// and "lowpowermode" 0-1, the lines the rule allows; nothing otherwise.
std::optional<std::vector<std::string>> setBatteryPowerMode(const std::string& key, int value);
// "/usr/bin/sudo -n /usr/bin/tmutil enable" (or disable).
std::vector<std::string> setAutomaticBackups(bool enabled);

// The wake steps the rule allows, longest first.
const std::vector<int>& allowedWakeSteps();

// ---------------------------------------------------------------- as the person

// "/usr/bin/pmset displaysleepnow": the screen sleeps and macOS locks it.
std::vector<std::string> displaySleepNow();
// "/usr/bin/xcrun simctl shutdown all".
std::vector<std::string> shutDownSimulators();
// "/usr/bin/defaults read /Library/Preferences/com.apple.TimeMachine
// AutoBackup": prints 1 while automatic backups are on.
std::vector<std::string> readAutoBackup();
// "/usr/bin/open -b com.tarnwell.Vigilo": starts the app by its bundle
// identifier, wherever it is installed.
std::vector<std::string> openApp();

// ---------------------------------------------------------------- readings (pmset_text.h reads them)

std::vector<std::string> readPowerSource();   // pmset -g batt
std::vector<std::string> readThermal();       // pmset -g therm
std::vector<std::string> readAssertions();    // pmset -g assertions
std::vector<std::string> readLiveSettings();  // pmset -g
std::vector<std::string> readCustomSettings();  // pmset -g custom

// ---------------------------------------------------------------- readings (ioreg_text.h, ps_text.h read them)

// "/usr/sbin/ioreg -r -c AppleSmartBattery -a": the battery as a plist.
std::vector<std::string> readSmartBattery();
// "/usr/sbin/ioreg -r -k AppleClamshellState -d 1": the root domain's lid flag.
std::vector<std::string> readClamshell();
// "/usr/sbin/ioreg -n Root -d1 -a": the console sessions and their lock flag.
std::vector<std::string> readConsoleSessions();
// "/usr/bin/env LC_ALL=C /bin/ps -axww -o pid=,ppid=,lstart=,time=,stat=,command=":
// every process; the C locale keeps lstart in the form the reader takes. With
// a pid, only that process ("-p <pid>" in place of "-ax").
std::vector<std::string> listProcesses(std::optional<int> pid = std::nullopt);
// The same ps for "pid=,comm=": every process's executable path.
std::vector<std::string> listProcessPaths(std::optional<int> pid = std::nullopt);
// "/usr/sbin/taskpolicy -b -p <pid>": a running process into the background
// band (setpriority with PRIO_DARWIN_BG); "-B" takes it out again. No root
// is needed for the person's own processes.
std::vector<std::string> setBackgroundPriority(int pid, bool background);

}  // namespace vigilo::mac
