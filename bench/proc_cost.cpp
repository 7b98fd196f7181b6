// What the real process table of this machine costs Vigilo, all in one run:
// with `children` extra sleeping processes (children of this benchmark,
// 1,000 unless told), beside two bare baselines.
//
//   1. Bare baselines: a loop that only lists /proc, and one that also reads
//      every /proc/PID/stat.
//   2. The Linux backend in this process: an engine (preview only, on a
//      manual loop) ticking every 2 s of real time, with the CPU time of its
//      agent watcher sample, its energy sample and the whole tick.
//   3. The app itself: `vigilo app` in a temporary app folder (mode off, so
//      it switches nothing) for `seconds`, read from outside: CPU time per
//      tick, wake-ups per tick and its memory.
//
//   vigilo_bench_proc_cost [--children N] [--ticks N] [--seconds S]
//
// `--children 0 --seconds 60` measures the idle machine. Every child and the
// app are ended before the benchmark exits, also when it is interrupted.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <memory>
#include <numeric>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "agents/agent_work.h"
#include "engine/engine.h"
#include "platform/linux/linux_platform.h"
#include "platform/manual_run_loop.h"
#include "savings/power_watch.h"

extern char** environ;

namespace vigilo {
namespace {

double threadCpuMicros() {
  timespec ts{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

struct Stats {
  double average = 0, median = 0, worst = 0;
};
Stats statsOf(std::vector<double> v) {
  Stats s;
  if (v.empty()) return s;
  std::sort(v.begin(), v.end());
  s.average = std::accumulate(v.begin(), v.end(), 0.0) / static_cast<double>(v.size());
  s.median = v[v.size() / 2];
  s.worst = v.back();
  return s;
}

// ---------------------------------------------------------------- children

// The pids this benchmark started; ended at exit and on SIGINT/SIGTERM.
std::vector<pid_t> gChildren;
pid_t gApp = -1;
pid_t gFloor = -1;

void endAll() {
  if (gFloor > 0) {
    ::kill(gFloor, SIGKILL);
    ::waitpid(gFloor, nullptr, 0);
    gFloor = -1;
  }
  if (gApp > 0) {
    ::kill(gApp, SIGKILL);
    ::waitpid(gApp, nullptr, 0);
    gApp = -1;
  }
  for (pid_t pid : gChildren) ::kill(pid, SIGKILL);
  for (pid_t pid : gChildren) ::waitpid(pid, nullptr, 0);
  gChildren.clear();
}

void onSignal(int) {
  // Only async-signal-safe calls: the children die with their parent anyway
  // (PR_SET_PDEATHSIG), this just makes it immediate.
  if (gApp > 0) ::kill(gApp, SIGKILL);
  if (gFloor > 0) ::kill(gFloor, SIGKILL);
  for (pid_t pid : gChildren) ::kill(pid, SIGKILL);
  ::_exit(130);
}

// Starts `argv` with SIGKILL as its parent-death signal, so that nothing
// outlives the benchmark even if it is killed.
pid_t spawn(const std::vector<std::string>& argv, const std::vector<std::string>& env, int deathSignal) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, deathSignal);
  if (::getppid() != parent) ::_exit(1);
  const int null = ::open("/dev/null", O_RDWR);
  ::dup2(null, 0);
  ::dup2(null, 1);
  ::dup2(null, 2);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  std::vector<char*> envp;
  for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
  envp.push_back(nullptr);
  ::execve(args[0], args.data(), envp.data());
  ::_exit(127);
}

std::string readText(const std::string& path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

bool startChildren(int n) {
  const std::vector<std::string> env{"PATH=/usr/bin:/bin"};
  for (int i = 0; i < n; ++i) {
    const pid_t pid = spawn({"/bin/sleep", "3600"}, env, SIGKILL);
    if (pid < 0) {
      std::perror("fork");
      return false;
    }
    gChildren.push_back(pid);
  }
  // Until exec a child is a copy of this program.
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  for (pid_t pid : gChildren) {
    while (readText("/proc/" + std::to_string(pid) + "/comm") != "sleep\n") {
      if (std::chrono::steady_clock::now() > deadline) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  return true;
}

int countProcesses() {
  int n = 0;
  DIR* d = ::opendir("/proc");
  while (const dirent* e = ::readdir(d)) n += e->d_name[0] >= '1' && e->d_name[0] <= '9';
  ::closedir(d);
  return n;
}

// ---------------------------------------------------------------- baselines

// Lists /proc, and optionally reads every /proc/PID/stat: the least a
// process watcher could do.
std::size_t bareScan(bool readStat) {
  std::size_t bytes = 0;
  DIR* d = ::opendir("/proc");
  char path[300];
  char buf[1024];
  while (const dirent* e = ::readdir(d)) {
    if (e->d_name[0] < '1' || e->d_name[0] > '9') continue;
    ++bytes;
    if (!readStat) continue;
    std::snprintf(path, sizeof path, "/proc/%s/stat", e->d_name);
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    const ssize_t got = ::read(fd, buf, sizeof buf);
    if (got > 0) bytes += static_cast<std::size_t>(got);
    ::close(fd);
  }
  ::closedir(d);
  return bytes;
}

// ---------------------------------------------------------------- the backend

// Forwards to the real sources and keeps the CPU time of each call.
class TimedWork final : public WorkSource {
 public:
  explicit TimedWork(WorkSource& real) : real_(real) {}
  void sample(Engine& e) override {
    const double t = threadCpuMicros();
    real_.sample(e);
    last = threadCpuMicros() - t;
  }
  std::optional<std::string> workReason(Engine& e) override { return real_.workReason(e); }
  std::optional<std::string> lastWorker(Engine& e) override { return real_.lastWorker(e); }
  double last = 0;

 private:
  WorkSource& real_;
};

class TimedPower final : public PowerMeter {
 public:
  explicit TimedPower(PowerMeter& real) : real_(real) {}
  void sample(Engine& e) override {
    const double t = threadCpuMicros();
    real_.sample(e);
    last = threadCpuMicros() - t;
  }
  std::optional<double> systemWatts() const override { return real_.systemWatts(); }
  double last = 0;

 private:
  PowerMeter& real_;
};

struct BackendCost {
  Stats watcher, energy, both, tick;
  std::size_t sessions = 0;
};

BackendCost measureBackend(const std::string& folder, int ticks) {
  ManualClock clock;
  ManualRunLoop loop(clock);
  auto platform = makeLinuxPlatform(clock, loop, LinuxPlatformOptions{});
  Engine engine(*platform, folder, EngineOptions{true, false});
  AgentWork work(*platform, folder, folder, nullptr);
  PowerWatch power(folder, &work);
  TimedWork timedWork(work);
  TimedPower timedPower(power);
  engine.setWorkSource(&timedWork);
  engine.setPowerMeter(&timedPower);
  engine.launch();
  // The first ticks learn every process.
  for (int i = 0; i < 5; ++i) loop.advance(2);
  std::vector<double> watcher, energy, both, tick;
  for (int i = 0; i < ticks; ++i) {
    // Real time passes between ticks as in the app, so that what the
    // machine does meanwhile (processes started and ended) is seen too.
    std::this_thread::sleep_for(std::chrono::seconds(2));
    const double t = threadCpuMicros();
    loop.advance(2);
    tick.push_back(threadCpuMicros() - t);
    watcher.push_back(timedWork.last);
    energy.push_back(timedPower.last);
    both.push_back(timedWork.last + timedPower.last);
  }
  return BackendCost{statsOf(watcher), statsOf(energy), statsOf(both), statsOf(tick), work.sessions().size()};
}

// ---------------------------------------------------------------- the app

struct AppReading {
  double cpuMs = 0;  // on the CPU so far
  long switches = 0;  // voluntary context switches so far: each is a wait ended by a wake-up
};

// From /proc/PID/task/*/sched (the scheduler's own nanosecond counter);
// nothing where the kernel doesn't offer it.
std::optional<AppReading> readApp(pid_t pid) {
  AppReading r;
  bool any = false;
  std::error_code ec;
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    std::ifstream in(task.path() / "sched");
    std::string line;
    while (std::getline(in, line)) {
      const auto colon = line.find(':');
      if (colon == std::string::npos) continue;
      const std::string key = line.substr(0, line.find_first_of(" \t"));
      const double value = std::atof(line.c_str() + colon + 1);
      if (key == "se.sum_exec_runtime") {
        r.cpuMs += value;
        any = true;
      } else if (key == "nr_voluntary_switches") {
        r.switches += static_cast<long>(value);
      }
    }
  }
  if (!any) return std::nullopt;
  return r;
}

long statusKb(pid_t pid, const std::string& key) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, key.size(), key) == 0) return std::atol(line.c_str() + key.size() + 1);
  }
  return -1;
}

// The least any program waking once a tick pays on this machine, measured
// beside the app so that a slow or busy host shows in both figures: a child
// that sleeps 2 s and touches a file, as the app's heartbeat does.
pid_t startFloor(const std::string& beat) {
  const pid_t parent = ::getpid();
  const pid_t pid = ::fork();
  if (pid != 0) return pid;
  ::prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (::getppid() != parent) ::_exit(1);
  ::close(::open(beat.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
  for (;;) {
    ::poll(nullptr, 0, 2000);
    ::utimensat(AT_FDCWD, beat.c_str(), nullptr, 0);
  }
}

int measureApp(const std::string& folder, double seconds) {
  std::filesystem::create_directories(folder);
  std::ofstream(folder + "/config.json") << R"({"mode": "off"})";
  std::vector<std::string> env{"VIGILO_HOME=" + folder};
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "VIGILO_", 7) != 0) env.emplace_back(*e);
  }
  gApp = spawn({VIGILO_BINARY, "app"}, env, SIGTERM);
  if (gApp < 0) return 1;
  gFloor = startFloor(folder + "/floor-beat");
  // Past launch, and a few ticks in.
  std::this_thread::sleep_for(std::chrono::seconds(5));
  const auto before = readApp(gApp);
  const auto floorBefore = gFloor > 0 ? readApp(gFloor) : std::nullopt;
  const auto t0 = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
  const auto after = readApp(gApp);
  const auto floorAfter = gFloor > 0 ? readApp(gFloor) : std::nullopt;
  if (gFloor > 0) {
    ::kill(gFloor, SIGKILL);
    ::waitpid(gFloor, nullptr, 0);
    gFloor = -1;
  }
  const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  const long rss = statusKb(gApp, "VmRSS:");
  const long hwm = statusKb(gApp, "VmHWM:");
  ::kill(gApp, SIGTERM);
  int status = 0;
  for (int i = 0; i < 100 && ::waitpid(gApp, &status, WNOHANG) == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  if (::waitpid(gApp, &status, WNOHANG) == 0) {
    ::kill(gApp, SIGKILL);
    ::waitpid(gApp, &status, 0);
  }
  gApp = -1;
  if (!before || !after) {
    std::printf("the app: this kernel shows no /proc/PID/sched, so its CPU time isn't measured\n");
    return 0;
  }
  const double ticks = elapsed / 2.0;
  std::printf("the app (vigilo app, mode off) over %.0f s, %.0f ticks: CPU %.3f ms per tick, %.1f ms per minute; "
              "%.2f wake-ups per tick; RSS %.1f MB (peak %.1f MB)\n",
              elapsed, ticks, (after->cpuMs - before->cpuMs) / ticks, (after->cpuMs - before->cpuMs) / elapsed * 60,
              static_cast<double>(after->switches - before->switches) / ticks, rss / 1024.0, hwm / 1024.0);
  if (floorBefore && floorAfter) {
    std::printf("  beside it, a bare loop that only wakes every 2 s and touches a file: %.1f ms per minute\n",
                (floorAfter->cpuMs - floorBefore->cpuMs) / elapsed * 60);
  }
  return 0;
}

}  // namespace
}  // namespace vigilo

int main(int argc, char** argv) {
  using namespace vigilo;
  int children = 1000;
  int ticks = 30;
  double seconds = 30;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string flag = argv[i];
    if (flag == "--children") children = std::max(0, std::atoi(argv[i + 1]));
    if (flag == "--ticks") ticks = std::max(5, std::atoi(argv[i + 1]));
    if (flag == "--seconds") seconds = std::max(0.0, std::atof(argv[i + 1]));
  }
  std::signal(SIGINT, onSignal);
  std::signal(SIGTERM, onSignal);
  std::atexit(endAll);

  char tmpl[] = "/tmp/vigilo-proc-cost-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) return 1;
  const std::string home = tmpl;

  if (!startChildren(children)) {
    std::fprintf(stderr, "the children didn't start\n");
    return 1;
  }
  std::printf("%d processes on this machine (%d of them this benchmark's sleeping children)\n", countProcesses(),
              children);

  std::vector<double> list, stat;
  std::size_t sink = 0;
  for (int i = 0; i < 100; ++i) {
    double t = threadCpuMicros();
    sink += bareScan(false);
    list.push_back(threadCpuMicros() - t);
    t = threadCpuMicros();
    sink += bareScan(true);
    stat.push_back(threadCpuMicros() - t);
  }
  const Stats l = statsOf(list), s = statsOf(stat);
  std::printf("bare loop listing /proc:                  average %7.0f us, median %7.0f us, worst %7.0f us\n",
              l.average, l.median, l.worst);
  std::printf("bare loop listing and reading every stat: average %7.0f us, median %7.0f us, worst %7.0f us\n",
              s.average, s.median, s.worst);

  const BackendCost b = measureBackend(home + "/backend", ticks);
  std::printf("Linux backend, %d ticks, %zu sessions:\n", ticks, b.sessions);
  std::printf("  agent watcher sample:        average %7.0f us, median %7.0f us, worst %7.0f us\n", b.watcher.average,
              b.watcher.median, b.watcher.worst);
  std::printf("  energy sample:               average %7.0f us, median %7.0f us, worst %7.0f us\n", b.energy.average,
              b.energy.median, b.energy.worst);
  std::printf("  watcher + energy:            average %7.0f us, median %7.0f us, worst %7.0f us\n", b.both.average,
              b.both.median, b.both.worst);
  std::printf("  the whole tick:              average %7.0f us, median %7.0f us, worst %7.0f us\n", b.tick.average,
              b.tick.median, b.tick.worst);
  std::fflush(stdout);

  int rc = seconds > 0 ? measureApp(home + "/app", seconds) : 0;
  endAll();
  std::error_code ec;
  std::filesystem::remove_all(home, ec);
  return sink == 0 ? 1 : rc;
}
