// Wall time of one `vigilo event <agent>` run, as an agent's hook pays it on
// every prompt, beside the cheapest process there is (/bin/true), for each
// agent with hooks. Both are started the same way, with the same hook input
// on standard input.
//
//   vigilo_bench_event_latency [runs]

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <spawn.h>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace {

constexpr const char* kSession = "0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b";

// Each agent's prompt hook, as it sends it.
struct Agent {
  const char* name;
  const char* input;
};
constexpr Agent kAgents[] = {
    {"claude-code",
     R"({"session_id":"0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b","transcript_path":"/home/ana/.claude/projects/)"
     R"(-home-ana-shop/0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b.jsonl","cwd":"/home/ana/shop",)"
     R"("hook_event_name":"UserPromptSubmit","permission_mode":"default","prompt":"make the tests pass"})"},
    {"codex",
     R"({"session_id":"0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b","turn_id":"1","transcript_path":null,)"
     R"("cwd":"/home/ana/shop","hook_event_name":"UserPromptSubmit","model":"gpt-5-codex",)"
     R"("permission_mode":"default","prompt":"make the tests pass"})"},
    {"gemini",
     R"({"session_id":"0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b","transcript_path":"/home/ana/.gemini/tmp/4f1c/)"
     R"(chats/session.json","cwd":"/home/ana/shop","hook_event_name":"BeforeAgent",)"
     R"("timestamp":"2026-11-26T00:10:00.000Z","prompt":"make the tests pass"})"},
};

struct Timing {
  double wallMs = -1;  // from starting the process to its end; negative when it failed
  double cpuMs = 0;    // user and system time it used (unaffected by other load)
};

Timing runOnce(const std::vector<std::string>& argv, char** env, const char* kInput) {
  int fds[2];
  if (::pipe(fds) != 0) return {};
  // The input fits the pipe, so it is all there before the process starts,
  // as Claude Code's would be by the time the hook reads.
  const std::size_t len = std::strlen(kInput);
  if (::write(fds[1], kInput, len) != static_cast<ssize_t>(len)) return {};
  ::close(fds[1]);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);

  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int spawned = ::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), env);
  int status = 0;
  rusage usage{};
  if (spawned == 0) ::wait4(pid, &status, 0, &usage);
  const auto end = std::chrono::steady_clock::now();
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[0]);
  if (spawned != 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) return {};
  auto ms = [](const timeval& t) { return t.tv_sec * 1e3 + t.tv_usec / 1e3; };
  return {std::chrono::duration<double, std::milli>(end - start).count(), ms(usage.ru_utime) + ms(usage.ru_stime)};
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  const std::size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;

  char tmpl[] = "/tmp/vigilo-bench-XXXXXX";
  if (::mkdtemp(tmpl) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string home = tmpl;
  std::vector<std::string> envText{"VIGILO_HOME=" + home};
  for (char** e = environ; *e != nullptr; ++e) {
    if (std::strncmp(*e, "VIGILO_HOME=", 12) != 0) envText.emplace_back(*e);
  }
  std::vector<char*> env;
  for (auto& e : envText) env.push_back(e.data());
  env.push_back(nullptr);

  const std::vector<std::string> baseline{"/bin/true"};
  std::printf("runs: %d each\n", runs);
  for (const Agent& agent : kAgents) {
    const std::vector<std::string> hook{VIGILO_BINARY, "event", agent.name};
    // A few unmeasured runs bring both into the page cache.
    for (int i = 0; i < 5; ++i) {
      runOnce(hook, env.data(), agent.input);
      runOnce(baseline, env.data(), agent.input);
    }
    // Interleaved, so that a burst of load elsewhere hits both alike.
    std::vector<double> hookTimes, baseTimes, hookCpu, baseCpu;
    for (int i = 0; i < runs; ++i) {
      const Timing h = runOnce(hook, env.data(), agent.input);
      const Timing b = runOnce(baseline, env.data(), agent.input);
      if (h.wallMs < 0 || b.wallMs < 0) {
        std::fprintf(stderr, "a run failed\n");
        return 1;
      }
      hookTimes.push_back(h.wallMs);
      baseTimes.push_back(b.wallMs);
      hookCpu.push_back(h.cpuMs);
      baseCpu.push_back(b.cpuMs);
    }
    const std::string written = home + "/agent-events/" + kSession + ".json";
    if (!std::filesystem::exists(written)) {
      std::fprintf(stderr, "the %s hook wrote no event file\n", agent.name);
      return 1;
    }
    std::filesystem::remove(written);

    const double h = median(hookTimes);
    const double b = median(baseTimes);
    std::printf("vigilo event %s: %.3f ms median (fastest %.3f ms)\n", agent.name, h,
                *std::min_element(hookTimes.begin(), hookTimes.end()));
    std::printf("  /bin/true: %.3f ms median (fastest %.3f ms)\n", b,
                *std::min_element(baseTimes.begin(), baseTimes.end()));
    std::printf("  ratio: %.2fx (target: within 2x)\n", h / b);
    // Wall time swells with whatever else the machine runs; CPU time doesn't.
    std::printf("  CPU time: %.3f ms median beside %.3f ms, ratio %.2fx\n", median(hookCpu), median(baseCpu),
                median(hookCpu) / median(baseCpu));
  }
  std::error_code ec;
  std::filesystem::remove_all(home, ec);
  return 0;
}
