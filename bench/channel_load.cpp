// The request channel under load: 20 tools at once send 10,000 `status`
// requests in all to one running app (on the simulated laptop). Prints
// requests per second, the p50 and p99 round trip, how many got no reply,
// and the app's resident memory and open descriptors before and after.
// First, with `idle` connections (1,000 unless given) held open by this one
// program, sending nothing, it prints how long `status` takes, one after
// another: the time a person's `vigilo status` waits behind such a flood.
//
//   vigilo_bench_channel_load [requests] [tools] [idle]

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <cstddef>
#include <cstring>
#include <nlohmann/json.hpp>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "bench_app.h"
#include "commands/channel.h"
#include "platform/notifications.h"


namespace {

long rssKb(pid_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  }
  return -1;
}

long openFds(pid_t pid) {
  std::error_code ec;
  long n = 0;
  for (auto it = std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/fd", ec);
       !ec && it != std::filesystem::directory_iterator(); it.increment(ec)) {
    ++n;
  }
  return ec ? -1 : n;
}

double percentile(std::vector<double>& v, double p) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[std::min(v.size() - 1, static_cast<std::size_t>(p * static_cast<double>(v.size())))];
}

// A connection to the app's request address that never sends anything.
int idleConnection(const std::string& home) {
  const std::string name = vigilo::socketNameFor(home) + vigilo::kRequestNotification;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path + 1, name.data(), name.size());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  ::connect(fd, reinterpret_cast<sockaddr*>(&addr),
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
  return fd;
}

}  // namespace

int main(int argc, char** argv) {
  const int requests = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
  const int tools = argc > 2 ? std::max(1, std::atoi(argv[2])) : 20;
  const int idleCount = argc > 3 ? std::max(0, std::atoi(argv[3])) : 1000;
  vigilo::bench::BenchApp bench;
  const pid_t app = bench.pid();
  const std::string& home = bench.home();
  if (app <= 0) return 1;
  vigilo::RequestClient warm(home);
  // Holding its folder, the app is reached once it listens (within the timeout).
  const bool up = warm.send("status", nlohmann::json::object(), 8).value("ok", false);
  if (!up) {
    std::fprintf(stderr, "the app didn't start\n");
    return 1;
  }
  // A few requests first so the "before" figures include what any first
  // request allocates for good.
  for (int i = 0; i < 20; ++i) warm.send("status", nlohmann::json::object(), 8);

  // The flood: every connection stays open until all the answers are in.
  std::vector<int> idle;
  for (int i = 0; i < idleCount; ++i) idle.push_back(idleConnection(home));
  std::vector<double> flooded;
  int floodLost = 0;
  for (int i = 0; i < 20; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    const bool ok = warm.send("status", nlohmann::json::object(), 8).value("ok", false);
    const double ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (ok) {
      flooded.push_back(ms);
    } else {
      ++floodLost;
    }
  }
  for (int fd : idle) ::close(fd);
  const double floodWorst = flooded.empty() ? 0 : *std::max_element(flooded.begin(), flooded.end());
  std::printf("status with %d idle connections open: p50 %.2f ms, worst %.2f ms, %d of 20 unanswered\n", idleCount,
              percentile(flooded, 0.50), floodWorst, floodLost);

  const long rssBefore = rssKb(app), fdsBefore = openFds(app);

  std::atomic<int> next{0}, lost{0};
  std::mutex mutex;
  std::vector<double> latencies;
  latencies.reserve(static_cast<std::size_t>(requests));
  const auto start = std::chrono::steady_clock::now();
  std::vector<std::thread> threads;
  for (int t = 0; t < tools; ++t) {
    threads.emplace_back([&] {
      vigilo::RequestClient client(home);
      std::vector<double> mine;
      while (next.fetch_add(1) < requests) {
        const auto t0 = std::chrono::steady_clock::now();
        const bool ok = client.send("status", nlohmann::json::object(), 8).value("ok", false);
        const auto t1 = std::chrono::steady_clock::now();
        if (ok) {
          mine.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
        } else {
          ++lost;
        }
      }
      std::lock_guard<std::mutex> lock(mutex);
      latencies.insert(latencies.end(), mine.begin(), mine.end());
    });
  }
  for (auto& t : threads) t.join();
  const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const long rssAfter = rssKb(app), fdsAfter = openFds(app);


  std::printf("%d requests from %d tools in %.2f s: %.0f requests/s, %d lost\n", requests, tools, seconds,
              static_cast<double>(requests) / seconds, lost.load());
  std::printf("round trip: p50 %.2f ms, p99 %.2f ms\n", percentile(latencies, 0.50), percentile(latencies, 0.99));
  std::printf("app resident memory: %ld kB before, %ld kB after\n", rssBefore, rssAfter);
  std::printf("app open descriptors: %ld before, %ld after\n", fdsBefore, fdsAfter);
  return lost.load() == 0 && floodLost == 0 ? 0 : 1;
}
