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
#include <sys/stat.h>
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
#include "commands/reply_values.h"
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

// Under systemd the app's output goes to the journal, which stamps each
// line itself and reads a "<N>" priority in front of it (sd-daemon.h):
// systemd names the stream in JOURNAL_STREAM as "<device>:<inode>", which
// a descriptor handed on to a terminal or a file no longer matches.
bool toJournal(int fd) {
  const char* stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0, inode = 0;
  if (stream == nullptr || std::sscanf(stream, "%llu:%llu", &device, &inode) != 2) return false;
  struct stat st {};
  return ::fstat(fd, &st) == 0 && st.st_dev == device && st.st_ino == inode;
}

std::string clockStamp() {
  std::time_t t = std::time(nullptr);
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[16];
  std::strftime(buf, sizeof buf, "%H:%M:%S", &tm);
  return buf;
}

void say(const std::string& line) {
  static const bool journal = toJournal(STDOUT_FILENO);
  if (journal) {
    std::printf("%s%s\n", line.rfind("warning: ", 0) == 0 ? "<4>" : "<6>", line.c_str());
  } else {
    std::printf("%s  %s\n", clockStamp().c_str(), line.c_str());
  }
  std::fflush(stdout);
}

// Failures the app can't go on from, and the log's: errors to the journal.
void complain(const std::string& line) {
  static const bool journal = toJournal(STDERR_FILENO);
  std::fprintf(stderr, "%s%s\n", journal ? "<3>" : "", line.c_str());
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
        complain("vigilo: --simulate needs the path of the simulated laptop's state file.");
        return std::nullopt;
      }
      o.simulate = args[++i];
    } else if (a.rfind("--simulate=", 0) == 0 && a.size() > 11) {
      o.simulate = a.substr(11);
    } else {
      complain("vigilo: app doesn't know \"" + a + "\". Usage: vigilo app [--simulate FILE] [--preview]");
      return std::nullopt;
    }
  }
  return o;
}

// Refuses an app folder that someone else could change (their records would
// steer what this app deletes or runs) and a second app on the same folder.
// The exit status when the app can't start here.
// The exit status of an app that found another one running on its folder:
// the user service's unit doesn't restart on it.
constexpr int kAnotherAppStatus = 3;

// Launched again (from the desktop's app menu, or a terminal) while an app
// runs: the person wants to see Vigilo, so the running app opens its panel.
// systemd starting its unit beside an app run by hand shows nothing.
void showRunningApp(const std::string& folder) {
  if (const char* unit = std::getenv("INVOCATION_ID"); unit != nullptr && *unit != '\0') return;
  if (::setenv(kNoAutostartVariable, "1", 1) != 0) return;
  const nlohmann::json reply = RequestClient(folder).send("open", nlohmann::json::object(), 5);
  if (reply.value("ok", false)) {
    std::printf("vigilo: opened the running app's panel\n");
  } else {
    complain("vigilo: couldn't open the running app's panel: " + reply.value("error", std::string("no answer")));
  }
}

std::optional<int> takeFolder(const std::string& folder, const StateFiles& files, std::optional<FolderLock>& lock) {
  if (Result usable = checkAppFolder(folder); !usable) {
    complain("vigilo: " + usable.message());
    return 1;
  }
  lock.emplace(files);
  if (!lock->opened()) {
    complain("vigilo: couldn't create the app folder " + folder +
             " or its lock file; check that it is yours and writable");
    return 1;
  }
  if (!lock->held()) {
    complain("vigilo: another Vigilo app is already running for " + folder);
    return kAnotherAppStatus;
  }
  return std::nullopt;
}

// The folder's records belong to one machine: putting back another
// machine's changes here would leave them changed there for good. Then the
// temporary files of writes a crash cut short go: in the app folder and its
// own folders, beside the agents' settings files Vigilo edits, and beside
// the simulated laptop's file.
std::optional<int> claimMachine(const std::string& folder, const std::string& simulate, const Engine& engine) {
  std::string simulateFile;
  if (!simulate.empty()) {
    std::error_code ec;
    simulateFile = std::filesystem::absolute(simulate, ec).lexically_normal().string();
    if (ec) simulateFile = simulate;
  }
  auto recorded = recordedMachine(folder);
  if (recorded && *recorded != simulateFile && !engine.outstandingChanges().empty()) {
    complain("vigilo: " + folder + " has changes on " + machineName(*recorded) +
             " that aren't put back yet. Start the app there (" +
             (recorded->empty() ? std::string("vigilo app") : "vigilo app --simulate " + *recorded) +
             ") or run \"vigilo rescue\" first.");
    return 1;
  }
  if (!recordMachine(folder, simulateFile)) say("warning: couldn't record which machine " + folder + " belongs to");
  const AgentPlaces places = AgentPlaces::fromEnvironment();
  int leftovers = removeLeftoverTemps(folder, 2);
  std::vector<std::string> beside = {places.claudeSettings(), places.codexConfig()};
  if (!simulateFile.empty()) beside.push_back(simulateFile);
  for (const std::string& edited : beside) {
    const std::filesystem::path p(edited);
    leftovers += removeLeftoverTemps(p.parent_path().string(), 0, p.filename().string() + ".");
  }
  if (leftovers > 0) say("Removed " + std::to_string(leftovers) + " temporary file(s) left by an earlier crash");
  return std::nullopt;
}

// Says a line once each time it changes to something not empty.
class ChangeReporter {
 public:
  void operator()(const std::string& line, const std::string& prefix = "warning: ") {
    if (line != last_ && !line.empty()) say(prefix + line);
    last_ = line;
  }

 private:
  std::string last_;
};

// The running app: the engine and everything composed around it, in the
// order they depend on each other. Lives on the main thread's loop.
class App {
 public:
  App(const AppOptions& options, Clock& clock, RunLoop& loop, Platform& platform, Engine& engine)
      : options_(options),
        clock_(clock),
        loop_(loop),
        platform_(platform),
        engine_(engine),
        folder_(engine.files().dir()),
        files_(folder_),
        desktop_(host::makeDesktop()),
        // The desktop's notifications and chime, also for the simulated
        // laptop: the person watching it sits at a real desktop.
        notifier_(engine, desktop_->alerts(), [this] { return RemoteSettings::load(files_).relay; }, nullptr),
        alerts_(&notifier_),
        work_(platform, folder_, homeFolder(), &alerts_),
        power_(folder_, &work_),
        approve_(folder_, AgentPlaces::fromEnvironment(), clock),
        approveJobs_(approve_, &work_, [](const std::string& line) { say(line); }),
        setup_(host::makeSetup(currentSetupContext(folder_), setupRunner_)),
        watchdog_(*setup_),
        wakes_(platform.wakeAlarm(), say),
        closedLid_(engine, [this] { return protection(); }),
        savings_(engine, closedLid_, &power_),
        center_(engine, [this] { loop_.post([this] { quit(); }); }),
        panel_(loop, folder_, [this] { return engine_.statusLine(); }, say, !options.simulate.empty()) {}

  int run() {
    wireEngine();
    loop_.onSignal(SIGINT, [this] { quit(); });
    loop_.onSignal(SIGTERM, [this] { quit(); });
    // A closed terminal must not kill the app before it puts things back.
    loop_.onSignal(SIGHUP, [this] { quit(); });
    say(std::string("Vigilo ") + (options_.preview ? "(preview only: nothing is switched) " : "") +
        (options_.simulate.empty() ? "on this " + platform_.words().machine
                                   : "on the simulated laptop " + options_.simulate) +
        ", app folder " + folder_);
    engine_.launch();
    // What this machine lacks, once.
    for (const Capability& c : engine_.capabilities()) {
      if (!c.available) say("warning: " + c.detail);
    }
    for (const std::string& m : notifier_.missing()) say("warning: " + m);
    report();
    wireRequests();
    if (!options_.preview) listen();
    followHotkey();
    engine_.setChangeHandler([this] {
      redraw();
      followHotkey();
    });
    // Paired phones, through the relay.
    if (!options_.preview) {
      remote_ = std::make_unique<RemoteControl>(
          loop_, clock_, files_,
          [this](const std::string& cmd, const nlohmann::json& args) { return runPhoneRequest(center_, cmd, args); },
          say);
      remote_->start();
    }
    loop_.run();
    // Each calls into the command center, which goes before them.
    remote_.reset();
    hotkey_.reset();
    tray_.reset();
    if (notifications_) notifications_->stopObserving();
    return 0;
  }

 private:
  // What the agents use is never slowed or paused while the lid is shut.
  AgentProtection protection() {
    AgentProtection p;
    p.pids = work_.watcher().protectedPids();
    p.bundles = work_.watcher().protectedBundles();
    const Time now = engine_.now();
    for (const AgentSession& s : work_.sessions()) {
      if (WorkDetection::busy(s, now)) {
        p.activeAgent = s.kind.name;
        break;
      }
    }
    return p;
  }

  void wireEngine() {
    engine_.setWorkSource(&work_);
    engine_.setPowerMeter(&power_);
    if (!options_.preview) {
      if (auto dropped = approve_.dropUnapplied()) say(*dropped);
    }
    engine_.addSlowJobs(&approveJobs_);
    // The safety net: the watchdog script is rewritten at launch and checked
    // every 5 minutes.
    engine_.addSlowJobs(&watchdog_);
    // Scheduled wakes and phone check-ins, with the machine's wake alarm.
    engine_.addSlowJobs(&wakes_);
    // The energy rows and the lid-closed estimate follow what the session does.
    power_.setPlan([this] { return closedLid_.plan(); });
    // What the savings are worth: counted per session into "stats.json", and
    // measured by the power test and the quick estimate.
    engine_.setClosedLidSavings(&savings_);
    engine_.setSleepHandler([this] { savings_.willSleep(engine_.lastEndReason()); });
    engine_.setChangeHandler([this] { redraw(); });
    // Alerts always reach the desktop; the short announcements only when the
    // person asked for them (`notch_island`).
    engine_.setNoticeHandler([this](const Notice& n) {
      if (n.kind == Notice::Kind::Alert) {
        say(n.title + ": " + n.text);
        notifier_.note(n.title, n.text);
      } else {
        say("» " + n.text);
        if (engine_.config().notchIsland) notifier_.note(kIslandTitle, n.text);
      }
    });
    closedLid_.setNoticeHandler([this](const Notice& n) {
      say(n.title + ": " + n.text);
      notifier_.note(n.title, n.text);
    });
  }

  void report() {
    const std::string status = engine_.statusLine();
    if (status != lastStatus_) say(status);
    lastStatus_ = status;
    warning_(engine_.warning().value_or(closedLid_.warning().value_or("")));
    setupError_(engine_.setupError().value_or(""));
    watchdogWarning_(watchdog_.warning().value_or(""));
    machineProblem_(platform_.problem());
  }

  // The tray item, when a desktop session bus is there to show it.
  void redraw() {
    report();
    if (!tray_) return;
    tray_->refresh();
    const std::string problem = tray_->problem();
    if (problem != lastTrayProblem_) say(problem.empty() ? std::string("The tray icon is shown") : "warning: " + problem);
    lastTrayProblem_ = problem;
  }

  void quit() {
    if (quitting_) return;
    quitting_ = true;
    say("Quitting: putting everything back");
    engine_.shutdown();
    // "Approve everything" still on with nobody left to end it: the heartbeat
    // stays and goes stale, and the watchdog puts the agents' files back.
    if (!options_.preview && !Watchdog::systemChanges(engine_).empty()) files_.touch(kAliveFile);
    loop_.stop();
  }

  // Requests from the command-line tool, the MCP server and hooks.
  void wireRequests() {
    center_.setAgents(&work_, &power_);
    center_.setApprove(&approve_);
    center_.addHandler("wake", [this](const nlohmann::json& args) { return wakes_.wake(engine_, args); });
    center_.addHandler("wake_at", [this](const nlohmann::json& args) { return wakes_.wakeAt(engine_, args); });
    center_.setClosedLid(&closedLid_);
    center_.setSavings(&savings_);
    // The panel window runs in a process of its own; the loop never waits on it.
    center_.addHandler("open", [this](const nlohmann::json& args) {
      nlohmann::json reply = panel_.open(args);
      // Asked from the tray or the app menu, the person is looking at the
      // screen, not at a terminal: the reason goes where they look.
      const std::string error = reply.value("error", std::string());
      if (!reply.value("ok", false) && error.rfind("There is no panel page", 0) != 0) {
        notifier_.note("Vigilo can't open its panel", error);
      }
      return reply;
    });
    center_.addDeferredHandler("snapshot", [this](const nlohmann::json& args,
                                                  std::function<void(const nlohmann::json&)> reply) {
      panel_.snapshot(args, std::move(reply));
    });
    center_.setInAppCheck([this](const nlohmann::json& args) { return panel_.fromPanel(args); });
    center_.addHandler("island", [this](const nlohmann::json& args) { return islandRequest(engine_, notifier_, args); });
    center_.addUnavailable("hotkey", [this]() -> std::optional<std::string> {
      if (!hotkey_) return std::nullopt;
      return hotkey_->problem();
    });
  }

  // The request address, the hooks' events and the tray.
  void listen() {
    notifications_ = makeSocketNotifications(folder_, &loop_, [](const std::string& problem) {
      say(problem.empty() ? std::string("Listening for requests") : "warning: commands can't reach this app: " + problem);
    });
    Result listening = notifications_->observe(kRequestNotification,
                                               [this](std::string payload) { center_.receive(payload); });
    if (!listening) say("warning: commands can't reach this app: " + listening.message());
    // A hook wrote an event: fold it in and decide at once.
    Result events = notifications_->observe(kAgentEventNotification, [this](std::string) {
      work_.eventsChanged();
      work_.sample(engine_);
      engine_.evaluate();
    });
    if (!events) say("warning: agent hooks can't reach this app: " + events.message());
    // The tray's clicks go through the command center like any request.
    tray_ = desktop_->tray(
        loop_, [this] { return trayView(engine_); },
        [this](const TrayAction& action) {
          if (action.cmd == "quit") {
            quit();
            return;
          }
          nlohmann::json reply = center_.handle(action.cmd, action.args);
          if (!reply.value("ok", false)) say("warning: " + reply.value("error", std::string("the menu's request failed")));
        });
    redraw();
  }

  // The hotkey, while the setting asks for it; a change of the setting
  // binds or drops it at the next redraw.
  void followHotkey() {
    if (options_.preview) return;
    if (engine_.config().hotkey != static_cast<bool>(hotkey_)) {
      hotkey_ = engine_.config().hotkey ? desktop_->hotkey(loop_, [this] { hotkeyPressed(); }) : nullptr;
    }
    const std::string problem = hotkey_ ? hotkey_->problem().value_or("") : "";
    if (problem != lastHotkeyProblem_ && !problem.empty()) say("warning: " + problem);
    lastHotkeyProblem_ = problem;
  }

  void hotkeyPressed() {
    const std::string next = modeText(nextMode(engine_.config().mode));
    nlohmann::json reply = center_.handle("mode", {{"mode", next}});
    say(std::string("hotkey: mode ") + next);
    if (!reply.value("ok", false)) say("warning: " + reply.value("error", std::string("the hotkey's mode change failed")));
  }

  const AppOptions& options_;
  Clock& clock_;
  RunLoop& loop_;
  Platform& platform_;
  Engine& engine_;
  const std::string folder_;
  StateFiles files_;
  std::unique_ptr<Desktop> desktop_;
  Notifier notifier_;
  PrintedAlerts alerts_;
  AgentWork work_;
  PowerWatch power_;
  AutoApprove approve_;
  ApproveJobs approveJobs_;
  ProcessRunner setupRunner_;
  std::unique_ptr<Setup> setup_;
  Watchdog watchdog_;
  ScheduledWakes wakes_;
  ClosedLid closedLid_;
  Savings savings_;
  CommandCenter center_;
  PanelLauncher panel_;
  std::unique_ptr<Notifications> notifications_;
  std::unique_ptr<Tray> tray_;
  std::unique_ptr<Hotkey> hotkey_;
  std::unique_ptr<RemoteControl> remote_;
  std::string lastStatus_, lastTrayProblem_, lastHotkeyProblem_;
  ChangeReporter warning_, setupError_, watchdogWarning_, machineProblem_;
  bool quitting_ = false;
};

}  // namespace

int runApp(const std::vector<std::string>& args) {
  auto options = parseAppOptions(args);
  if (!options) return 2;
  if (options->simulate.empty()) {
    // The tool starts the app this way for a simulated laptop.
    if (const char* env = std::getenv("VIGILO_SIMULATE"); env != nullptr && *env != '\0') options->simulate = env;
  }
  // Before any thread starts: setenv isn't safe beside threads that read
  // the environment.
  const std::vector<std::string> joined = host::joinDesktopSession();
  setLogSink(complain);
  SystemClock systemClock;
  // A simulated laptop may run its clock fast, so minutes pass in seconds.
  ScaledClock clock(systemClock, host::clockSpeed(options->simulate));
  std::unique_ptr<RunLoop> loop;
  try {
    loop = makePollRunLoop(clock);
  } catch (const std::exception& e) {
    complain(std::string("vigilo: couldn't start the run loop: ") + e.what());
    return 1;
  }
  // Without --simulate, the real machine.
  std::unique_ptr<Platform> platform = host::makePlatform(clock, *loop, options->simulate, {}, say);
  const std::string folder = appFolderFor(*platform);
  StateFiles files(folder);
  std::optional<FolderLock> lock;
  if (!options->preview) {
    if (auto refused = takeFolder(folder, files, lock)) {
      if (*refused == kAnotherAppStatus) showRunningApp(folder);
      return *refused;
    }
  }
  Engine engine(*platform, folder, EngineOptions{options->preview, false});
  if (!options->preview) {
    if (auto refused = claimMachine(folder, options->simulate, engine)) return *refused;
  }
  if (!joined.empty()) {
    std::string names;
    for (const std::string& entry : joined) names += (names.empty() ? "" : ", ") + entry;
    say("Joined the desktop session: " + names);
  }
  App app(*options, clock, *loop, *platform, engine);
  return app.run();
}

}  // namespace vigilo
