#pragma once

#include <signal.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "platform/clock.h"
#include "platform/linux/desktop_entries.h"
#include "platform/linux/energy_share.h"
#include "platform/linux/procfs_text.h"
#include "platform/linux/sys_tree.h"
#include "platform/linux/thread_priorities.h"
#include "platform/processes.h"

namespace vigilo {

// Processes from /proc, apps from the desktop entries, signals and
// reversible priority changes on the real processes. Energy per process is
// its share of `draw` (the machine's draw in watts, where it is known) by CPU
// time. `tree` and `clock` must outlive it.
class LinuxProcesses final : public Processes {
 public:
  LinuxProcesses(const SysTree& tree, Clock& clock, std::function<std::optional<double>()> draw);

  // Whether /proc can be read at all.
  bool readable() const { return bootTime_.has_value(); }
  bool mayLowerCpu() const { return slower_.mayLowerCpu(); }

  std::optional<ProcessInfo> info(std::int32_t pid) override;
  std::vector<ProcessInfo> list() override { return listing(ProcessDetail::Full); }
  std::vector<ProcessInfo> listing(ProcessDetail detail) override;
  bool identitiesUnchanged() override;
  std::optional<ProcessCounters> counters(std::int32_t pid, std::uint64_t startMicros) override;
  std::vector<AppBundle> installedApps() override;
  std::optional<AppBundle> appOf(const ProcessInfo& p) override;
  Result stop(std::int32_t pid) override { return signal(pid, SIGSTOP, "pause"); }
  Result resume(std::int32_t pid) override { return signal(pid, SIGCONT, "continue"); }
  Result slow(std::int32_t pid) override;
  Result unslow(std::int32_t pid) override;

  // Where the old priorities of slowed processes are kept; "" keeps none
  // (then nothing is slowed).
  void setRecordFile(std::string path) { slower_.setRecordFile(std::move(path)); }

 private:
  // What is known of one process, from its last full reading.
  struct Known {
    ino_t ino = 0;  // of its /proc folder; 0 when learned outside a listing
    std::uint64_t startTicks = 0;
    // Change with exec.
    std::string comm;
    std::uint64_t startcode = 0;
    std::uint64_t startstack = 0;
    // CPU time at that reading: until it grows the process hasn't run.
    std::uint64_t cpuAtCheck = 0;
    ProcessInfo identity;      // pid, ppid, startMicros, path and args
    std::uint64_t listed = 0;  // the last listing that saw it
  };
  using KnownMap = std::unordered_map<std::int32_t, Known>;

  const std::vector<DesktopEntry>& desktopEntries();
  void refreshFolders(ProcessDetail detail);
  bool listOne(std::int32_t pid, ino_t ino, ProcessDetail detail, std::vector<ProcessInfo>& out);
  std::uint64_t startMicrosOf(const ProcStat& stat) const;
  std::optional<std::uint64_t> cpuOf(std::int32_t pid, const ProcStat* stat) const;
  KnownMap::iterator learn(std::int32_t pid, const ProcStat& stat, std::optional<ino_t> ino);
  void checkParents(std::vector<ProcessInfo>& out);
  void sampleMachine();
  Result checkTarget(std::int32_t pid, const std::string& verb) const;
  Result signal(std::int32_t pid, int signo, const std::string& verb);

  const SysTree& tree_;
  Clock& clock_;
  std::function<std::optional<double>()> draw_;
  long hz_ = 100;
  std::optional<std::int64_t> bootTime_;
  std::optional<double> sampledAt_;
  EnergyShare energy_;
  KnownMap known_;
  std::uint64_t listings_ = 0;
  // The process folders of the last listing, and the kernel's task stamp
  // then: while it stays, no process started or ended, and listing /proc
  // again (the largest cost of an idle tick) would show the same.
  std::vector<std::pair<std::int32_t, ino_t>> folders_;
  std::optional<TaskStamp> lastTasks_;
  // A process was learned anew since the last listing.
  bool relearned_ = false;
  PrioritySlower slower_;
  std::vector<DesktopEntry> entries_;
  std::optional<double> entriesRead_;
};

}  // namespace vigilo
