#include "app/tools.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <unistd.h>

#include "app/host.h"
#include "commands/app_folder.h"
#include "commands/channel.h"
#include "commands/setup_prompt.h"
#include "engine/engine.h"
#include "engine/log.h"
#include "integrations/auto_approve.h"
#include "panel/panel_command.h"
#include "platform/socket_listener.h"
#include "remote/doctor_lines.h"
#include "safety/setup_command.h"
#include "safety/watchdog.h"

namespace vigilo {
namespace {

// Where `doctor --json` collects the lines it would print.
std::vector<std::string>* collected = nullptr;

void out(const std::string& line) {
  if (collected != nullptr) {
    collected->push_back(line);
  } else {
    std::printf("%s\n", line.c_str());
  }
}
void err(const std::string& message) { std::fprintf(stderr, "vigilo: %s\n", message.c_str()); }

// The machine, read directly: the one the app folder records, since its
// records describe changes made there; else the simulated laptop named by
// VIGILO_SIMULATE; else this machine's own backend.
struct Machine {
  SystemClock clock;
  std::unique_ptr<RunLoop> loop;
  std::unique_ptr<Platform> platform;
};

std::unique_ptr<Machine> machine(const std::string& folder) {
  auto m = std::make_unique<Machine>();
  try {
    m->loop = makePollRunLoop(m->clock);
  } catch (const std::exception&) {
    return nullptr;
  }
  std::string simulate;
  if (auto recorded = recordedMachine(folder)) {
    simulate = *recorded;
  } else if (const char* env = std::getenv("VIGILO_SIMULATE"); env != nullptr && *env != '\0') {
    simulate = env;
  }
  m->platform = host::makePlatform(m->clock, *m->loop, simulate, folder);
  if (!m->platform) return nullptr;
  return m;
}

std::string describeChange(const std::string& file) {
  if (file == kHoldMarker) return "sleep is switched off (record: hold)";
  if (file == kTouchedFile) return "apps paused or slowed (record: touched.json)";
  if (file == kResumePidsFile) return "paused apps for the watchdog to continue (record: resume-pids)";
  if (file == kPowerModeRestoreFile) return "the battery power mode (record: powermode-restore)";
  if (file == kTimeMachineRestoreFile) return "automatic backups switched off (record: timemachine-restore)";
  if (file == kBrightnessRestoreFile) return "the screen brightness (record: brightness-restore)";
  if (file == kDisplayOffFile) return "the built-in screen switched off (record: display-off)";
  return file;
}

// Whether the hotkey can work here, as the settings file and the desktop say.
std::string hotkeyLine(const std::string& folder, Desktop& desktop, const MachineWords& words) {
  auto bytes = StateFiles(folder).read(kConfigFile);
  const auto config = bytes ? Config::decode(*bytes) : std::nullopt;
  if (config && !config->hotkey) return "Hotkey: off (vigilo set hotkey true turns it on)";
  if (auto why = desktop.hotkeyUnavailable()) return "Not available: hotkey: " + *why;
  return "Hotkey: " + words.hotkeyKeys + " cycles the mode (through the desktop's global shortcuts)";
}

// "App: running …", with what stands between it and its requests.
std::string appLine(const std::string& folder) {
  auto pid = runningApp(folder);
  std::string app = pid ? "App: running (process " + std::to_string(*pid) + ")" : std::string("App: not running");
  // Running is not reachable: someone else may hold the request address.
  if (pid && *pid > 0) {
    const auto listener = listenerOf(folder, kRequestNotification);
    if (!listener) {
      app += ", but not listening for requests yet; it keeps trying to take its address";
    } else if (listener->pid != *pid) {
      app += ", but another program (process " + std::to_string(listener->pid) +
             ") holds its request address, so requests can't reach it; the app keeps trying to take it "
             "(stop that program: kill " + std::to_string(listener->pid) + ")";
    }
  }
  return app;
}

// What the machine lets Vigilo do and what it has changed right now.
void machineLines(const std::string& folder, Machine& m) {
  SetupStatus setup = m.platform->power().setupStatus();
  out("Sleep permission: " + (setup.ready ? std::string("in place") : "missing (" + setup.reason + ")"));
  ProcessRunner runner;
  for (const auto& line : host::makeSetup(currentSetupContext(folder), runner)->doctorLines()) out(line);
  auto disabled = m.platform->registry().sleepDisabled();
  out(std::string("Sleep switched off right now: ") + (!disabled ? "unknown" : *disabled ? "yes" : "no"));
  Engine engine(*m.platform, folder, EngineOptions{false, true});
  auto changes = engine.outstandingChanges();
  if (changes.empty()) {
    out("Changes Vigilo has made right now: none");
  } else {
    out("Changes Vigilo has made right now:");
    for (const auto& c : changes) out("  " + describeChange(c));
  }
  AutoApprove approve(folder, AgentPlaces::fromEnvironment(), m.clock);
  if (approve.isOn()) {
    out("Approve everything is on: Claude Code and Codex run without asking (turn off in Settings › Agents)");
    if (auto problem = approve.status().problem; !problem.empty()) out("  " + problem);
  }
  for (const Capability& c : m.platform->capabilities()) {
    if (!c.available) out("Not available: " + c.detail);
  }
}

// Turns Approve everything off for `rescue`: the line to print (none when
// it was off), and whether it is off now.
std::pair<std::optional<std::string>, bool> rescueApprove(const std::string& folder, const Engine& engine,
                                                          const Clock& clock) {
  AutoApprove approve(folder, AgentPlaces::fromEnvironment(), clock);
  if (!approve.isOn()) return {std::nullopt, true};
  bool ok = false;
  std::string message = approve.turnOff(&ok);
  if (!ok && engine.files().exists(kApproveShellFolder)) {
    // The record may be unreadable while the restore folder left for the
    // watchdog is whole: its checksums still tell which files are safe to
    // put back.
    const auto left = restoreApproveFiles(engine.files());
    ok = left.empty();
    if (!ok) {
      message.clear();
      for (const auto& l : left) message += (message.empty() ? "" : "; ") + l;
    }
  }
  return {ok ? std::string("Approve everything is off: Claude Code and Codex ask before acting again.")
             : "Couldn't turn Approve everything off: " + message,
          ok};
}

// Asks the app to quit (it puts things back itself) and kills it when it
// is stuck.
void stopApp(const std::string& folder, pid_t pid) {
  ::kill(pid, SIGTERM);
  auto stopped = [&] { return !runningApp(folder); };
  for (int i = 0; i < 250 && !stopped(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  if (!stopped()) {
    ::kill(pid, SIGKILL);
    for (int i = 0; i < 100 && !stopped(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

}  // namespace

static int doctorReport(const std::string& folder);

int runDoctor(const std::string& folder, bool json) {
  if (!json) return doctorReport(folder);
  std::vector<std::string> lines;
  collected = &lines;
  const int status = doctorReport(folder);
  collected = nullptr;
  nlohmann::json checks = nlohmann::json::array();
  for (const std::string& line : lines) {
    if (line.rfind("  ", 0) == 0 && !checks.empty()) {
      checks.back()["details"].push_back(line.substr(line.find_first_not_of(' ')));
      continue;
    }
    const std::size_t colon = line.find(": ");
    const bool named = colon != std::string::npos;
    std::string value = named ? line.substr(colon + 2) : "";
    std::string name = named ? line.substr(0, colon) : line;
    // "Changes Vigilo has made right now:" heads the lines under it.
    if (!named && !name.empty() && name.back() == ':') name.pop_back();
    checks.push_back({{"name", name}, {"value", value}, {"details", nlohmann::json::array()}});
  }
  std::printf("%s\n", nlohmann::json{{"ok", status == 0}, {"checks", checks}}.dump(2).c_str());
  return status;
}

static int doctorReport(const std::string& folder) {
  out("Vigilo folder: " + folder);
  if (Result usable = checkAppFolder(folder, false); !usable) out("Folder problem: " + usable.message());
  if (auto recorded = recordedMachine(folder)) out("Machine: " + machineName(*recorded));
  out(appLine(folder));
  auto m = machine(folder);
  if (!m) {
    out("Sleep permission: unknown (this machine's backend couldn't be started)");
    return 1;
  }
  machineLines(folder, *m);
  auto desktop = host::makeDesktop();
  if (auto tray = desktop->trayUnavailable()) out("Not available: " + *tray);
  if (auto panel = panelUnavailable()) {
    out("Not available: " + *panel);
  } else {
    out("Panel: available (" + panelModulePath() + ")");
  }
  out(hotkeyLine(folder, *desktop, m->platform->words()));
  auto alerts = desktop->alerts();
  for (const std::string& line : phoneDoctorLines(folder, *alerts, m->platform->wakeAlarm())) out(line);
  return 0;
}

int runSetup(const std::string& folder, const SwitchTest& has) {
  ProcessRunner runner;
  auto s = host::makeSetup(currentSetupContext(folder), runner);
  return runSetupCommand(*s, has("--remove"), has("--yes"), askOnTerminal);
}

// A laptop that just woke shows a stale heartbeat for the moment before the
// app's next tick, so a running app gets a few seconds to beat again before
// it counts as hung.
int runWatchdog(const std::string& folder) {
  if (auto pid = runningApp(folder); pid && *pid > 0) {
    StateFiles files(folder);
    auto fresh = [&] {
      auto beat = files.modified(kAliveFile);
      return beat && SystemClock().now() - *beat < 40;
    };
    for (int i = 0; i < 50 && !fresh(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    if (fresh()) return 0;
    logLine("Vigilo watchdog: the app (process " + std::to_string(*pid) + ") stopped beating; stopping it");
    stopApp(folder, *pid);
  }
  auto m = machine(folder);
  if (!m) {
    logLine("Vigilo watchdog: couldn't reach this machine's backend to put things back");
    return 1;
  }
  Engine engine(*m->platform, folder, EngineOptions{false, true});
  auto failedItems = putBackAfterCrash(engine);
  for (const auto& f : failedItems) logLine("Vigilo watchdog: couldn't undo " + f);
  return failedItems.empty() ? 0 : 1;
}

int runRescue(const std::string& folder) {
  // The app puts things back itself when it quits; one that is stuck is
  // killed, and the records below finish the job.
  if (auto pid = runningApp(folder); pid && *pid > 0) stopApp(folder, *pid);
  auto m = machine(folder);
  if (!m) {
    err("couldn't reach this machine's backend to put things back.");
    out("By hand: " + host::words().sleepByHand + "; quit and reopen any app listed above.");
    return 1;
  }
  Engine engine(*m->platform, folder, EngineOptions{false, true});
  auto failedItems = engine.rescue();
  const auto [approveLine, approveOff] = rescueApprove(folder, engine, m->clock);
  if (failedItems.empty()) {
    out("Everything Vigilo changed is back to how it was. Vigilo is stopped; open it again when you want it.");
    if (approveLine) out(*approveLine);
    return approveOff ? 0 : 1;
  }
  out("Couldn't undo:");
  for (const auto& f : failedItems) out("  " + f);
  out("By hand: " + m->platform->words().sleepByHand + "; quit and reopen any app listed above.");
  if (approveLine) out(*approveLine);
  return 1;
}

}  // namespace vigilo
