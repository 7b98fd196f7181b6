#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Pure readers of the text the kernel shows under /proc (proc(5)), and the
// one rule for priority changes that must stay reversible.

namespace vigilo {

// The fields of /proc/PID/stat (or /proc/PID/task/TID/stat) that Vigilo uses.
struct ProcStat {
  std::int32_t pid = 0;
  std::string comm;  // may hold spaces and parentheses
  char state = '?';  // 'R', 'S', 'T' (stopped by a signal), ...
  std::int32_t ppid = 0;
  std::uint64_t utime = 0;  // clock ticks
  std::uint64_t stime = 0;  // clock ticks
  std::int64_t nice = 0;
  std::uint64_t starttime = 0;  // clock ticks after boot
  // Where the program's code and stack begin: placed afresh (randomly) by
  // every exec, so with comm they tell an exec that kept the pid. Zero when
  // the kernel hides them (another user's process) or the line is short.
  std::uint64_t startcode = 0;
  std::uint64_t startstack = 0;
};

// Nothing for text that is not a stat line.
std::optional<ProcStat> parseProcStat(std::string_view text);

// "btime" of /proc/stat: boot time in seconds since 1970.
std::optional<std::int64_t> bootTimeFromProcStat(std::string_view text);
// The ticks all CPUs spent busy so far, from the "cpu " line of /proc/stat:
// user, nice, system, irq, softirq and steal (guest time is already inside
// user and nice; idle and iowait are not busy).
std::optional<std::uint64_t> busyTicksFromProcStat(std::string_view text);

// From /proc/loadavg ("0.20 0.18 0.12 1/80 11206"): the number of tasks
// (threads) that exist and the last pid handed out. While neither moves, no
// task has started or been reaped.
struct TaskStamp {
  std::uint64_t tasks = 0;
  std::uint64_t lastPid = 0;
  bool operator==(const TaskStamp&) const = default;
};
std::optional<TaskStamp> taskStampFromLoadavg(std::string_view text);

// /proc/PID/cmdline split at its NULs. A process that rewrote its title
// into one string gives that one string.
std::vector<std::string> splitCmdline(std::string_view text);

// The target of /proc/PID/exe without the " (deleted)" the kernel appends
// when the file was replaced (an updated program keeps its path).
std::string exePathFromLink(std::string_view link);

// Start time in microseconds since 1970 from boot time and start ticks.
std::uint64_t startMicros(std::int64_t bootTime, std::uint64_t startTicks, long ticksPerSecond);
// CPU time in microseconds from clock ticks.
std::uint64_t ticksToMicros(std::uint64_t ticks, long ticksPerSecond);

// The soft limit of "Max nice priority" in /proc/PID/limits (RLIMIT_NICE),
// UINT64_MAX for "unlimited"; nothing when the line is missing.
std::optional<std::uint64_t> niceLimitFromLimits(std::string_view text);

// The effective capability set ("CapEff:") of /proc/PID/status.
std::optional<std::uint64_t> effectiveCapabilities(std::string_view status);

// Whether /proc/self/uid_map maps every id to itself: only then do the
// capabilities in CapEff count outside a user namespace, where the kernel
// checks CAP_SYS_NICE.
bool isInitialUserNamespace(std::string_view uidMap);

// Whether a thread at nice `nice` that Vigilo lowers (to SCHED_IDLE) can be
// put back to that nice and its old policy by this user. The kernel allows
// it when 20 - nice <= the thread's RLIMIT_NICE, or with CAP_SYS_NICE
// (sched(7), "Privileges and resource limits"; setpriority(2)).
bool canRestoreNice(int nice, std::uint64_t niceLimit, bool capSysNice);

// Whether /proc/net/route (IPv4) or /proc/net/ipv6_route holds a default
// route that is up, on an interface other than loopback and not a reject
// route: the machine then has a path to the internet.
bool hasDefaultRoute(std::string_view route, std::string_view ipv6Route);

}  // namespace vigilo
