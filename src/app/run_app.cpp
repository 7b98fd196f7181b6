#include <cerrno>
#include <cstdlib>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <sys/file.h>
#include <unistd.h>

#include "agents/agent_events.h"
#include "agents/agent_work.h"
#include "app/commands.h"
#include "closedlid/closed_lid.h"
#include "savings/savings.h"
#include "commands/app_folder.h"
#include "commands/channel.h"
#include "platform/socket_listener.h"
#include "commands/command_center.h"
#include "engine/engine.h"
#include "engine/log.h"
#include "platform/leftovers.h"
#include "integrations/auto_approve.h"
#include "app/host.h"
#include "ui/hotkey.h"
#include "ui/island.h"
#include "ui/tray_model.h"
#include "panel/panel_launcher.h"
#include "savings/power_watch.h"
#include "safety/watchdog.h"
#include "remote/notifier.h"
#include "remote/remote_control.h"
#include "remote/wake.h"

namespace vigilo {
namespace {

std::string clockStamp() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[16];
  std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
  return buf;
}

void say(const std::string& line) {
  std::printf("%s  %s\n", clockStamp().c_str(), line.c_str());
  std::fflush(stdout);
}

// One app per folder: two engines on the same records would undo each
// other's changes. The lock dies with the process, so a crash never leaves
// it behind.
class FolderLock {
 public:
  explicit FolderLock(const StateFiles& files) {
    if (!files.ensureDir()) return;
    fd_ = ::open(files.path(kAppLockFile).c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    opened_ = fd_ >= 0;
    // A tool that asks whether an app runs holds a shared lock for a
    // moment: try again for a little while before calling this a second app.
    for (int attempt = 0; fd_ >= 0 && !held_ && attempt < 50; ++attempt) {
      if (::flock(fd_, LOCK_EX | LOCK_NB) == 0) {
        held_ = true;
      } else if (errno == EWOULDBLOCK) {
        ::usleep(10'000);
      } else if (errno != EINTR) {
        break;
      }
    }
    if (held_) {
      // The pid lets `vigilo rescue` stop a stuck app.
      const std::string pid = std::to_string(::getpid()) + "\n";
      if (::ftruncate(fd_, 0) != 0 || ::pwrite(fd_, pid.data(), pid.size(), 0) < 0) {
        // Only rescue reads it; the lock itself is what counts.
      }
    }
  }
  ~FolderLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;
  bool held() const { return held_; }
  // False when the folder or its lock file couldn't be made at all.
  bool opened() const { return opened_; }

 private:
  int fd_ = -1;
  bool opened_ = false;
  bool held_ = false;
};

// Records the agent alerts in the app's output; the notifications a person
// sees (system banners, phone) attach here.
class PrintedAlerts final : public AgentAlerts {
 public:
  explicit PrintedAlerts(AgentAlerts* next) : next_(next) {}
  void finished(const std::string& name, int minutes, bool processGone, const std::string& state) override {
    say("alert: " + name + " " + state + " after " + std::to_string(minutes) + " min of work" +
        (processGone ? " (its process ended)" : ""));
    if (next_) next_->finished(name, minutes, processGone, state);
  }
  void needsYou(const std::string& name) override {
    say("alert: " + name + " needs you");
    if (next_) next_->needsYou(name);
  }

 private:
  AgentAlerts* next_;
};

std::string homeFolder() {
  const char* home = std::getenv("HOME");
  return home != nullptr ? home : "/";
}

struct AppOptions {
  std::string simulate;
  bool preview = false;
};

std::optional<AppOptions> parseAppOptions(const std::vector<std::string>& args) {
  AppOptions o;
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--preview") {
      o.preview = true;
    } else if (a == "--simulate") {
      if (i + 1 >= args.size() || args[i + 1].empty()) {
        std::fprintf(stderr, "vigilo: --simulate needs the path of the simulated laptop's state file.\n");
        return std::nullopt;
      }
      o.simulate = args[++i];
    } else if (a.rfind("--simulate=", 0) == 0 && a.size() > 11) {
      o.simulate = a.substr(11);
    } else {
      std::fprintf(stderr, "vigilo: app doesn't know \"%s\". Usage: vigilo app [--simulate FILE] [--preview]\n",
                   a.c_str());
      return std::nullopt;
    }
  }
  return o;
}

}  // namespace

int runApp(const std::vector<std::string>& args) {
  auto options = parseAppOptions(args);
  if (!options) return 2;
  if (options->simulate.empty()) {
    // The tool starts the app this way for a simulated laptop.
    if (const char* env = std::getenv("VIGILO_SIMULATE"); env != nullptr && *env != '\0') options->simulate = env;
  }

  SystemClock systemClock;
  // A simulated laptop may run its clock fast, so minutes pass in seconds.
  ScaledClock clock(systemClock, host::clockSpeed(options->simulate));
  std::unique_ptr<RunLoop> loop;
  try {
    loop = makePollRunLoop(clock);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "vigilo: couldn't start the run loop: %s\n", e.what());
    return 1;
  }
  // Without --simulate, the real machine.
  std::unique_ptr<Platform> machine = host::makePlatform(clock, *loop, options->simulate, {}, say);
  Platform* platform = machine.get();
  const bool sim = !options->simulate.empty();
  const std::string folder = appFolderFor(*platform);
  StateFiles files(folder);
  std::optional<FolderLock> lock;
  if (!options->preview) {
    // Records in a folder someone else can change would let them steer what
    // this app deletes or runs.
    if (Result usable = checkAppFolder(folder); !usable) {
      std::fprintf(stderr, "vigilo: %s\n", usable.message().c_str());
      return 1;
    }
    lock.emplace(files);
    if (!lock->opened()) {
      std::fprintf(stderr, "vigilo: couldn't create the app folder %s or its lock file; check that it is yours and writable\n",
                   folder.c_str());
      return 1;
    }
    if (!lock->held()) {
      std::fprintf(stderr, "vigilo: another Vigilo app is already running for %s\n", folder.c_str());
      return 1;
    }
  }

  Engine engine(*platform, folder, EngineOptions{options->preview, false});
  if (!options->preview) {
    // The folder's records belong to one machine: putting back another
    // machine's changes here would leave them changed there for good.
    std::string simulateFile;
    if (sim) {
      std::error_code ec;
      simulateFile = std::filesystem::absolute(options->simulate, ec).lexically_normal().string();
      if (ec) simulateFile = options->simulate;
    }
    auto recorded = recordedMachine(folder);
    if (recorded && *recorded != simulateFile && !engine.outstandingChanges().empty()) {
      std::fprintf(stderr,
                   "vigilo: %s has changes on %s that aren't put back yet. Start the app there (%s) or run "
                   "\"vigilo rescue\" first.\n",
                   folder.c_str(), machineName(*recorded).c_str(),
                   recorded->empty() ? "vigilo app" : ("vigilo app --simulate " + *recorded).c_str());
      return 1;
    }
    if (!recordMachine(folder, simulateFile)) say("warning: couldn't record which machine " + folder + " belongs to");
    // Temporary files of writes a crash cut short: in the app folder and its
    // own folders, beside the agents' settings files Vigilo edits, and beside
    // the simulated laptop's file.
    const AgentPlaces places = AgentPlaces::fromEnvironment();
    int leftovers = removeLeftoverTemps(folder, 2);
    for (const std::string& edited : {places.claudeSettings(), places.codexConfig()}) {
      const std::filesystem::path p(edited);
      leftovers += removeLeftoverTemps(p.parent_path().string(), 0, p.filename().string() + ".");
    }
    if (!simulateFile.empty()) {
      const std::filesystem::path p(simulateFile);
      leftovers += removeLeftoverTemps(p.parent_path().string(), 0, p.filename().string() + ".");
    }
    if (leftovers > 0) say("Removed " + std::to_string(leftovers) + " temporary file(s) left by an earlier crash");
  }
  // The desktop's notifications and chime, also for the simulated laptop:
  // the person watching it sits at a real desktop.
  auto desktop = host::makeDesktop();
  Notifier notifier(engine, desktop->alerts(),
                    [&files] { return RemoteSettings::load(files).relay; }, nullptr);
  PrintedAlerts alerts(&notifier);
  AgentWork work(*platform, folder, homeFolder(), &alerts);
  PowerWatch power(folder, &work);
  engine.setWorkSource(&work);
  engine.setPowerMeter(&power);
  AutoApprove approve(folder, AgentPlaces::fromEnvironment(), clock);
  if (!options->preview) {
    if (auto dropped = approve.dropUnapplied()) say(*dropped);
  }
  ApproveJobs approveJobs(approve, &work, [](const std::string& line) { say(line); });
  engine.addSlowJobs(&approveJobs);
  // The safety net: the watchdog script is rewritten at launch and checked
  // every 5 minutes.
  ProcessRunner setupRunner;
  auto setup = host::makeSetup(currentSetupContext(folder), setupRunner);
  Watchdog watchdog(*setup);
  engine.addSlowJobs(&watchdog);
  // Scheduled wakes and phone check-ins, with the machine's wake alarm.
  ScheduledWakes wakes(platform->wakeAlarm(), say);
  engine.addSlowJobs(&wakes);
  // What the agents use is never slowed or paused while the lid is shut.
  ClosedLid closedLid(engine, [&work, &engine] {
    AgentProtection p;
    p.pids = work.watcher().protectedPids();
    p.bundles = work.watcher().protectedBundles();
    const Time now = engine.now();
    for (const AgentSession& s : work.sessions()) {
      if (WorkDetection::busy(s, now)) {
        p.activeAgent = s.kind.name;
        break;
      }
    }
    return p;
  });
  // The energy rows and the lid-closed estimate follow what the session does.
  power.setPlan([&closedLid] { return closedLid.plan(); });
  // What the savings are worth: counted per session into "stats.json", and
  // measured by the power test and the quick estimate.
  Savings savings(engine, closedLid, &power);
  engine.setClosedLidSavings(&savings);
  engine.setSleepHandler([&savings, &engine] { savings.willSleep(engine.lastEndReason()); });
  std::string lastStatus, lastWarning, lastSetupError, lastSimProblem, lastWatchdogWarning;
  auto report = [&] {
    std::string status = engine.statusLine();
    if (status != lastStatus) say(status);
    lastStatus = status;
    std::string warning = engine.warning().value_or(closedLid.warning().value_or(""));
    if (warning != lastWarning && !warning.empty()) say("warning: " + warning);
    lastWarning = warning;
    std::string setupError = engine.setupError().value_or("");
    if (setupError != lastSetupError && !setupError.empty()) say("warning: " + setupError);
    lastSetupError = setupError;
    std::string watchdogWarning = watchdog.warning().value_or("");
    if (watchdogWarning != lastWatchdogWarning && !watchdogWarning.empty()) say("warning: " + watchdogWarning);
    lastWatchdogWarning = watchdogWarning;
    std::string simProblem = platform->problem();
    if (simProblem != lastSimProblem && !simProblem.empty()) say("warning: " + simProblem);
    lastSimProblem = simProblem;
  };
  // Alerts always reach the desktop; the short announcements only when the
  // person asked for them (`notch_island`).
  engine.setNoticeHandler([&engine, &notifier](const Notice& n) {
    if (n.kind == Notice::Kind::Alert) {
      say(n.title + ": " + n.text);
      notifier.note(n.title, n.text);
    } else {
      say("» " + n.text);
      if (engine.config().notchIsland) notifier.note(kIslandTitle, n.text);
    }
  });
  closedLid.setNoticeHandler([&notifier](const Notice& n) {
    say(n.title + ": " + n.text);
    notifier.note(n.title, n.text);
  });
  // The tray item, when a desktop session bus is there to show it.
  std::unique_ptr<Tray> tray;
  std::string lastTrayProblem;
  auto redraw = [&] {
    report();
    if (!tray) return;
    tray->refresh();
    std::string problem = tray->problem();
    if (problem != lastTrayProblem) say(problem.empty() ? std::string("The tray icon is shown") : "warning: " + problem);
    lastTrayProblem = problem;
  };
  engine.setChangeHandler(redraw);

  bool quitting = false;
  auto quit = [&] {
    if (quitting) return;
    quitting = true;
    say("Quitting: putting everything back");
    engine.shutdown();
    // "Approve everything" still on with nobody left to end it: the heartbeat
    // stays and goes stale, and the watchdog puts the agents' files back.
    if (!options->preview && !Watchdog::systemChanges(engine).empty()) files.touch(kAliveFile);
    loop->stop();
  };
  loop->onSignal(SIGINT, quit);
  loop->onSignal(SIGTERM, quit);
  // A closed terminal must not kill the app before it puts things back.
  loop->onSignal(SIGHUP, quit);

  say(std::string("Vigilo ") + (options->preview ? "(preview only: nothing is switched) " : "") +
      (sim ? "on the simulated laptop " + options->simulate : "on this " + platform->words().machine) + ", app folder " +
      folder);
  engine.launch();
  // What this machine lacks, once.
  for (const Capability& c : engine.capabilities()) {
    if (!c.available) say("warning: " + c.detail);
  }
  for (const std::string& m : notifier.missing()) say("warning: " + m);
  report();

  // Requests from the command-line tool, the MCP server and hooks.
  CommandCenter center(engine, [&] { loop->post(quit); });
  center.setAgents(&work, &power);
  center.setApprove(&approve);
  center.addHandler("wake", [&](const nlohmann::json& args) { return wakes.wake(engine, args); });
  center.addHandler("wake_at", [&](const nlohmann::json& args) { return wakes.wakeAt(engine, args); });
  center.setClosedLid(&closedLid);
  center.setSavings(&savings);
  // The panel window runs in a process of its own; the loop never waits on it.
  PanelLauncher panel(*loop, folder, [&engine] { return engine.statusLine(); }, say, sim);
  center.addHandler("open", [&](const nlohmann::json& args) { return panel.open(args); });
  center.addDeferredHandler("snapshot", [&](const nlohmann::json& args,
                                            std::function<void(const nlohmann::json&)> reply) {
    panel.snapshot(args, std::move(reply));
  });
  center.setInAppCheck([&panel](const nlohmann::json& args) { return panel.fromPanel(args); });
  center.addHandler("island", [&](const nlohmann::json& args) { return islandRequest(engine, notifier, args); });
  std::unique_ptr<Notifications> notifications;
  if (!options->preview) {
    notifications = makeSocketNotifications(folder, loop.get(), [](const std::string& problem) {
      say(problem.empty() ? std::string("Listening for requests") : "warning: commands can't reach this app: " + problem);
    });
    Result listening = notifications->observe(kRequestNotification,
                                              [&center](std::string payload) { center.receive(payload); });
    if (!listening) say("warning: commands can't reach this app: " + listening.message());
    // A hook wrote an event: fold it in and decide at once.
    Result events = notifications->observe(kAgentEventNotification, [&](std::string) {
      work.eventsChanged();
      work.sample(engine);
      engine.evaluate();
    });
    if (!events) say("warning: agent hooks can't reach this app: " + events.message());
    // The tray's clicks go through the command center like any request.
    tray = desktop->tray(
        *loop, [&engine] { return trayView(engine); },
        [&](const TrayAction& action) {
          if (action.cmd == "quit") {
            quit();
            return;
          }
          nlohmann::json reply = center.handle(action.cmd, action.args);
          if (!reply.value("ok", false)) say("warning: " + reply.value("error", std::string("the menu's request failed")));
        });
    redraw();
  }
  // The hotkey, while the setting asks for it; a change of the setting
  // binds or drops it at the next redraw.
  std::unique_ptr<Hotkey> hotkey;
  std::string lastHotkeyProblem;
  auto followHotkey = [&] {
    if (options->preview) return;
    if (engine.config().hotkey != static_cast<bool>(hotkey)) {
      hotkey = engine.config().hotkey ? desktop->hotkey(*loop, [&] {
        const char* next = modeRequestText(nextMode(engine.config().mode));
        nlohmann::json reply = center.handle("mode", {{"mode", next}});
        say(std::string("hotkey: mode ") + next);
        if (!reply.value("ok", false)) say("warning: " + reply.value("error", std::string("the hotkey's mode change failed")));
      })
                                      : nullptr;
    }
    std::string problem = hotkey ? hotkey->problem().value_or("") : "";
    if (problem != lastHotkeyProblem && !problem.empty()) say("warning: " + problem);
    lastHotkeyProblem = problem;
  };
  center.addUnavailable("hotkey", [&]() -> std::optional<std::string> {
    if (!hotkey) return std::nullopt;
    return hotkey->problem();
  });
  followHotkey();
  engine.setChangeHandler([&] {
    redraw();
    followHotkey();
  });
  // Paired phones, through the relay.
  std::unique_ptr<RemoteControl> remote;
  if (!options->preview) {
    remote = std::make_unique<RemoteControl>(
        *loop, clock, files, [&center](const std::string& cmd, const nlohmann::json& args) {
          return runPhoneRequest(center, cmd, args);
        }, say);
    remote->start();
  }
  loop->run();
  // Both call into the command center, which goes before them.
  remote.reset();
  hotkey.reset();
  tray.reset();
  if (notifications) notifications->stopObserving();
  return 0;
}

}  // namespace vigilo
