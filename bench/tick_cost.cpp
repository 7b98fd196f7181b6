// CPU time of what one engine tick spends on the process table: one agent
// watcher sample and one energy sample, over a simulated laptop running
// 1,000 processes (four Claude Code sessions, a Codex and an Ollama with
// their trees, watched apps, and the rest of a desktop), with a home folder
// of 400 transcripts. Target: well under 2 ms.
//
//   vigilo_bench_tick_cost [ticks]        median and 95th percentile
//   vigilo_bench_tick_cost --benchmark_…  the same through Google Benchmark

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "agents/catalogue.h"
#include "agents/watcher.h"
#include "platform/manual_run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "power/energy_sampler.h"

namespace vigilo {
namespace {

constexpr int kProcesses = 1000;

double threadCpuMicros() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

struct Machine {
  Machine() : loop(clock) {
    char tmpl[] = "/tmp/vigilo-tick-XXXXXX";
    if (::mkdtemp(tmpl) != nullptr) home = tmpl;
    SimPlatformOptions options;
    options.appFolder = home + "/app";
    sim = makeSimPlatform(clock, loop, options);
    SimLaptop& l = sim->laptop();
    auto start = [&](const std::string& path, std::vector<std::string> args, std::int32_t ppid, double watts,
                     const std::string& cwd = "/") {
      const std::int32_t pid = l.startProcess(path, std::move(args), ppid);
      l.setProcessWatts(pid, watts);
      l.setProcessCwd(pid, cwd);
      return pid;
    };
    // Four Claude Code sessions, each with workers, MCP servers and a shell
    // building something with many compiler processes.
    for (int s = 0; s < 4; ++s) {
      const std::string project = "/home/me/project" + std::to_string(s);
      const std::int32_t root = start("/usr/local/bin/claude", {"claude"}, 1, 0.3, project);
      for (int w = 0; w < 3; ++w) {
        start("/usr/local/bin/node", {"node", "/x/@anthropic-ai/claude-code/w.js"}, root, 0.1);
      }
      start("/usr/local/bin/node", {"node", "/x/npx-cli.js", "mcp"}, root, 0.01);
      const std::int32_t shell = start("/bin/zsh", {"zsh", "-c", "make -j"}, root, 0.0);
      const std::int32_t make = start("/usr/bin/make", {"make", "-j"}, shell, 0.2);
      for (int c = 0; c < 140; ++c) start("/usr/bin/cc", {"cc", "-c", "x.c"}, make, 1.0);
    }
    const std::int32_t codex = start("/usr/local/bin/codex", {"codex"}, 1, 0.2, "/home/me/api");
    for (int c = 0; c < 60; ++c) start("/usr/bin/cargo", {"cargo", "build"}, codex, 0.5);
    const std::int32_t ollama = start("/usr/local/bin/ollama", {"ollama", "serve"}, 1, 0.1);
    start("/usr/local/bin/ollama", {"ollama", "runner"}, ollama, 12.0);
    // The rest of a desktop: apps with helpers, daemons, tools.
    const char* apps[] = {"Xcode", "Safari", "Slack", "Music", "Mail", "Notes", "Terminal", "Preview"};
    while (static_cast<int>(l.processes().size()) < kProcesses) {
      const int i = static_cast<int>(l.processes().size());
      const std::string app = apps[i % 8];
      if (i % 3 == 0) {
        start("/Applications/" + app + ".app/Contents/MacOS/" + app, {app}, 1, 0.05);
      } else if (i % 3 == 1) {
        start("/Applications/" + app + ".app/Contents/Frameworks/" + app + " Helper.app/Contents/MacOS/" + app +
                  " Helper",
              {app + " Helper"}, 1, 0.02);
      } else {
        start("/usr/libexec/daemon" + std::to_string(i % 50), {"daemon"}, 1, 0.001);
      }
    }
    // Transcripts: 40 projects of 10 sessions each.
    for (int p = 0; p < 40; ++p) {
      const std::string dir = home + "/.claude/projects/-home-me-project" + std::to_string(p);
      std::filesystem::create_directories(dir);
      for (int f = 0; f < 10; ++f) std::ofstream(dir + "/" + std::to_string(f) + ".jsonl") << "{}\n";
    }
    watcher = std::make_unique<AgentWatcher>(sim->processes(), sim->registry(), home, clock);
  }
  ~Machine() {
    std::error_code ec;
    if (!home.empty()) std::filesystem::remove_all(home, ec);
  }

  // One tick's process work, and apart from it the listing (which the
  // simulation does by copying; a real machine reads the kernel). The laptop
  // moves its counters before the clock starts: that is the simulation's
  // cost, not Vigilo's.
  struct Cost {
    double list;
    double watcher;
    double energy;
  };
  Cost tick() {
    clock.advance(2);
    sim->laptop().advanceToNow();
    const double before = threadCpuMicros();
    const std::vector<ProcessInfo> list = sim->processes().list();
    const double listed = threadCpuMicros();
    watcher->sample(list, watched, true, extra, clock.now());
    const double watched = threadCpuMicros();
    const auto apps = sampler.sample(list, clock.now());
    benchmark::DoNotOptimize(apps.data());
    return Cost{listed - before, watched - listed, threadCpuMicros() - watched};
  }

  ManualClock clock;
  ManualRunLoop loop;
  std::string home;
  std::unique_ptr<SimPlatform> sim;
  std::unique_ptr<AgentWatcher> watcher;
  EnergySampler sampler;
  std::vector<WatchedApp> watched = {{"Xcode"}, {"Music"}};
  std::vector<AgentKind> extra = {kindFor(CustomAgent{"Bot", {"mybot"}, 0.05}), claudeAppKind()};
};

void BM_TickCost(benchmark::State& state) {
  Machine m;
  m.tick();
  for (auto _ : state) {
    state.PauseTiming();
    m.clock.advance(2);
    m.sim->laptop().advanceToNow();
    state.ResumeTiming();
    const std::vector<ProcessInfo> list = m.sim->processes().list();
    m.watcher->sample(list, m.watched, true, m.extra, m.clock.now());
    benchmark::DoNotOptimize(m.sampler.sample(list, m.clock.now()));
  }
}
BENCHMARK(BM_TickCost)->Unit(benchmark::kMicrosecond)->Repetitions(5)->ReportAggregatesOnly(true);

}  // namespace
}  // namespace vigilo

int main(int argc, char** argv) {
  if (argc > 1 && std::strncmp(argv[1], "--benchmark", 11) == 0) {
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
  }
  const int ticks = argc > 1 ? std::max(10, std::atoi(argv[1])) : 500;
  vigilo::Machine m;
  std::size_t sessions = 0;
  m.tick();  // the first tick classifies every process
  std::vector<double> work, list, watcher, energy;
  for (int i = 0; i < ticks; ++i) {
    const auto c = m.tick();
    work.push_back(c.watcher + c.energy);
    watcher.push_back(c.watcher);
    energy.push_back(c.energy);
    list.push_back(c.list);
  }
  sessions = m.watcher->sessions().size();
  for (auto* v : {&work, &list, &watcher, &energy}) std::sort(v->begin(), v->end());
  std::printf("watcher + energy sample, %d processes, %zu sessions, %d ticks: median %.0f us, 95th percentile %.0f us, "
              "max %.0f us\n",
              static_cast<int>(m.sim->laptop().processes().size()), sessions, ticks, work[work.size() / 2],
              work[work.size() * 95 / 100], work.back());
  std::printf("  of which the watcher: median %.0f us, 95th percentile %.0f us; the energy sample: median %.0f us\n",
              watcher[ticks / 2], watcher[ticks * 95 / 100], energy[ticks / 2]);
  std::printf("listing the simulated processes (a copy, not counted above): median %.0f us\n", list[list.size() / 2]);
  return 0;
}
