#include <cerrno>
#include <cstdlib>
#include <chrono>
#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <thread>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <pwd.h>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>
#include <vector>

#include "platform/text.h"
#include "platform/files.h"
#include "platform/sim/sim_laptop.h"
#include "platform/sim/sim_wake.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

// A state file is a few kilobytes; anything this big is damage, and reading
// it must not exhaust memory.
constexpr std::size_t kMaxStateFileBytes = 4 * 1024 * 1024;

std::string problemText(const std::string& path, const std::string& what) {
  return "The simulated laptop's state file " + path + " " + what + "; using the last good state.";
}

std::string dump(const json& j) {
  // Replacing bad UTF-8 keeps a process name from a test from making dump()
  // throw.
  return dumpJson(j, 2) + "\n";
}

// What identifies one version of the file without reading it. The inode
// catches save-by-rename (ours and most editors'), the times and size catch
// writes in place.
struct FileStamp {
  dev_t dev = 0;
  ino_t ino = 0;
  off_t size = 0;
  timespec mtime{};
  timespec ctime{};
  bool operator==(const FileStamp& o) const {
    return dev == o.dev && ino == o.ino && size == o.size && mtime.tv_sec == o.mtime.tv_sec &&
           mtime.tv_nsec == o.mtime.tv_nsec && ctime.tv_sec == o.ctime.tv_sec && ctime.tv_nsec == o.ctime.tv_nsec;
  }
};

FileStamp stampOf(const struct stat& st) {
  return FileStamp{st.st_dev, st.st_ino, st.st_size, st.st_mtim, st.st_ctim};
}

std::optional<FileStamp> stampOf(const std::string& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return stampOf(st);
}

// An exclusive advisory lock on "<file>.lock", held for the object's life.
// The lock file is never removed: removing it would let two writers lock two
// different files. The app never waits long for it: a script that holds it
// must not freeze the app (nor its quit), so after kPatience the lock
// counts as not taken and the caller skips or refuses its work.
class FileLock {
 public:
  static constexpr auto kPatience = std::chrono::milliseconds(200);

  explicit FileLock(const std::string& stateFile, bool wait = false) {
    fd_ = ::open((stateFile + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kPrivateFileMode);
    if (fd_ < 0) {
      held_ = true;  // an unwritable folder: the write that follows reports it
      return;
    }
    const auto giveUp = std::chrono::steady_clock::now() + kPatience;
    for (;;) {
      if (::flock(fd_, wait ? LOCK_EX : LOCK_EX | LOCK_NB) == 0) {
        held_ = true;
        return;
      }
      if (errno != EINTR && errno != EWOULDBLOCK) return;
      if (errno == EWOULDBLOCK && std::chrono::steady_clock::now() >= giveUp) return;
      if (errno == EWOULDBLOCK) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  ~FileLock() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  bool held() const { return held_; }

 private:
  int fd_ = -1;
  bool held_ = false;
};

std::string lockedText(const std::string& path) {
  return "The simulated laptop's state file " + path +
         " is locked by another program, so Vigilo left it alone this time and tries again.";
}

struct FileRead {
  enum class Kind { Missing, Damaged, Good };
  Kind kind = Kind::Missing;
  std::string problem;  // when damaged
  std::string content;
  json state;  // an object when good
  FileStamp stamp;
};

FileRead readStateFile(const std::string& path) {
  FileRead r;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
  if (fd < 0) {
    if (errno == ENOENT) return r;
    r.kind = FileRead::Kind::Damaged;
    r.problem = problemText(path, "can't be read (" + errnoMessage("open", errno) + ")");
    return r;
  }
  r.kind = FileRead::Kind::Damaged;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    r.problem = problemText(path, "isn't a regular file");
  } else if (static_cast<std::size_t>(st.st_size) > kMaxStateFileBytes) {
    r.problem = problemText(path, "is too large (over 4 MB)");
  } else {
    r.stamp = stampOf(st);
    char buf[65536];
    for (;;) {
      ssize_t n = ::read(fd, buf, sizeof buf);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) {
        r.problem = problemText(path, "can't be read (" + errnoMessage("read", errno) + ")");
        break;
      }
      if (n == 0) break;
      r.content.append(buf, static_cast<std::size_t>(n));
      if (r.content.size() > kMaxStateFileBytes) {
        r.problem = problemText(path, "is too large (over 4 MB)");
        break;
      }
    }
  }
  ::close(fd);
  if (!r.problem.empty()) return r;
  if (r.content.find_first_not_of(" \t\r\n") == std::string::npos) {
    r.problem = problemText(path, "is empty");
    return r;
  }
  // The JSON library recurses when it copies or writes a value; a laptop's
  // state nests four levels.
  if (!jsonNestingWithin(r.content, 64)) {
    r.problem = problemText(path, "nests too deeply to be a laptop's state");
    return r;
  }
  json parsed = json::parse(r.content, nullptr, /*allow_exceptions=*/false);
  if (parsed.is_discarded()) {
    r.problem = problemText(path, "isn't valid JSON");
  } else if (!parsed.is_object()) {
    r.problem = problemText(path, "doesn't hold a JSON object");
  } else {
    r.kind = FileRead::Kind::Good;
    r.state = std::move(parsed);
  }
  return r;
}

// The parent folder may not exist yet for a state file named on the command
// line.
Result writeDurably(const std::string& path, const std::string& data) {
  std::error_code ec;
  const auto parent = std::filesystem::path(path).parent_path();
  if (!parent.empty()) std::filesystem::create_directories(parent, ec);
  return writeFileDurably(path, data);
}

double percentIn(const json& state) {
  auto battery = state.find("battery");
  if (battery == state.end() || !battery->is_object()) return -1.0;
  auto p = battery->find("percent");
  return p != battery->end() && p->is_number() ? p->get<double>() : -1.0;
}

std::uint64_t counterIn(const json& process, const char* key) {
  auto it = process.find(key);
  if (it == process.end()) return 0;
  if (it->is_number_unsigned()) return it->get<std::uint64_t>();
  if (it->is_number_integer()) return static_cast<std::uint64_t>(std::max<std::int64_t>(0, it->get<std::int64_t>()));
  if (it->is_number_float()) {
    double d = it->get<double>();
    return d >= 0 && d < 1.8e19 ? static_cast<std::uint64_t>(d) : 0;
  }
  return 0;
}

// Neither does the battery controller's accumulator.
void keepAccumulator(json& incoming, const json& running) {
  auto runningBattery = running.find("battery");
  if (runningBattery == running.end() || !runningBattery->is_object()) return;
  auto seconds = [](const json& b) {
    auto it = b.find("accumulatorSeconds");
    return it != b.end() && it->is_number() ? it->get<double>() : 0.0;
  };
  const auto ahead = std::pair(counterIn(*runningBattery, "systemLoadAccumulatorCount"), seconds(*runningBattery));
  if (ahead == std::pair<std::uint64_t, double>(0, 0.0)) return;
  auto battery = incoming.find("battery");
  if (battery == incoming.end() || !battery->is_object()) return;
  if (std::pair(counterIn(*battery, "systemLoadAccumulatorCount"), seconds(*battery)) >= ahead) return;
  for (const char* key : {"accumulatedSystemLoad", "systemLoadAccumulatorCount", "accumulatorSeconds"}) {
    if (auto v = runningBattery->find(key); v != runningBattery->end()) (*battery)[key] = *v;
  }
}

// A process's cpu and energy counters never go backwards: the file holds
// them as they were at its last write, the running laptop has moved on.
void keepCounters(json& incoming, const json& running) {
  keepAccumulator(incoming, running);
  auto list = incoming.find("processes");
  if (list == incoming.end() || !list->is_array()) return;
  for (auto& e : *list) {
    if (!e.is_object()) continue;
    const auto pid = e.find("pid");
    const auto start = e.find("startMicros");
    if (pid == e.end() || !pid->is_number() || start == e.end() || !start->is_number()) continue;
    auto runningList = running.find("processes");
    if (runningList == running.end() || !runningList->is_array()) return;
    for (const auto& r : *runningList) {
      if (counterIn(r, "pid") != counterIn(e, "pid") || counterIn(r, "startMicros") != counterIn(e, "startMicros"))
        continue;
      for (const char* key : {"cpuMicros", "energyNanojoules"}) {
        if (counterIn(r, key) > counterIn(e, key)) e[key] = counterIn(r, key);
      }
    }
  }
}

// Whether a hand-added process lacks its pid or start time, which the
// laptop fills in and the file must then show.
bool needsFillingIn(const json& state) {
  auto list = state.find("processes");
  if (list == state.end() || !list->is_array()) return false;
  for (const auto& e : *list) {
    if (!e.is_object()) continue;
    auto pid = e.find("pid");
    auto start = e.find("startMicros");
    if (pid == e.end() || !pid->is_number() || start == e.end() || !start->is_number()) return true;
  }
  return false;
}

class SimRegistry final : public Registry {
 public:
  explicit SimRegistry(SimLaptop& l) : laptop_(l) {}
  std::optional<BatteryProperties> battery() override { return laptop_.batteryProperties(); }
  std::optional<bool> sleepDisabled() override {
    laptop_.advanceToNow();
    return laptop_.sleepDisabled();
  }
  std::optional<bool> lidClosed() override {
    laptop_.advanceToNow();
    return laptop_.lidClosed();
  }
  int thermalState() override {
    laptop_.advanceToNow();
    return laptop_.thermalState();
  }
  std::vector<PowerAssertion> powerAssertions() override { return laptop_.powerAssertions(); }
  std::optional<bool> online() override { return laptop_.online(); }

 private:
  SimLaptop& laptop_;
};

// Every privileged call goes through `change`, which keeps the state file in
// step.
using Change = std::function<Result(SimLaptop&)>;

class SimPower final : public PowerControl {
 public:
  explicit SimPower(std::function<Result(const Change&)> change, SimLaptop& l) : change_(std::move(change)), laptop_(l) {}
  Result setSleepDisabled(bool disabled) override {
    return change_([disabled](SimLaptop& l) { return l.setSleepDisabled(disabled); });
  }
  Result sleepNow() override {
    return change_([](SimLaptop& l) { return l.sleepNow(); });
  }
  SetupStatus setupStatus() override { return laptop_.setupStatus(); }
  Result restorePowerMode(const std::string& key, int value) override {
    return change_([&key, value](SimLaptop& l) { return l.restorePowerMode(key, value); });
  }
  Result setAutomaticBackups(bool enabled) override {
    return change_([enabled](SimLaptop& l) { return l.setAutomaticBackups(enabled); });
  }
  std::optional<PowerModeSetting> batteryPowerMode() override { return laptop_.batteryPowerMode(); }
  std::optional<bool> automaticBackupsOn() override { return laptop_.automaticBackups(); }
  Result shutDownSimulators() override {
    return change_([](SimLaptop& l) { return l.shutDownSimulators(); });
  }

 private:
  std::function<Result(const Change&)> change_;
  SimLaptop& laptop_;
};

class SimDisplays final : public Displays {
 public:
  SimDisplays(std::function<Result(const Change&)> change, SimLaptop& l) : change_(std::move(change)), laptop_(l) {}
  std::optional<double> brightness() override {
    if (!laptop_.builtInPresent()) return std::nullopt;
    return laptop_.brightness();
  }
  bool hasBuiltIn() override { return laptop_.builtInPresent(); }
  bool externalConnected() override { return laptop_.externalDisplay(); }
  std::optional<bool> sessionLocked() override { return laptop_.locked(); }
  Result lockScreen() override {
    return change_([](SimLaptop& l) { return l.lockScreen(); });
  }
  Result holdDisplayAwake(bool on) override {
    return change_([on](SimLaptop& l) { return l.setDisplayAssertion(on); });
  }
  Result setBuiltInEnabled(bool enabled) override {
    return change_([enabled](SimLaptop& l) { return l.setBuiltInDisplay(enabled); });
  }
  Result setBrightness(double level) override {
    return change_([level](SimLaptop& l) { return l.setBrightness(level); });
  }

 private:
  std::function<Result(const Change&)> change_;
  SimLaptop& laptop_;
};

class SimProcesses final : public Processes {
 public:
  SimProcesses(std::function<Result(const Change&)> change, SimLaptop& l,
               std::function<std::optional<ProcessInfo>(std::int32_t)> host)
      : change_(std::move(change)), laptop_(l), host_(std::move(host)) {}

  std::optional<ProcessInfo> info(std::int32_t pid) override {
    const SimProcess* p = laptop_.process(pid);
    if (p == nullptr) return host_ ? host_(pid) : std::nullopt;
    return toInfo(*p);
  }
  std::vector<ProcessInfo> list() override {
    std::vector<ProcessInfo> out;
    for (const auto& p : laptop_.processes()) out.push_back(toInfo(p));
    return out;
  }
  // Leaves out what the detail doesn't ask for, as a real backend may, so
  // that a caller relying on it shows up in tests.
  std::vector<ProcessInfo> listing(ProcessDetail detail) override {
    std::vector<ProcessInfo> out = list();
    for (ProcessInfo& p : out) {
      if (detail == ProcessDetail::Identity) p.cpuMicros = p.energyNanojoules = 0;
      if (detail != ProcessDetail::Full) {
        p.cwd.clear();
        p.stopped = false;
      }
    }
    return out;
  }
  Result stop(std::int32_t pid) override {
    return change_([pid](SimLaptop& l) { return l.stop(pid); });
  }
  Result resume(std::int32_t pid) override {
    return change_([pid](SimLaptop& l) { return l.resume(pid); });
  }
  Result slow(std::int32_t pid) override {
    return change_([pid](SimLaptop& l) { return l.slow(pid); });
  }
  Result unslow(std::int32_t pid) override {
    return change_([pid](SimLaptop& l) { return l.unslow(pid); });
  }
  std::vector<AppBundle> installedApps() override { return laptop_.apps(); }
  std::optional<AppBundle> appBundle(const std::string& bundlePath) override {
    for (const AppBundle& a : laptop_.apps()) {
      if (a.path == bundlePath) return a;
    }
    return std::nullopt;
  }

 private:
  static ProcessInfo toInfo(const SimProcess& p) {
    ProcessInfo i;
    i.pid = p.pid;
    i.ppid = p.ppid;
    i.startMicros = p.startMicros;
    i.path = p.path;
    i.args = p.args;
    i.cwd = p.cwd;
    i.cpuMicros = p.cpuMicros;
    i.energyNanojoules = p.energyNanojoules;
    i.stopped = p.stopped;
    return i;
  }
  std::function<Result(const Change&)> change_;
  SimLaptop& laptop_;
  std::function<std::optional<ProcessInfo>(std::int32_t)> host_;
};

class SimEvents final : public SystemEvents {
 public:
  void subscribe(std::function<void(SystemEvent)> handler) override { *handler_ = std::move(handler); }
  // Delivers `e` on the loop. A platform gone by then delivers nothing.
  void post(RunLoop& loop, SystemEvent e) {
    if (!*handler_) return;
    loop.post([weak = std::weak_ptr<std::function<void(SystemEvent)>>(handler_), e] {
      auto h = weak.lock();
      if (!h || !*h) return;
      auto call = *h;  // the handler may unsubscribe itself
      call(e);
    });
  }

 private:
  std::shared_ptr<std::function<void(SystemEvent)>> handler_ = std::make_shared<std::function<void(SystemEvent)>>();
};

class SimPlatformImpl final : public SimPlatform {
 public:
  SimPlatformImpl(Clock& clock, RunLoop& loop, SimPlatformOptions options)
      : clock_(clock),
        loop_(loop),
        options_(std::move(options)),
        laptop_(clock),
        registry_(laptop_),
        power_([this](const Change& c) { return change(c); }, laptop_),
        displays_([this](const Change& c) { return change(c); }, laptop_),
        processes_([this](const Change& c) { return change(c); }, laptop_, options_.hostProcess) {
    if (!options_.stateFile.empty()) {
      FileLock lock(options_.stateFile);
      // Reading is safe without the lock (writers rename whole files).
      if (syncLocked(true) == Sync::Missing && lock.held()) writeLocked();
      if (!lock.held()) problem_ = lockedText(options_.stateFile);
    }
    // A display assertion dies with the app that took it: whoever ran the
    // laptop before is gone.
    if (laptop_.displayAssertion()) laptop_.setDisplayAssertionGone();
    thermal_ = laptop_.thermalState();
    adapter_ = adapter();
    laptop_.setObserver([this] { noticeEvents(); });
  }
  ~SimPlatformImpl() override { laptop_.setObserver(nullptr); }

  std::string name() const override { return "sim"; }
  WakeScheduler& wakeAlarm() override { return wake_; }
  std::string problem() const override { return stateFileProblem(); }
  std::string defaultAppFolder() const override {
    if (!options_.appFolder.empty()) return options_.appFolder;
    // The same folder as on the real machine: one app per person, whichever
    // machine it runs on, so the command-line tool always finds it.
    return xdgAppFolder();
  }
  Clock& clock() override { return clock_; }
  RunLoop& loop() override { return loop_; }
  Registry& registry() override { return registry_; }
  PowerControl& power() override { return power_; }
  Displays& displays() override { return displays_; }
  Processes& processes() override { return processes_; }
  SystemEvents& events() override { return events_; }

  void refresh() override {
    const std::string& path = options_.stateFile;
    if (!path.empty() && stampOf(path) != stamp_) {
      FileLock lock(path);
      if (!lock.held()) {
        // Skip this read; the next tick tries again.
        problem_ = lockedText(path);
      } else if (syncLocked(true) == Sync::Missing) {
        writeLocked();
      }
    }
    laptop_.advanceToNow();
    // The battery moving with time is written only when it shows: a new
    // whole percent, or charging that stopped at full. A damaged file is
    // left for its author to see until a change made here replaces it.
    if (!path.empty() && problem_.empty() && visible() != fileVisible_) {
      FileLock lock(path);
      if (lock.held() && syncLocked(true) != Sync::Damaged && visible() != fileVisible_) writeLocked();
    }
    noticeEvents();
  }

  SimLaptop& laptop() override { return laptop_; }

  bool save() override {
    if (options_.stateFile.empty()) return false;
    FileLock lock(options_.stateFile);
    return lock.held() && writeLocked();
  }

  std::string stateFileProblem() const override { return problem_; }

 private:
  enum class Sync { Unchanged, Loaded, Missing, Damaged };
  using Visible = std::tuple<bool, std::int64_t, bool>;  // battery, whole percent, charging

  // A privileged change: under the lock, take in whatever was written to the
  // file since it was last read (so that edit is kept), make only this
  // change, and write the file back at once.
  Result change(const Change& op) {
    if (options_.stateFile.empty()) return op(laptop_);
    FileLock lock(options_.stateFile);
    // Not made, and said so: the caller's record stays and it retries.
    if (!lock.held()) {
      problem_ = lockedText(options_.stateFile);
      return Result::fail(problem_);
    }
    syncLocked(true);
    Result r = op(laptop_);
    writeLocked();
    return r;
  }

  // Reads the file (the caller holds the lock) and takes in its content when
  // it changed since last read or written here.
  Sync syncLocked(bool force) {
    const std::string& path = options_.stateFile;
    if (!force && stampOf(path) == stamp_) return Sync::Unchanged;
    FileRead r = readStateFile(path);
    switch (r.kind) {
      case FileRead::Kind::Missing:
        stamp_.reset();
        return Sync::Missing;
      case FileRead::Kind::Damaged:
        // Remember this version so the same damage is not re-read every
        // tick; the last good state stays.
        stamp_ = stampOf(path);
        problem_ = r.problem;
        return Sync::Damaged;
      case FileRead::Kind::Good:
        break;
    }
    stamp_ = r.stamp;
    problem_.clear();
    if (loaded_ && r.content == content_) return Sync::Unchanged;
    const bool fill = needsFillingIn(r.state);
    adopt(std::move(r.state));
    content_ = std::move(r.content);
    if (fill) writeLocked();
    return Sync::Loaded;
  }

  // Takes in the file's state as the laptop's state now. The time since the
  // file's "updated" is not drained again with the file's settings: the
  // running laptop has already drained it with the settings it had. So the
  // charge stays as the running laptop has it unless the file's percent was
  // changed, and process counters keep counting.
  void adopt(json state) {
    json running;
    if (loaded_) {
      running = laptop_.toJson();
      keepCounters(state, running);
    }
    state["updated"] = clock_.now();
    laptop_.fromJson(state);
    const json now = laptop_.toJson();
    const double percent = percentIn(now);
    fileVisible_ = visible();
    if (loaded_ && percent == filePercent_) laptop_.setCharge(percentIn(running));
    filePercent_ = percent;
    loaded_ = true;
  }

  // Writes the laptop's state (the caller holds the lock).
  bool writeLocked() {
    const std::string& path = options_.stateFile;
    const json state = laptop_.toJson();
    std::string text = dump(state);
    Result w = writeDurably(path, text);
    if (!w) {
      problem_ = "Couldn't write the simulated laptop's state file " + path + " (" + w.message() + ").";
      return false;
    }
    stamp_ = stampOf(path);
    content_ = std::move(text);
    filePercent_ = percentIn(state);
    fileVisible_ = visible();
    loaded_ = true;
    problem_.clear();
    return true;
  }

  Visible visible() const {
    auto b = laptop_.batteryProperties();
    if (!b || !b->currentCapacity || !b->maxCapacity || *b->maxCapacity < 1) return {false, 0, false};
    return {true, *b->currentCapacity * 100 / *b->maxCapacity, b->isCharging.value_or(false)};
  }

  std::optional<bool> adapter() const {
    auto b = laptop_.batteryProperties();
    return b ? b->externalConnected : std::nullopt;
  }

  // Turns a change of the thermal state or of the power source, however it
  // came about, into the system event a real laptop would send.
  void noticeEvents() {
    const int thermal = laptop_.thermalState();
    if (thermal != thermal_) {
      thermal_ = thermal;
      events_.post(loop_, SystemEvent::ThermalStateChanged);
    }
    const auto adapterNow = adapter();
    if (adapterNow != adapter_) {
      adapter_ = adapterNow;
      events_.post(loop_, SystemEvent::PowerSourceChanged);
    }
    if (laptop_.sleeps() != sleeps_) {
      sleeps_ = laptop_.sleeps();
      events_.post(loop_, SystemEvent::WillSleep);
      events_.post(loop_, SystemEvent::DidWake);
    }
  }

  Clock& clock_;
  RunLoop& loop_;
  SimPlatformOptions options_;
  SimLaptop laptop_;
  SimWakeScheduler wake_{options_.say};
  SimRegistry registry_;
  SimPower power_;
  SimDisplays displays_;
  SimProcesses processes_;
  SimEvents events_;
  std::uint64_t sleeps_ = 0;

  std::string problem_;
  // The state file as last read or written here.
  bool loaded_ = false;
  std::optional<FileStamp> stamp_;
  std::string content_;
  double filePercent_ = -1.0;
  Visible fileVisible_{false, 0, false};

  int thermal_ = 0;
  std::optional<bool> adapter_;
};

}  // namespace

std::unique_ptr<SimPlatform> makeSimPlatform(Clock& clock, RunLoop& loop, SimPlatformOptions options) {
  return std::make_unique<SimPlatformImpl>(clock, loop, std::move(options));
}

bool editSimStateFile(const std::string& path, const Clock& clock, const std::function<void(SimLaptop&)>& edit) {
  // A person's edit (or a test's) may wait for the app's short writes.
  FileLock lock(path, true);
  SimLaptop laptop(clock);
  FileRead r = readStateFile(path);
  if (r.kind == FileRead::Kind::Damaged) return false;
  if (r.kind == FileRead::Kind::Good) {
    // A loaded file is the laptop as it is now (see SimPlatformImpl::adopt).
    r.state["updated"] = clock.now();
    laptop.fromJson(r.state);
  }
  edit(laptop);
  return writeDurably(path, dump(laptop.toJson())).isOk();
}

}  // namespace vigilo
