#include "platform/linux/thread_priorities.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <sstream>

#include "platform/files.h"
#include "platform/linux/procfs_text.h"

namespace vigilo {
namespace {

// <linux/ioprio.h> is missing from older kernel headers.
constexpr int kIoprioWhoProcess = 1;
constexpr int kIoprioClassShift = 13;
constexpr int kIoprioClassRealtime = 1;
constexpr int kIoprioClassIdle = 3;
constexpr int ioprioClass(int value) { return value >> kIoprioClassShift; }
constexpr int kIoprioIdle = kIoprioClassIdle << kIoprioClassShift;
constexpr int kCapSysNice = 23;

bool isNumber(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int basePolicy(int policy) { return policy & ~SCHED_RESET_ON_FORK; }

std::optional<ThreadPriority> readPriority(pid_t tid, int& err) {
  ThreadPriority p;
  const long io = ::syscall(SYS_ioprio_get, kIoprioWhoProcess, tid);
  if (io < 0) {
    err = errno;
    return std::nullopt;
  }
  p.ioprio = static_cast<int>(io);
  p.policy = ::sched_getscheduler(tid);
  if (p.policy < 0) {
    err = errno;
    return std::nullopt;
  }
  errno = 0;
  const int nice = ::getpriority(PRIO_PROCESS, static_cast<id_t>(tid));
  if (nice == -1 && errno != 0) {
    err = errno;
    return std::nullopt;
  }
  p.nice = nice;
  return p;
}

int setIoprio(pid_t tid, int value) {
  return ::syscall(SYS_ioprio_set, kIoprioWhoProcess, tid, value) == 0 ? 0 : errno;
}

int setPolicy(pid_t tid, int policy) {
  sched_param param{};
  param.sched_priority = 0;
  return ::sched_setscheduler(tid, policy, &param) == 0 ? 0 : errno;
}

// Sets one thread's I/O priority and, where `cpu`, its policy back to
// `original`; the error of the last change that failed, 0 when none did (a
// thread that ended meanwhile is no failure).
int putBack(pid_t tid, const ThreadPriority& now, const ThreadPriority& original, bool cpu) {
  int failedErr = 0;
  if (now.ioprio != original.ioprio) {
    if (int e = setIoprio(tid, original.ioprio); e != 0 && e != ESRCH) failedErr = e;
  }
  if (cpu && now.policy != original.policy) {
    if (int e = setPolicy(tid, original.policy); e != 0 && e != ESRCH) failedErr = e;
  }
  return failedErr;
}

// Whether this process holds CAP_SYS_NICE in the initial user namespace,
// where it counts for every process of the machine.
bool hasCapSysNice(const SysTree& tree) {
  auto status = tree.read("/proc/self/status");
  auto caps = status ? effectiveCapabilities(*status) : std::nullopt;
  auto uidMap = tree.read("/proc/self/uid_map");
  return caps && (*caps >> kCapSysNice & 1U) != 0 && uidMap && isInitialUserNamespace(*uidMap);
}

}  // namespace

PrioritySlower::PrioritySlower(const SysTree& tree) : tree_(tree), capSysNice_(hasCapSysNice(tree)) {}

Result PrioritySlower::slow(std::int32_t pid) {
  loadRecord();
  auto stat = tree_.stat(pid);
  if (!stat) return Result::fail("Process " + std::to_string(pid) + " isn't running.");
  SlowRecord& rec = slowed_[pid];
  if (rec.startTicks != stat->starttime) {
    rec = SlowRecord{};
    rec.startTicks = stat->starttime;
  }
  int denied = 0;
  const std::vector<pid_t> fresh = recordThreads(pid, rec, denied);
  // The old values are on disk before any of them changes, so a run that
  // dies meanwhile leaves the next one what to put back.
  if (!fresh.empty() && !saveRecord()) {
    for (pid_t tid : fresh) rec.threads.erase(tid);
    if (rec.threads.empty()) slowed_.erase(pid);
    return Result::fail("Couldn't record the priority of process " + std::to_string(pid) +
                        " in Vigilo's folder, so it is left as it is.");
  }
  for (pid_t tid : fresh) {
    reapply(tid, rec.threads[tid]);
    if (rec.threads[tid].denied) denied = EPERM;
  }
  if (denied != 0 && std::none_of(rec.threads.begin(), rec.threads.end(),
                                  [](const auto& e) { return e.second.io || e.second.cpu; })) {
    slowed_.erase(pid);
    saveRecord();
    return Result::fail("Vigilo isn't allowed to change the priority of process " + std::to_string(pid) +
                            " (it belongs to another user).",
                        denied);
  }
  return Result::ok();
}

// Slows again the threads already recorded, and records the old values of
// the others without changing them yet: those are returned. `denied` is set
// when a thread's priority may not even be read.
std::vector<pid_t> PrioritySlower::recordThreads(std::int32_t pid, SlowRecord& rec, int& denied) {
  const std::uint64_t niceLimit = niceLimitOf(pid);
  std::vector<pid_t> fresh;
  for (pid_t tid : threadsOf(pid)) {
    auto known = rec.threads.find(tid);
    if (known != rec.threads.end()) {
      reapply(tid, known->second);
      continue;
    }
    int err = 0;
    auto now = readPriority(tid, err);
    if (!now) {
      if (err == EPERM || err == EACCES) denied = err;
      continue;  // ESRCH: the thread just ended
    }
    const SlowedThread t = lowered(rec, *now, niceLimit);
    rec.threads[tid] = t;
    if (!rec.original) {
      rec.original = t.original;
      rec.cpu = t.cpu;
    }
    fresh.push_back(tid);
  }
  return fresh;
}

// What slowing a thread whose priority is `now` changes, and what it had.
PrioritySlower::SlowedThread PrioritySlower::lowered(const SlowRecord& rec, const ThreadPriority& now,
                                                     std::uint64_t niceLimit) const {
  SlowedThread t;
  // A thread started since the last slow inherited the slowed values;
  // what it would have had is the process's own.
  const bool inherited = rec.original && ioprioClass(now.ioprio) == kIoprioClassIdle &&
                         (!rec.cpu || basePolicy(now.policy) == SCHED_IDLE);
  t.original = inherited ? *rec.original : now;
  const int ioClass = ioprioClass(t.original.ioprio);
  t.io = ioClass != kIoprioClassRealtime && ioClass != kIoprioClassIdle;
  const int policy = basePolicy(t.original.policy);
  t.cpu = (policy == SCHED_OTHER || policy == SCHED_BATCH) && canRestoreNice(t.original.nice, niceLimit, capSysNice_);
  if (inherited) t.cpu = t.cpu && rec.cpu;
  return t;
}

Result PrioritySlower::unslow(std::int32_t pid) {
  loadRecord();
  auto stat = tree_.stat(pid);
  if (!stat) {
    if (slowed_.erase(pid) > 0) saveRecord();
    return Result::fail("Process " + std::to_string(pid) + " isn't running.");
  }
  auto found = slowed_.find(pid);
  if (found != slowed_.end() && found->second.startTicks != stat->starttime) {
    slowed_.erase(found);  // the pid was reused
    found = slowed_.end();
    saveRecord();
  }
  const SlowRecord* rec = found != slowed_.end() ? &found->second : nullptr;
  const std::uint64_t niceLimit = niceLimitOf(pid);
  int failedErr = 0;
  for (pid_t tid : threadsOf(pid)) {
    int err = 0;
    auto now = readPriority(tid, err);
    if (!now) {
      if (err != ESRCH) failedErr = err;
      continue;
    }
    bool cpu = false;
    auto original = originalOf(rec, tid, *now, niceLimit, cpu);
    if (!original) continue;
    if (int e = putBack(tid, *now, *original, cpu); e != 0) failedErr = e;
  }
  if (failedErr != 0) {
    return Result::fail(errnoMessage("Couldn't put back the priority of process " + std::to_string(pid), failedErr),
                        failedErr);
  }
  if (found != slowed_.end()) {
    slowed_.erase(found);
    saveRecord();
  }
  return Result::ok();
}

// What one thread is to be put back to, and in `cpu` whether its policy
// too; nothing when the record doesn't know the thread.
std::optional<ThreadPriority> PrioritySlower::originalOf(const SlowRecord* rec, pid_t tid, const ThreadPriority& now,
                                                         std::uint64_t niceLimit, bool& cpu) const {
  if (rec != nullptr) {
    if (auto t = rec->threads.find(tid); t != rec->threads.end()) {
      cpu = t->second.cpu;
      return t->second.original;
    }
    if (rec->original && ioprioClass(now.ioprio) == kIoprioClassIdle) {
      cpu = rec->cpu;
      return rec->original;  // started since, with the slowed values
    }
    return std::nullopt;
  }
  // No record of the old values (its file was lost): put back the defaults
  // of what slowing changes, where they can be.
  ThreadPriority defaults = now;
  if (ioprioClass(now.ioprio) == kIoprioClassIdle) defaults.ioprio = 0;  // "none": follows the nice value
  if (basePolicy(now.policy) == SCHED_IDLE && canRestoreNice(now.nice, niceLimit, capSysNice_)) {
    defaults.policy = SCHED_OTHER | (now.policy & SCHED_RESET_ON_FORK);
    cpu = true;
  }
  return defaults;
}

// The record is one line per thread: pid, start ticks, thread id (0 for
// what a thread started later would have had), I/O priority, policy, nice
// and whether the I/O class and the policy are lowered.
bool PrioritySlower::saveRecord() {
  if (recordPath_.empty()) return false;
  std::string text;
  auto line = [&](std::int32_t pid, const SlowRecord& rec, pid_t tid, const ThreadPriority& p, bool io, bool cpu) {
    text += std::to_string(pid) + ' ' + std::to_string(rec.startTicks) + ' ' + std::to_string(tid) + ' ' +
            std::to_string(p.ioprio) + ' ' + std::to_string(p.policy) + ' ' + std::to_string(p.nice) + ' ' +
            (io ? '1' : '0') + ' ' + (cpu ? '1' : '0') + '\n';
  };
  for (const auto& [pid, rec] : slowed_) {
    if (rec.original) line(pid, rec, 0, *rec.original, false, rec.cpu);
    for (const auto& [tid, t] : rec.threads) line(pid, rec, tid, t.original, t.io, t.cpu);
  }
  if (text.empty()) {
    std::error_code ec;
    std::filesystem::remove(recordPath_, ec);
    return !ec;
  }
  return writeFileDurably(recordPath_, text).isOk();
}

// Takes in what an earlier run recorded, once; a damaged line is skipped.
void PrioritySlower::loadRecord() {
  if (recordLoaded_ || recordPath_.empty()) return;
  recordLoaded_ = true;
  auto text = readWholeFile(recordPath_, 4 * 1024 * 1024);
  if (!text) return;
  std::map<std::int32_t, SlowRecord> earlier;
  std::istringstream in(*text);
  std::string row;
  while (std::getline(in, row)) {
    std::istringstream fields(row);
    std::int64_t pid = 0, tid = 0;
    std::uint64_t start = 0;
    ThreadPriority p;
    int io = 0, cpu = 0;
    if (!(fields >> pid >> start >> tid >> p.ioprio >> p.policy >> p.nice >> io >> cpu)) continue;
    if (pid <= 0 || pid > INT32_MAX || tid < 0 || tid > INT32_MAX) continue;
    SlowRecord& rec = earlier[static_cast<std::int32_t>(pid)];
    if (rec.threads.empty() && !rec.original) rec.startTicks = start;
    if (rec.startTicks != start) continue;
    if (tid == 0) {
      rec.original = p;
      rec.cpu = cpu != 0;
    } else {
      rec.threads[static_cast<pid_t>(tid)] = SlowedThread{p, io != 0, cpu != 0, false};
    }
  }
  for (auto& [pid, rec] : earlier) slowed_.try_emplace(pid, std::move(rec));
}

std::vector<pid_t> PrioritySlower::threadsOf(std::int32_t pid) const {
  std::vector<pid_t> out{pid};  // the main thread first: its values are the process's
  for (const std::string& name : tree_.list("/proc/" + std::to_string(pid) + "/task")) {
    if (!isNumber(name) || name.size() > 9) continue;
    const auto tid = static_cast<pid_t>(std::stol(name));
    if (tid != pid) out.push_back(tid);
  }
  return out;
}

std::uint64_t PrioritySlower::niceLimitOf(std::int32_t pid) const {
  auto limits = tree_.read("/proc/" + std::to_string(pid) + "/limits");
  return limits ? niceLimitFromLimits(*limits).value_or(0) : 0;
}

void PrioritySlower::reapply(pid_t tid, SlowedThread& t) {
  int err = 0;
  auto now = readPriority(tid, err);
  if (!now) return;
  if (t.io && ioprioClass(now->ioprio) != kIoprioClassIdle) {
    if (int e = setIoprio(tid, kIoprioIdle); e != 0) {
      t.io = false;
      t.denied = t.denied || e == EPERM;
    }
  }
  if (t.cpu && basePolicy(now->policy) != SCHED_IDLE) {
    if (int e = setPolicy(tid, SCHED_IDLE | (t.original.policy & SCHED_RESET_ON_FORK)); e != 0) {
      t.cpu = false;
      t.denied = t.denied || e == EPERM;
    }
  }
}

}  // namespace vigilo
