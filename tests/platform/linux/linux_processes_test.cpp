#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/clock.h"
#include "platform/linux/bus_children.h"
#include "platform/linux/linux_fixture.h"
#include "platform/linux/procfs_text.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using namespace std::string_literals;

// ---------------------------------------------------------------- the text

TEST(LinuxProcText, StatLinesOfRealProcesses) {
  const std::vector<std::pair<std::string, std::optional<ProcStat>>> rows{
      {"15546 (cat) R 15540 15540 12915 0 -1 4194304 99 0 0 0 0 0 0 0 20 0 1 0 146810 3133440 409 "
       "18446744073709551615 94611056517120 94611056537001 140733640362320 0 0 0 0 0 0 0 0 0 17 1 0 0 0 0 0\n",
       ProcStat{15546, "cat", 'R', 15540, 0, 0, 0, 146810, 94611056517120, 140733640362320}},
      {"1234 ((sd-pam)) S 1233 1233 1233 0 -1 1077936448 41 0 0 0 0 0 0 0 20 0 1 0 950 105684992 1014 "
       "18446744073709551615 1 1 0 0 0 0 0 4096 0 0 0 0 17 1 0 0 0 0 0\n",
       ProcStat{1234, "(sd-pam)", 'S', 1233, 0, 0, 0, 950, 1, 0}},
      // A name chosen to fool a parser that stops at the first ')'.
      {"4242 (a) b) T 1 4242 4242 0 -1 4194560 10 0 0 0 7 3 0 0 39 19 1 0 777 1 1 18446744073709551615 1 1 0 0 0 "
       "0 0 0 0 0 0 0 17 0 0 0 0 0 0\n",
       ProcStat{4242, "a) b", 'T', 1, 7, 3, 19, 777, 1, 0}},
      {"99 (renice) S 1 99 99 0 -1 0 0 0 0 0 5 5 0 0 15 -5 1 0 4096 0 0",
       ProcStat{99, "renice", 'S', 1, 5, 5, -5, 4096}},
      {"12 cat R 1", std::nullopt},
      {"x (y) R 1 1 1 0 -1 0 0 0 0 0 0 0 0 0 20 0 1 0 5 0 0", std::nullopt},
      {"15546 (cat) R 15540 15540 12915 0 -1 4194304 99", std::nullopt},
      {"15546 (cat) R 15540 15540 12915 0 -1 4194304 99 0 0 0 x 0 0 0 20 0 1 0 146810 0 0", std::nullopt},
  };
  auto fields = [](const std::optional<ProcStat>& s) {
    return s ? std::optional(std::tuple(s->pid, s->comm, s->state, s->ppid, s->utime, s->stime, s->nice, s->starttime,
                                        s->startcode, s->startstack))
             : std::nullopt;
  };
  for (const auto& [line, expected] : rows) EXPECT_EQ(fields(parseProcStat(line)), fields(expected)) << line;
}

TEST(LinuxProcText, ADefaultRouteThatIsUpMeansOnline) {
  const std::string header = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
  const std::string local = "eth0\t000200C0\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n";
  const std::string v6Local =
      "fe800000000000000000000000000000 40 00000000000000000000000000000000 00 "
      "00000000000000000000000000000000 00000100 00000002 00000000 00000001     eth0\n"
      "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
      "00000000000000000000000000000000 ffffffff 00000001 00000000 00200200       lo\n";
  const std::tuple<std::string, std::string, bool> rows[] = {
      {header + "eth0\t00000000\t010200C0\t0003\t0\t0\t0\t00000000\t0\t0\t0\n" + local, v6Local, true},
      {header + local, v6Local, false},  // only the local network and loopback's reject route
      {header + "wlan0\t00000000\t010200C0\t0002\t0\t0\t0\t00000000\t0\t0\t0\n", "", false},  // not up
      {header + "eth0\t00000000\t010200C0\t0203\t0\t0\t0\t00000000\t0\t0\t0\n", "", false},   // reject
      {header,
       "00000000000000000000000000000000 00 00000000000000000000000000000000 00 "
       "fd000000000000000000000000000001 00000400 00000002 00000000 00000003     eth0\n",
       true}};
  for (const auto& [route, ipv6, online] : rows) EXPECT_EQ(hasDefaultRoute(route, ipv6), online) << route << ipv6;
}

TEST(LinuxProcText, MachineCountersCommandLinesLimitsAndCapabilities) {
  const std::string procStat =
      "cpu  107773 0 14520 169703 617 0 111 56 0 0\n"
      "cpu0 48828 0 6331 90971 144 0 21 24 0 0\n"
      "cpu1 58944 0 8188 78732 473 0 89 31 0 0\n"
      "intr 615093 0 0 0\n"
      "ctxt 775586\n"
      "btime 1795243647\n"
      "processes 15548\n";
  EXPECT_EQ(bootTimeFromProcStat(procStat), 1795243647);
  EXPECT_EQ(busyTicksFromProcStat(procStat), 107773u + 0 + 14520 + 0 + 111 + 56);
  EXPECT_FALSE(bootTimeFromProcStat("cpu 1 2 3 4\n").has_value());
  EXPECT_EQ(taskStampFromLoadavg("0.20 0.18 0.12 1/80 11206\n"), (TaskStamp{80, 11206}));
  for (const char* junk : {"0.20 0.18 0.12 80 11206\n", "0.20 0.18 0.12 1/80\n"}) {
    EXPECT_FALSE(taskStampFromLoadavg(junk).has_value()) << junk;
  }

  // A process that rewrote its title has no trailing NUL.
  EXPECT_EQ(splitCmdline("postgres: checkpointer "s), std::vector<std::string>{"postgres: checkpointer "});
  EXPECT_EQ(splitCmdline("a\0\0b\0"s), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(exePathFromLink("/usr/lib/node_modules/.bin/claude (deleted)"), "/usr/lib/node_modules/.bin/claude");

  EXPECT_EQ(niceLimitFromLimits("Max cpu time              unlimited            unlimited            seconds   \n"
                                "Max nice priority         0                    0                    \n"),
            0u);
  EXPECT_EQ(niceLimitFromLimits("Max nice priority         unlimited            unlimited            \n"),
            std::numeric_limits<std::uint64_t>::max());
  EXPECT_EQ(effectiveCapabilities("CapPrm:\t000001fffeffffff\nCapEff:\t000001fffeffffff\n"), 0x1fffeffffffULL);
  EXPECT_TRUE(isInitialUserNamespace("         0          0 4294967295\n"));
  EXPECT_FALSE(isInitialUserNamespace("         0     100000      65536\n"));
}

TEST(LinuxProcText, NiceIsLoweredOnlyWhereItCanBePutBack) {
  const std::tuple<int, std::uint64_t, bool, bool> rows[] = {
      {5, 15, false, true},   {5, 14, false, false}, {-5, 20, false, false},
      {-5, 25, false, true},  {0, 0, true, true},    {0, ~0ULL, false, true}};
  for (const auto& [nice, limit, cap, restorable] : rows) {
    EXPECT_EQ(canRestoreNice(nice, limit, cap), restorable) << nice << " " << limit << " " << cap;
  }
}

// ---------------------------------------------------------------- the real /proc

// A child running `argv`, killed and reaped at the end.
struct Child {
  explicit Child(const std::vector<std::string>& argv) : pid(spawn(argv, -1, -1)) {}
  ~Child() {
    if (pid <= 0) return;  // never kill(-1): that signals every process
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  const pid_t pid;
};

char stateOf(pid_t pid) {
  auto s = parseProcStat(readFile("/proc/" + std::to_string(pid) + "/stat"));
  return s ? s->state : '?';
}

std::vector<pid_t> threadsOf(pid_t pid) {
  std::vector<pid_t> out;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task", ec)) {
    out.push_back(std::stoi(e.path().filename().string()));
  }
  return out;
}

// Given the real /proc of this machine, a real clock and a loop.
class LinuxProcessesTest : public ::testing::Test {
 protected:
  LinuxProcessesTest() { restart(); }
  // A new platform, as a new run of the app would make.
  void restart() { platform_ = makeLinuxPlatform(clock_, loop_, LinuxPlatformOptions{"", kNoBus, folder_.path()}); }
  Processes& processes() { return platform_->processes(); }

  TempDir folder_;
  SystemClock clock_;
  ManualClock loopClock_;
  ManualRunLoop loop_{loopClock_};
  std::unique_ptr<Platform> platform_;
};

TEST_F(LinuxProcessesTest, AChildIsFoundCountedStoppedResumedAndGone) {
  const double before = clock_.now();
  Child child({"/bin/sleep", "30"});
  // Until exec the child still shows this program.
  ASSERT_TRUE(waitFor(
      [&] {
        auto p = processes().info(child.pid);
        return p && !p->args.empty() && p->args[0] == "/bin/sleep" && stateOf(child.pid) == 'S';
      },
      5s));
  const double after = clock_.now();
  auto info = processes().info(child.pid);
  EXPECT_EQ(std::tuple(info->ppid, info->path, info->args, info->cwd, info->stopped),
            std::tuple(::getpid(), std::filesystem::canonical("/bin/sleep").string(),
                       std::vector<std::string>{"/bin/sleep", "30"}, std::filesystem::current_path().string(), false));
  // Boot time is whole seconds and start ticks hundredths: within a
  // couple of seconds of the measured fork.
  const double start = static_cast<double>(info->startMicros) / 1e6;
  EXPECT_GE(start, before - 2.0);
  EXPECT_LE(start, after + 2.0);
  EXPECT_FALSE(processes().info(std::numeric_limits<std::int32_t>::max()).has_value());

  // This process's counter lies between two readings of its own CPU clock;
  // the start time names one process for as long as it lives.
  auto cpuNow = [] {
    timespec ts{};
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(ts.tv_nsec) / 1000;
  };
  const std::uint64_t cpuBefore = cpuNow();
  auto counted = processes().listing(ProcessDetail::Counters);
  const std::uint64_t cpuAfter = cpuNow();
  auto mine = std::find_if(counted.begin(), counted.end(), [](const ProcessInfo& p) { return p.pid == ::getpid(); });
  ASSERT_NE(mine, counted.end());
  EXPECT_GE(mine->cpuMicros, cpuBefore);
  EXPECT_LE(mine->cpuMicros, cpuAfter);
  auto listed = std::find_if(counted.begin(), counted.end(), [&](const ProcessInfo& p) { return p.pid == child.pid; });
  ASSERT_NE(listed, counted.end());
  EXPECT_EQ(listed->startMicros, info->startMicros);
  EXPECT_TRUE(processes().counters(child.pid, info->startMicros).has_value());
  EXPECT_FALSE(processes().counters(child.pid, info->startMicros + 1).has_value());

  ASSERT_TRUE(processes().stop(child.pid));
  ASSERT_TRUE(waitFor([&] { return stateOf(child.pid) == 'T'; }, 5s));
  EXPECT_TRUE(processes().info(child.pid)->stopped);
  ASSERT_TRUE(processes().resume(child.pid));
  ASSERT_TRUE(waitFor([&] { return stateOf(child.pid) != 'T'; }, 5s));
  EXPECT_FALSE(processes().info(child.pid)->stopped);
  // Ended but not yet reaped: gone all the same (a hold on it ends).
  ::kill(child.pid, SIGKILL);
  ASSERT_TRUE(waitFor([&] { return stateOf(child.pid) == 'Z'; }, 5s));
  EXPECT_FALSE(processes().info(child.pid));

  // What must never be signalled, and what is gone.
  for (std::int32_t pid : {1, -1, static_cast<std::int32_t>(::getpid())}) {
    EXPECT_NE(processes().stop(pid).message().find("Vigilo won't pause"), std::string::npos) << pid;
  }
  EXPECT_EQ(processes().resume(std::numeric_limits<std::int32_t>::max()).message(),
            "Process 2147483647 isn't running.");
}

// Given a Python child with two threads at I/O best-effort 3 and nice 5;
// SIGUSR1 makes it start one more.
TEST_F(LinuxProcessesTest, SlowThenUnslowPutsEveryThreadBackExactly) {
  if (::access("/usr/bin/python3", X_OK) != 0) GTEST_SKIP() << "/usr/bin/python3 is not installed";
  const std::string script =
      "import os, signal, threading, time\n"
      "os.setpriority(os.PRIO_PROCESS, 0, 5)\n"
      "def spawn(*_): threading.Thread(target=time.sleep, args=(60,), daemon=True).start()\n"
      "signal.signal(signal.SIGUSR1, spawn)\n"
      "spawn()\n"
      "while True: time.sleep(0.05)\n";
  Child child({"/usr/bin/ionice", "-c2", "-n3", "/usr/bin/python3", "-c", script});
  ASSERT_TRUE(waitFor([&] { return threadsOf(child.pid).size() == 2; }, 10s));
  // Each thread's I/O priority, scheduling policy and nice value.
  auto threads = [&] {
    std::vector<std::tuple<int, int, int>> out;
    for (pid_t tid : threadsOf(child.pid)) {
      out.emplace_back(::syscall(SYS_ioprio_get, 1, tid), ::sched_getscheduler(tid),
                       ::getpriority(PRIO_PROCESS, static_cast<id_t>(tid)));
    }
    return out;
  };
  auto untouched = [](std::size_t n) { return std::vector(n, std::tuple((2 << 13) | 3, SCHED_OTHER, 5)); };
  ASSERT_EQ(threads(), untouched(2));

  ASSERT_TRUE(processes().slow(child.pid));
  for (const auto& [io, policy, nice] : threads()) {
    EXPECT_EQ(io >> 13, 3) << "not in the idle I/O class";
    EXPECT_TRUE((policy & ~SCHED_RESET_ON_FORK) == SCHED_IDLE || policy == SCHED_OTHER);
    EXPECT_EQ(nice, 5);
  }
  // Slowing twice keeps the first record: the put-back is still exact.
  ASSERT_TRUE(processes().slow(child.pid));
  // A thread started while slowed inherits the slowed values.
  ::kill(child.pid, SIGUSR1);
  ASSERT_TRUE(waitFor([&] { return threadsOf(child.pid).size() == 3; }, 10s));
  ASSERT_TRUE(processes().unslow(child.pid));
  EXPECT_EQ(threads(), untouched(3));
  EXPECT_FALSE(std::filesystem::exists(folder_.file("slowed-priorities")));

  // A run that dies while slowed: the next one puts back the recorded values.
  ASSERT_TRUE(processes().slow(child.pid));
  ASSERT_TRUE(std::filesystem::exists(folder_.file("slowed-priorities")));
  restart();
  ASSERT_TRUE(processes().unslow(child.pid));
  EXPECT_EQ(threads(), untouched(3));
  EXPECT_FALSE(std::filesystem::exists(folder_.file("slowed-priorities")));

  // Nowhere to record the old values: nothing changes.
  std::filesystem::remove_all(folder_.path());
  EXPECT_FALSE(processes().slow(child.pid));
  EXPECT_EQ(threads(), untouched(3));
}

// ---------------------------------------------------------------- a fixture /proc

// Given a fixture /proc with an agent (100) and its shell (200): a new process
// under an old pid, an exec and a reparenting all show as they are.
TEST_F(LinuxTreeTest, ListingsAndEnergyNeverMistakeANewProcessUnderAnOldPidForTheOldOne) {
  put("/proc/stat", "cpu  1000 0 0 5000 0 0 0 0 0 0\nbtime 1795243647\n");
  auto process = [&](int pid, int ppid, const std::string& comm, int start, int cpu, int stack,
                     const std::string& cmdline) {
    put("/proc/" + std::to_string(pid) + "/stat", std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) +
                                                      " 1 1 0 -1 0 0 0 0 0 " + std::to_string(cpu) +
                                                      " 0 0 0 20 0 1 0 " + std::to_string(start) + " 0 0 0 4096 8192 " +
                                                      std::to_string(stack) + "\n");
    put("/proc/" + std::to_string(pid) + "/cmdline", cmdline);
  };
  // The kernel's task count and last pid: what tells that nothing started.
  put("/proc/loadavg", "0.00 0.00 0.00 1/2 200\n");
  process(2, 0, "kthreadd", 1, 50, 0, "");
  process(100, 1, "claude", 400, 10, 111, "claude\0"s);
  process(200, 100, "node", 500, 5, 222, "node\0/x/server.js\0"s);
  auto p = platform();
  Processes& procs = p->processes();
  const long hz = ::sysconf(_SC_CLK_TCK);
  auto start = [&](int ticks) {
    return 1795243647ULL * 1'000'000 + static_cast<std::uint64_t>(ticks) * 1'000'000 / hz;
  };
  auto find = [](const std::vector<ProcessInfo>& list, std::int32_t pid) {
    auto it = std::find_if(list.begin(), list.end(), [pid](const ProcessInfo& i) { return i.pid == pid; });
    return it == list.end() ? ProcessInfo{} : *it;
  };

  EXPECT_FALSE(procs.identitiesUnchanged());  // nothing listed yet
  auto first = procs.listing(ProcessDetail::Identity);
  ASSERT_EQ(first.size(), 3u);
  EXPECT_EQ(std::tuple(first[1].pid, first[1].ppid, first[1].path, first[1].startMicros),
            std::tuple(100, 1, "claude"s, start(400)));
  EXPECT_EQ(first[2].args, (std::vector<std::string>{"node", "/x/server.js"}));
  EXPECT_EQ(first[2].cpuMicros, 0u);  // identities only
  EXPECT_TRUE(procs.identitiesUnchanged());

  // The agent ends and a new process takes its pid; the shell is
  // reparented to init.
  std::filesystem::rename(dir_.path() + "/proc/100", dir_.path() + "/proc/gone");
  process(100, 1, "sleep", 900, 0, 333, "sleep\0" "60\0"s);
  put("/proc/loadavg", "0.00 0.00 0.00 1/2 100\n");
  process(200, 1, "node", 500, 5, 222, "node\0/x/server.js\0"s);
  EXPECT_FALSE(procs.identitiesUnchanged());
  auto second = procs.listing(ProcessDetail::Identity);
  EXPECT_EQ(std::tuple(find(second, 100).path, find(second, 100).startMicros), std::tuple("sleep"s, start(900)));
  EXPECT_EQ(find(second, 200).ppid, 1);
  EXPECT_FALSE(procs.counters(100, start(400)).has_value());
  EXPECT_EQ(procs.counters(100, start(900))->cpuMicros, 0u);

  // An exec in place changes no task count: the stamp can't tell, but a
  // process read again meanwhile can.
  process(200, 1, "node", 500, 7, 444, "node\0/x/claude-code/cli.js\0"s);
  EXPECT_TRUE(procs.identitiesUnchanged());
  ASSERT_TRUE(procs.info(200).has_value());
  EXPECT_FALSE(procs.identitiesUnchanged());
  auto third = procs.listing(ProcessDetail::Counters);
  EXPECT_TRUE(procs.identitiesUnchanged());
  EXPECT_EQ(find(third, 200).args, (std::vector<std::string>{"node", "/x/claude-code/cli.js"}));
  EXPECT_EQ(find(third, 200).cpuMicros, 7ULL * 1'000'000 / static_cast<std::uint64_t>(hz));
  EXPECT_EQ(std::tuple(find(third, 2).pid, find(third, 2).cpuMicros), std::tuple(2, 0u));  // a kernel thread
  EXPECT_EQ(procs.counters(200, start(500))->cpuMicros, find(third, 200).cpuMicros);

  // Its share of the battery's draw: 10 s at 10 W for a quarter of the busy
  // CPU time; nothing on the charger; a new process under the pid starts at 0.
  supply("BAT0",
         "type=Battery,status=Discharging,charge_now=3000000,charge_full=5000000,current_now=1000000,"
         "voltage_now=10000000");
  supply("AC", "type=Mains,online=0");
  auto info = procs.info(200);
  EXPECT_EQ(std::tuple(info->path, info->startMicros, info->energyNanojoules), std::tuple("node"s, start(500), 0u));
  const std::vector<std::tuple<bool, int, int, int, std::uint64_t>> steps{
      {false, 1200, 57, 500, 25'000'000'000u}, {true, 1400, 107, 500, 25'000'000'000u}, {true, 1600, 10, 900, 0}};
  for (const auto& [charging, busy, cpu, since, nanojoules] : steps) {
    if (charging) {
      supply("AC", "online=1");
      supply("BAT0", "status=Charging");
    }
    clock_.advance(10);
    put("/proc/stat", "cpu  " + std::to_string(busy) + " 0 0 5000 0 0 0 0 0 0\nbtime 1795243647\n");
    process(200, 1, "node", since, cpu, 444, "node\0/x/claude-code/cli.js\0"s);
    EXPECT_EQ(procs.info(200)->energyNanojoules, nanojoules) << busy;
  }
}

// A link planted where the runtime folder goes is refused, never followed;
// the folder is made private, and made private again when loosened.
TEST_F(LinuxTreeTest, TheRuntimeFolderStaysPrivate) {
  const std::string run = dir_.file("run");
  std::filesystem::create_directories(run);
  EnvVar runtime("XDG_RUNTIME_DIR", run);
  std::string problem;
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(runtimeFolder(&problem), run + "/vigilo") << problem;
    struct stat st {};
    ASSERT_EQ(::stat((run + "/vigilo").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u) << round;
    ::chmod((run + "/vigilo").c_str(), 0755);
  }
  std::filesystem::remove_all(run + "/vigilo");
  std::filesystem::create_directory_symlink(dir_.path(), run + "/vigilo");
  EXPECT_EQ(runtimeFolder(&problem), "");
  EXPECT_EQ(problem, run + "/vigilo isn't a folder, so Vigilo won't use it.");
  if (::geteuid() == 0) {
    std::filesystem::remove(run + "/vigilo");
    std::filesystem::create_directories(run + "/vigilo");
    ASSERT_EQ(::chown((run + "/vigilo").c_str(), 65534, 65534), 0);
    EXPECT_EQ(runtimeFolder(&problem), "");
    EXPECT_EQ(problem, run + "/vigilo belongs to another user, so Vigilo won't use it.");
  }
}

}  // namespace
}  // namespace vigilo::test
