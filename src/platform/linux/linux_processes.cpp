#include "platform/linux/linux_processes.h"

#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace vigilo {
namespace {

// The machine's draw is shared out among processes at most this often.
constexpr double kEnergySampleSeconds = 1.0;

}  // namespace

LinuxProcesses::LinuxProcesses(const SysTree& tree, Clock& clock, std::function<std::optional<double>()> draw)
    : tree_(tree), clock_(clock), draw_(std::move(draw)), slower_(tree) {
  hz_ = ::sysconf(_SC_CLK_TCK);
  if (hz_ <= 0) hz_ = 100;
  // Read once: the kernel works btime out afresh from the wall clock on
  // every read, so it can move by a second and would change the start
  // time that, with the pid, names a process.
  if (auto stat = tree_.read("/proc/stat", kCmdlineLimit)) bootTime_ = bootTimeFromProcStat(*stat);
}

// Read again at most once a minute: installing an app is rare, and the
// session asks on every tick.
const std::vector<DesktopEntry>& LinuxProcesses::desktopEntries() {
  const double now = clock_.monotonic();
  if (!entriesRead_ || now - *entriesRead_ > 60.0 || now < *entriesRead_) {
    entries_ = readDesktopEntries(xdgDataDirs());
    entriesRead_ = now;
  }
  return entries_;
}

std::optional<ProcessInfo> LinuxProcesses::info(std::int32_t pid) {
  if (pid <= 0) return std::nullopt;
  sampleMachine();
  auto stat = tree_.stat(pid);
  // Ended but not yet reaped by its parent (a zombie, or dying): only its
  // pid is left, so it counts as gone.
  if (!stat || stat->state == 'Z' || stat->state == 'X') return std::nullopt;
  Known& k = learn(pid, *stat, std::nullopt)->second;
  ProcessInfo p = k.identity;
  auto cpu = cpuOf(pid, &*stat);
  if (!cpu) return std::nullopt;
  p.cpuMicros = *cpu;
  p.energyNanojoules = energy_.energyOf(pid, k.startTicks, *cpu);
  p.stopped = stat->state == 'T';
  if (auto cwd = tree_.link("/proc/" + std::to_string(pid) + "/cwd")) p.cwd = *cwd;
  return p;
}

// Each process is learned once: its stat, executable and arguments are
// read when its /proc folder first shows, and again only when it may have
// changed. A process that hasn't used the CPU since can't have exec'd, so
// the counters (one clock read per process) tell which ones to look at
// again.
std::vector<ProcessInfo> LinuxProcesses::listing(ProcessDetail detail) {
  if (detail != ProcessDetail::Identity) sampleMachine();
  refreshFolders(detail);
  ++listings_;
  std::vector<ProcessInfo> out;
  out.reserve(folders_.size());
  std::vector<std::int32_t> pids;
  pids.reserve(folders_.size());
  for (const auto& [pid, ino] : folders_) {
    if (listOne(pid, ino, detail, out)) pids.push_back(pid);
  }
  std::erase_if(known_, [this](const auto& entry) { return entry.second.listed != listings_; });
  energy_.keepOnly(pids);
  checkParents(out);
  relearned_ = false;  // what was learned meanwhile is in this listing
  return out;
}

// Lists /proc again unless the kernel's task stamp shows that no process
// started or ended since the last listing. A full listing always lists.
void LinuxProcesses::refreshFolders(ProcessDetail detail) {
  // Read before the folders, so that a process started meanwhile moves it.
  std::optional<TaskStamp> tasks;
  if (detail != ProcessDetail::Full) {
    auto text = tree_.headKeptOpen("/proc/loadavg", 256);
    tasks = text ? taskStampFromLoadavg(*text) : std::nullopt;
  }
  if (!tasks || tasks != lastTasks_ || listings_ == 0) folders_ = tree_.processFolders();
  lastTasks_ = tasks;
}

// Adds one process of the listing to `out`; false when it ended meanwhile.
bool LinuxProcesses::listOne(std::int32_t pid, ino_t ino, ProcessDetail detail, std::vector<ProcessInfo>& out) {
  auto known = known_.find(pid);
  std::optional<ProcStat> stat;
  // A fixture has no CPU clocks: its stat is where the counters are.
  const bool needStat = detail == ProcessDetail::Full || (detail == ProcessDetail::Counters && !tree_.real());
  if (needStat || known == known_.end() || known->second.ino != ino) {
    stat = tree_.stat(pid);
    if (!stat) return false;  // ended since the folder was listed
    known = learn(pid, *stat, ino);
  }
  std::optional<std::uint64_t> cpu;
  const ProcessInfo& id = known->second.identity;
  const bool kernelThread = id.path.empty() && id.args.empty();
  // A kernel thread belongs to no app and no agent: its counters are
  // read only for a full listing.
  if (detail == ProcessDetail::Full || (detail == ProcessDetail::Counters && !kernelThread)) {
    cpu = cpuOf(pid, stat ? &*stat : nullptr);
    if (!cpu) return false;
    if (!stat && !kernelThread && *cpu != known->second.cpuAtCheck) {
      // It ran since it was last read: it may have exec'd.
      stat = tree_.stat(pid);
      if (!stat) return false;
      known = learn(pid, *stat, ino);
    }
  }
  Known& k = known->second;
  k.listed = listings_;
  ProcessInfo& p = out.emplace_back(k.identity);
  if (cpu) {
    p.cpuMicros = *cpu;
    p.energyNanojoules = energy_.energyOf(pid, k.startTicks, *cpu);
  }
  if (detail == ProcessDetail::Full) {
    p.stopped = stat->state == 'T';
    if (auto cwd = tree_.link("/proc/" + std::to_string(pid) + "/cwd")) p.cwd = *cwd;
  }
  return true;
}

// The kernel's task stamp tells whether a process started or ended; one
// learned again since (it exec'd, or was reparented) changes the listing
// too.
bool LinuxProcesses::identitiesUnchanged() {
  if (listings_ == 0 || !lastTasks_ || relearned_) return false;
  auto text = tree_.headKeptOpen("/proc/loadavg", 256);
  return text && taskStampFromLoadavg(*text) == lastTasks_;
}

// Trusts the last listing for which process the pid names (the app lists
// at the start of the same tick); a pid it didn't see is checked against
// its stat.
std::optional<ProcessCounters> LinuxProcesses::counters(std::int32_t pid, std::uint64_t startMicros) {
  auto known = known_.find(pid);
  std::optional<ProcStat> stat;
  if (known == known_.end() || known->second.identity.startMicros != startMicros || !tree_.real()) {
    stat = tree_.stat(pid);
    if (!stat || startMicrosOf(*stat) != startMicros) return std::nullopt;
    known = learn(pid, *stat, std::nullopt);
  }
  sampleMachine();
  auto cpu = cpuOf(pid, stat ? &*stat : nullptr);
  if (!cpu) return std::nullopt;
  return ProcessCounters{*cpu, energy_.energyOf(pid, known->second.startTicks, *cpu)};
}

// Apps are the desktop entries: the launcher's list of what a person runs.
std::vector<AppBundle> LinuxProcesses::installedApps() {
  std::vector<AppBundle> out;
  for (const DesktopEntry& e : desktopEntries()) out.push_back(AppBundle{e.path, e.id, e.name});
  return out;
}

std::optional<AppBundle> LinuxProcesses::appOf(const ProcessInfo& p) {
  const DesktopEntry* e = entryFor(desktopEntries(), p);
  if (e == nullptr) return std::nullopt;
  return AppBundle{e->path, e->id, e->name};
}

Result LinuxProcesses::slow(std::int32_t pid) {
  if (Result r = checkTarget(pid, "slow"); !r) return r;
  return slower_.slow(pid);
}

Result LinuxProcesses::unslow(std::int32_t pid) {
  if (Result r = checkTarget(pid, "put back"); !r) return r;
  return slower_.unslow(pid);
}

std::uint64_t LinuxProcesses::startMicrosOf(const ProcStat& stat) const {
  return startMicros(bootTime_.value_or(0), stat.starttime, hz_);
}

// CPU time used so far. On the machine itself from the process's CPU-time
// clock: one system call, no file (clock_getcpuclockid(3); any process's
// clock can be read). `stat` is used only in a fixture tree.
std::optional<std::uint64_t> LinuxProcesses::cpuOf(std::int32_t pid, const ProcStat* stat) const {
  if (tree_.real()) {
    // MAKE_PROCESS_CPUCLOCK(pid, CPUCLOCK_SCHED) of the kernel's ABI,
    // computed here rather than by clock_getcpuclockid, which spends a
    // second system call checking it.
    const auto clock = static_cast<clockid_t>((~static_cast<unsigned>(pid) << 3) | 2U);
    timespec ts{};
    if (::clock_gettime(clock, &ts) != 0) return std::nullopt;
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000ULL + static_cast<std::uint64_t>(ts.tv_nsec) / 1000;
  }
  if (stat == nullptr) return std::nullopt;
  return ticksToMicros(stat->utime + stat->stime, hz_);
}

// Takes in a fresh stat line of `pid`: the executable and arguments are
// read only for a process not known yet, a new one under a known pid, or
// one that exec'd.
LinuxProcesses::KnownMap::iterator LinuxProcesses::learn(std::int32_t pid, const ProcStat& stat,
                                                         std::optional<ino_t> ino) {
  auto [it, added] = known_.try_emplace(pid);
  Known& k = it->second;
  const bool same = !added && k.startTicks == stat.starttime && k.comm == stat.comm &&
                    k.startcode == stat.startcode && k.startstack == stat.startstack;
  if (!same) {
    const std::uint64_t listed = k.listed;
    k = Known{};
    k.listed = listed;
    k.startTicks = stat.starttime;
    k.comm = stat.comm;
    k.startcode = stat.startcode;
    k.startstack = stat.startstack;
    ProcessInfo& p = k.identity;
    p.pid = pid;
    p.startMicros = startMicrosOf(stat);
    const std::string base = "/proc/" + std::to_string(pid);
    if (auto cmdline = tree_.read(base + "/cmdline", kCmdlineLimit)) p.args = splitCmdline(*cmdline);
    if (auto exe = tree_.link(base + "/exe")) {
      p.path = exePathFromLink(*exe);
    } else if (!p.args.empty()) {
      // Another user's process hides its exe link; argv[0] is what is left.
      p.path = p.args.front();
    }
  }
  if (!same || k.identity.ppid != stat.ppid) relearned_ = true;
  k.identity.ppid = stat.ppid;
  k.cpuAtCheck = cpuOf(pid, &stat).value_or(0);
  if (ino) k.ino = *ino;
  return it;
}

// A parent starts before its children. A child read long ago may still
// name a parent that has ended since, and the pid may now belong to a
// newer process: such a child is read again for its real parent.
void LinuxProcesses::checkParents(std::vector<ProcessInfo>& out) {
  for (ProcessInfo& p : out) {
    auto parent = known_.find(p.ppid);
    if (parent == known_.end() || parent->second.identity.startMicros <= p.startMicros) continue;
    auto stat = tree_.stat(p.pid);
    if (!stat || startMicrosOf(*stat) != p.startMicros) continue;
    learn(p.pid, *stat, std::nullopt);
    p.ppid = stat->ppid;
  }
}

void LinuxProcesses::sampleMachine() {
  const double now = clock_.monotonic();
  if (sampledAt_ && now - *sampledAt_ < kEnergySampleSeconds && now >= *sampledAt_) return;
  // The "cpu " line comes first; the rest of /proc/stat (one line per CPU,
  // the interrupt counts) can be long and is not needed.
  auto stat = tree_.headKeptOpen("/proc/stat", 4096);
  auto busy = stat ? busyTicksFromProcStat(*stat) : std::nullopt;
  if (!busy) return;
  sampledAt_ = now;
  energy_.sample(now, ticksToMicros(*busy, hz_), draw_().value_or(0.0));
}

Result LinuxProcesses::checkTarget(std::int32_t pid, const std::string& verb) const {
  if (pid <= 1) return Result::fail("Vigilo won't " + verb + " process " + std::to_string(pid) + ".");
  if (pid == ::getpid()) return Result::fail("Vigilo won't " + verb + " itself.");
  return Result::ok();
}

Result LinuxProcesses::signal(std::int32_t pid, int signo, const std::string& verb) {
  if (Result r = checkTarget(pid, verb); !r) return r;
  if (::kill(pid, signo) == 0) return Result::ok();
  const int err = errno;
  if (err == ESRCH) return Result::fail("Process " + std::to_string(pid) + " isn't running.", err);
  if (err == EPERM) {
    return Result::fail(
        "Vigilo isn't allowed to " + verb + " process " + std::to_string(pid) + " (it belongs to another user).", err);
  }
  return Result::fail(errnoMessage("Couldn't " + verb + " process " + std::to_string(pid), err), err);
}

}  // namespace vigilo
