// CPU time an idle app takes per minute: `vigilo app` on a simulated
// laptop with nothing to do (mode When Busy, no agent, lid open), its
// clock at the real pace, measured from its threads' schedstat after the
// start-up has settled. Target: at most 5 ms per minute.
//
//   vigilo_bench_idle_cpu [seconds]   (default 60)

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench_app.h"
#include "commands/channel.h"


namespace {

// CPU time of all of `pid`'s threads, in milliseconds, from the scheduler's
// nanosecond count (/proc/<pid>/stat counts in 10 ms ticks); negative when
// unreadable.
double cpuMillis(pid_t pid) {
  std::error_code ec;
  double total = 0;
  bool any = false;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    std::ifstream in(task.path() / "schedstat");
    unsigned long long ns = 0;
    if (in >> ns) {
      total += static_cast<double>(ns) / 1e6;
      any = true;
    }
  }
  return any ? total : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::max(5, std::atoi(argv[1])) : 60;
  vigilo::bench::BenchApp bench;
  const pid_t app = bench.pid();
  if (app <= 0) return 1;
  // Start-up (the first readings, the watchdog script) is not idling.
  std::this_thread::sleep_for(std::chrono::seconds(5));
  const double before = cpuMillis(app);
  const auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  const double after = cpuMillis(app);
  const double minutes = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / 60.0;
  if (before < 0 || after < 0) {
    std::printf("couldn't read the app's CPU time\n");
    return 1;
  }
  std::printf("idle app: %.2f ms CPU per minute over %.1f minutes (target <= 5)\n", (after - before) / minutes,
              minutes);
  return 0;
}
