// The readers of /proc text: a process's stat, /proc/stat, loadavg,
// cmdline, the exe link, limits, status and uid_map, each over the same
// bytes as the kernel might show them.
#include "fuzz_target.h"
#include "platform/linux/procfs_text.h"

VIGILO_FUZZ_TARGET(procfs) {
  using namespace vigilo;
  if (auto stat = parseProcStat(input)) {
    // The figures feed the time conversions as the process table does.
    (void)startMicros(1'700'000'000, stat->starttime, 100);
    (void)ticksToMicros(stat->utime + stat->stime, 100);
    (void)canRestoreNice(static_cast<int>(stat->nice), 0, false);
  }
  (void)bootTimeFromProcStat(input);
  (void)busyTicksFromProcStat(input);
  (void)taskStampFromLoadavg(input);
  (void)splitCmdline(input);
  (void)exePathFromLink(input);
  if (auto limit = niceLimitFromLimits(input)) (void)canRestoreNice(0, *limit, false);
  (void)effectiveCapabilities(input);
  (void)isInitialUserNamespace(input);
}
