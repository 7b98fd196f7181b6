// Wall time of one `vigilo status` against a running app (the tool starts,
// sends its request, the app answers, the tool prints and exits), beside
// the cheapest process there is (/bin/true), started the same way.
//
//   vigilo_bench_status_latency [runs]

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench_app.h"
#include "commands/channel.h"


namespace {

double runOnce(const std::vector<std::string>& argv) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  int status = 0;
  const bool ok = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0 &&
                  ::waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  const auto end = std::chrono::steady_clock::now();
  posix_spawn_file_actions_destroy(&actions);
  return ok ? std::chrono::duration<double, std::milli>(end - start).count() : -1;
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
  vigilo::bench::BenchApp bench;
  if (bench.pid() <= 0) return 1;
  for (int i = 0; i < 100 && runOnce({VIGILO_BINARY, "status"}) < 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }

  std::vector<double> status, truth;
  int failures = 0;
  for (int i = 0; i < runs; ++i) {
    const double s = runOnce({VIGILO_BINARY, "status"});
    if (s < 0) {
      ++failures;
    } else {
      status.push_back(s);
    }
    truth.push_back(runOnce({"/bin/true"}));
  }
  std::printf("vigilo status: median %.2f ms over %zu runs (%d failed)\n", median(status), status.size(), failures);
  std::printf("/bin/true:     median %.2f ms over %zu runs\n", median(truth), truth.size());
  return failures == 0 ? 0 : 1;
}
