#pragma once

#include <sched.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/linux/sys_tree.h"
#include "platform/result.h"

namespace vigilo {

// One thread's scheduling, as read before Vigilo changed it.
struct ThreadPriority {
  int ioprio = 0;
  int policy = SCHED_OTHER;  // with SCHED_RESET_ON_FORK when set
  int nice = 0;
};

// Slows processes reversibly and puts them back: every thread goes to the
// idle I/O class (always reversible), and to SCHED_IDLE only where the
// thread's RLIMIT_NICE or Vigilo's CAP_SYS_NICE lets it be put back, as an
// unprivileged user cannot leave SCHED_IDLE otherwise (sched(7)). Each
// thread's old values are written to the record file before they change,
// so a run that dies leaves the next one what to put back. Acts on the real
// processes whatever the tree's root; `tree` must outlive it.
class PrioritySlower {
 public:
  explicit PrioritySlower(const SysTree& tree);

  // Where the old priorities of slowed processes are kept; "" keeps none
  // (then nothing is slowed).
  void setRecordFile(std::string path) { recordPath_ = std::move(path); }

  // Whether Vigilo may put back a lowered CPU policy whatever the thread's
  // nice limit (CAP_SYS_NICE in the initial user namespace).
  bool mayLowerCpu() const { return capSysNice_; }

  // `pid` is a process other than Vigilo and init; the caller checks.
  Result slow(std::int32_t pid);
  Result unslow(std::int32_t pid);

 private:
  struct SlowedThread {
    ThreadPriority original;
    bool io = false;   // its I/O class was lowered
    bool cpu = false;  // its policy was lowered
    bool denied = false;
  };
  struct SlowRecord {
    std::uint64_t startTicks = 0;
    std::optional<ThreadPriority> original;  // of the first thread recorded
    bool cpu = false;
    std::map<pid_t, SlowedThread> threads;
  };

  std::vector<pid_t> recordThreads(std::int32_t pid, SlowRecord& rec, int& denied);
  SlowedThread lowered(const SlowRecord& rec, const ThreadPriority& now, std::uint64_t niceLimit) const;
  std::optional<ThreadPriority> originalOf(const SlowRecord* rec, pid_t tid, const ThreadPriority& now,
                                           std::uint64_t niceLimit, bool& cpu) const;
  bool saveRecord();
  void loadRecord();
  std::vector<pid_t> threadsOf(std::int32_t pid) const;
  std::uint64_t niceLimitOf(std::int32_t pid) const;
  static void reapply(pid_t tid, SlowedThread& t);

  const SysTree& tree_;
  bool capSysNice_ = false;
  std::map<std::int32_t, SlowRecord> slowed_;
  std::string recordPath_;
  bool recordLoaded_ = false;
};

}  // namespace vigilo
