#include "agents/agent_events.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <ostream>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "e2e/app_process.h"
#include "platform/clock.h"
#include "platform/manual_run_loop.h"
#include "platform/run_loop.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo {
void PrintTo(const FoldedAgentState& s, std::ostream* os) { *os << toText(s.state) << " since " << std::fixed << s.since; }
}  // namespace vigilo

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;
using S = AgentState;

class RecordingNotifications final : public Notifications {
 public:
  Result observe(const std::string&, std::function<void(std::string)>) override { return Result::ok(); }
  void stopObserving() override {}
  Result post(const std::string& name, const std::string&) override {
    posts.push_back(name);
    return Result::ok();
  }
  std::vector<std::string> posts;
};

// A hook input as Claude Code sends it, with a field no version has sent yet.
std::string hook(const std::string& name, json fields = json::object(), const std::string& session = "abc123") {
  json j = {{"session_id", session}, {"cwd", "/home/ana/shop"}, {"hook_event_name", name},
            {"some_future_field", {{"nested", true}}}};
  j.update(fields);
  return j.dump();
}

std::string notification(const std::string& type, const std::string& message) {
  json f = {{"message", message}};
  if (!type.empty()) f["notification_type"] = type;
  return hook("Notification", f);
}

std::vector<std::string> listFolder(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(folder, ec)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

// An app folder, a simulated process table and a fixed clock.
class AgentEventsTest : public ::testing::Test {
 protected:
  void record(const std::string& input, std::int32_t parent = 0, const std::string& agent = "claude-code") {
    AgentEvents::record(dir_.path(), agent, input, clock_.now(), &platform_->processes(), parent, &notes_);
  }
  std::optional<AgentEvent> stored(const std::string& session = "abc123") {
    const std::string path = dir_.file("agent-events/" + session + ".json");
    return fileExists(path) ? AgentEvents::decode(readFile(path)) : std::nullopt;
  }
  std::vector<std::string> files() { return listFolder(dir_.file("agent-events")); }
  void reset() {
    std::filesystem::remove_all(dir_.file("agent-events"));
    notes_.posts.clear();
  }
  SimLaptop& laptop() { return platform_->laptop(); }
  // shell → agent → sh: the hook's parent is the sh.
  std::int32_t hookShellUnder(const std::string& agentPath, std::vector<std::string> args = {}) {
    agentPid_ = laptop().startProcess(agentPath, std::move(args), laptop().startProcess("/bin/zsh", {"-zsh"}, 1));
    return laptop().startProcess("/bin/sh", {"/bin/sh", "-c", "vigilo event claude-code"}, agentPid_);
  }
  std::uint64_t startOf(std::int32_t pid) { return laptop().process(pid)->startMicros; }

  TempDir dir_;
  ManualClock clock_;
  ManualRunLoop loop_{clock_};
  std::unique_ptr<SimPlatform> platform_ = makeSimPlatform(clock_, loop_, SimPlatformOptions{});
  RecordingNotifications notes_;
  std::int32_t agentPid_ = 0;
};

TEST_F(AgentEventsTest, MapsEveryHookEvent) {
  struct Row {
    const char* what;
    std::string input;
    std::optional<S> state;  // nothing: no file, no post
    double atFromNow = 0;
    std::optional<std::string> detail = std::nullopt;
  };
  const Row rows[] = {
      {"prompt", hook("UserPromptSubmit", {{"prompt", "fix the tests"}}), S::Working},
      {"stop", hook("Stop", {{"stop_hook_active", false}}), S::Finished},
      {"start", hook("SessionStart", {{"source", "startup"}}), S::Idle},
      {"start without source", hook("SessionStart"), S::Idle},
      {"permission", notification("permission_prompt", "Claude needs your permission to use Bash"), S::Waiting, 0,
       "claude needs your permission to use bash"},
      {"elicitation without message", notification("elicitation_dialog", ""), S::Waiting, 0, "elicitation_dialog"},
      {"needs input", notification("agent_needs_input", "Agent needs input"), S::Waiting, 0, "agent needs input"},
      {"type in matcher", hook("Notification", {{"matcher", "permission_prompt"}, {"message", ""}}), S::Waiting, 0,
       "permission_prompt"},
      {"untyped permission", notification("", "Claude needs your permission"), S::Waiting, 0,
       "claude needs your permission"},
      {"untyped approval", notification("", "Please APPROVE this edit"), S::Waiting, 0, "please approve this edit"},
      {"type not text", hook("Notification", {{"notification_type", 7}, {"message", "Needs permission"}}), S::Waiting,
       0, "needs permission"},
      {"idle", notification("idle_prompt", "Claude is waiting for your input"), S::Finished, -60},
      {"untyped idle", notification("", "Claude is waiting for your input"), S::Finished, -60},
      {"auth", notification("auth_success", "Signed in"), std::nullopt},
      {"url elicitation", notification("elicitation_url_dialog", "Open the link"), std::nullopt},
      {"known type, asking text", notification("hologram_ready", "Claude needs your permission"), std::nullopt},
      {"untyped other", notification("", "Hello there"), std::nullopt},
      {"tool use", hook("PreToolUse", {{"tool_name", "Bash"}}), std::nullopt},
      {"no hook name", json{{"session_id", "abc123"}}.dump(), std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    reset();
    record(row.input);
    auto e = stored();
    if (!row.state) {
      EXPECT_TRUE(files().empty());
      EXPECT_TRUE(notes_.posts.empty());
      continue;
    }
    ASSERT_TRUE(e.has_value());
    EXPECT_EQ(e->agent, "claude-code");
    EXPECT_EQ(e->session, "abc123");
    EXPECT_EQ(e->state, *row.state);
    EXPECT_DOUBLE_EQ(e->at, clock_.now() + row.atFromNow);
    EXPECT_EQ(e->detail, row.detail);
    EXPECT_EQ(notes_.posts, std::vector<std::string>{"com.tarnwell.Vigilo.agentEvent"});
  }
}

TEST_F(AgentEventsTest, IdleAfterStopCompactionAndEnd) {
  // An idle report 90 s after a Stop keeps the Stop's time.
  const Time stopped = clock_.now();
  record(hook("Stop"));
  clock_.advance(90);
  record(notification("idle_prompt", "Claude is waiting for your input"));
  EXPECT_EQ(stored()->state, S::Finished);
  EXPECT_DOUBLE_EQ(stored()->at, stopped);

  // After a prompt it dates the finish a minute back.
  record(hook("UserPromptSubmit"));
  clock_.advance(300);
  record(notification("idle_prompt", ""));
  EXPECT_DOUBLE_EQ(stored()->at, clock_.now() - 60);

  // Compaction leaves the file untouched and tells no one; the end removes it.
  const std::string before = readFile(dir_.file("agent-events/abc123.json"));
  clock_.advance(30);
  notes_.posts.clear();
  record(hook("SessionStart", {{"source", "compact"}}));
  EXPECT_EQ(readFile(dir_.file("agent-events/abc123.json")), before);
  EXPECT_TRUE(notes_.posts.empty());
  record(hook("SessionEnd", {{"reason", "prompt_input_exit"}}));
  EXPECT_TRUE(files().empty());
  EXPECT_EQ(notes_.posts.size(), 1u);
}

TEST_F(AgentEventsTest, SessionIdsBecomeSafeFileNames) {
  const std::pair<json, std::optional<std::string>> rows[] = {
      {"../x", "x.json"},
      {"a/b\\c d.e_F-9\n", "abcde_F-9.json"},
      {"sessión", "sessin.json"},
      {std::string(100, 'z'), std::string(64, 'z') + ".json"},
      {"../", std::nullopt},
      {"", std::nullopt},
      {nullptr, "unknown.json"},  // null: no session_id at all
      {42, "unknown.json"},
  };
  for (const auto& [id, file] : rows) {
    SCOPED_TRACE(id.dump());
    reset();
    json input = {{"hook_event_name", "UserPromptSubmit"}};
    if (!id.is_null()) input["session_id"] = id;
    record(input.dump());
    EXPECT_EQ(files(), file ? std::vector<std::string>{*file} : std::vector<std::string>{});
    EXPECT_FALSE(fileExists(dir_.path() + "/x.json"));
  }
}

TEST_F(AgentEventsTest, WalksUpToTheAgentProcess) {
  struct Row {
    const char* what;
    std::string path;
    std::vector<std::string> args;
    int shellsBetween;  // more shells between the agent's sh and the hook
    std::string agent;
    bool found;
  };
  const Row rows[] = {
      {"six levels up", "/usr/local/bin/claude", {}, 4, "claude-code", true},
      {"seven levels up", "/usr/local/bin/claude", {}, 5, "claude-code", false},
      {"another agent", "/usr/local/bin/codex", {}, 0, "claude-code", false},
      {"that agent's own hook", "/usr/local/bin/codex", {}, 0, "codex", true},
      {"plain node", "/usr/bin/node", {"node", "server.js"}, 0, "claude-code", false},
      {"under node, two levels up", "/usr/bin/node", {"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"},
       0, "claude-code", true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    reset();
    std::int32_t parent = hookShellUnder(row.path, row.args);
    for (int i = 0; i < row.shellsBetween; ++i) parent = laptop().startProcess("/bin/bash", {"bash"}, parent);
    record(hook("UserPromptSubmit"), parent, row.agent);
    ASSERT_TRUE(stored().has_value());
    EXPECT_EQ(stored()->pid, row.found ? std::optional<std::int32_t>(agentPid_) : std::nullopt);
    EXPECT_EQ(stored()->pidStart, row.found ? std::optional<std::uint64_t>(startOf(agentPid_)) : std::nullopt);
  }

  // A later hook whose chain is hidden midway keeps the agent found before.
  const std::int32_t hidden = laptop().startProcess("", {}, agentPid_);
  clock_.advance(5);
  record(hook("Stop"), laptop().startProcess("/bin/sh", {"sh"}, hidden));
  EXPECT_EQ(stored()->state, S::Finished);
  EXPECT_EQ(stored()->pid, agentPid_);
  EXPECT_EQ(stored()->pidStart, startOf(agentPid_));
}

TEST_F(AgentEventsTest, LoadDropsStaleAndDamagedFiles) {
  record(hook("Stop", {}, "old"));
  clock_.advance(2);
  record(hook("Stop", {}, "edge"));
  clock_.advance(172'800 - 1);
  record(notification("permission_prompt", "Allow?"), hookShellUnder("/usr/local/bin/claude"));
  const std::string folder = dir_.file("agent-events/");
  writeFile(folder + "damaged.json", R"({"agent":"claude-code","session":"dam)");
  writeFile(folder + "wrong-state.json", R"({"agent":"a","session":"s","state":"sleeping","at":1})");
  writeFile(folder + "wrong-pid.json", R"({"agent":"a","session":"s","state":"idle","at":1e12,"pid":"12"})");
  writeFile(folder + "huge-pid.json", R"({"agent":"a","session":"s","state":"idle","at":1e12,"pid":4294967296})");
  writeFile(folder + "notes.txt", "not an event");

  auto events = AgentEvents::load(dir_.path(), clock_.now());
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].session, "abc123");
  EXPECT_EQ(events[0].pid, agentPid_);
  EXPECT_EQ(events[0].detail, "allow?");
  EXPECT_EQ(events[1].session, "edge");
  EXPECT_EQ(files(), (std::vector<std::string>{"abc123.json", "edge.json", "notes.txt"}));

  // Exactly the event's keys, in order; absent ones left out.
  auto keys = [&](const std::string& session) {
    std::vector<std::string> out;
    for (const auto& item : nlohmann::ordered_json::parse(readFile(folder + session + ".json")).items()) {
      out.push_back(item.key());
    }
    return out;
  };
  EXPECT_EQ(keys("abc123"), (std::vector<std::string>{"agent", "session", "state", "at", "pid", "pidStart", "detail"}));
  EXPECT_EQ(keys("edge"), (std::vector<std::string>{"agent", "session", "state", "at"}));
}

TEST(AgentEventsFold, FoldsASessionsEventsIntoOneState) {
  const Time t = 1'800'000'000;
  auto ev = [](const char* session, S s, Time at) { return AgentEvent{"claude-code", session, s, at}; };
  using F = FoldedAgentState;
  struct Row {
    const char* what;
    std::vector<AgentEvent> events;
    std::optional<Time> lastActive;
    Time now;
    std::optional<F> expected;
  };
  const Row rows[] = {
      {"no event of the session", {ev("other", S::Working, t)}, std::nullopt, t, std::nullopt},
      {"answered six seconds later", {ev("s", S::Waiting, t)}, t + 6, t + 7, F{S::Working, t}},
      {"busy five seconds later", {ev("s", S::Waiting, t)}, t + 5, t + 7, F{S::Waiting, t}},
      {"busy before the question", {ev("s", S::Waiting, t)}, t - 100, t + 3600, F{S::Waiting, t}},
      {"prompt half an hour old", {ev("s", S::Working, t)}, std::nullopt, t + 1801, std::nullopt},
      {"prompt just under", {ev("s", S::Working, t)}, std::nullopt, t + 1800, F{S::Working, t}},
      {"old prompt, busy since", {ev("s", S::Working, t)}, t + 1000, t + 2700, F{S::Working, t}},
      {"old prompt, quiet since", {ev("s", S::Working, t)}, t + 1000, t + 2801, std::nullopt},
      {"stale prompt beside a stop", {ev("s", S::Working, t), ev("s", S::Finished, t - 10)}, std::nullopt, t + 4000,
       F{S::Finished, t - 10}},
      {"working outranks a later stop", {ev("s", S::Finished, t + 10), ev("s", S::Working, t)}, std::nullopt, t + 20,
       F{S::Working, t}},
      {"waiting outranks finished", {ev("s", S::Finished, t + 10), ev("s", S::Waiting, t)}, std::nullopt, t + 20,
       F{S::Waiting, t}},
      {"finished outranks idle", {ev("s", S::Idle, t + 10), ev("s", S::Finished, t)}, std::nullopt, t + 20,
       F{S::Finished, t}},
      {"later of equals", {ev("s", S::Finished, t + 5), ev("s", S::Finished, t), ev("x", S::Finished, t + 9)},
       std::nullopt, t + 20, F{S::Finished, t + 5}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(AgentEvents::state("s", row.events, row.lastActive, row.now), row.expected);
  }
}

TEST(AgentEventsInput, DrainsWhatItRefusesAndGivesUpOnAStalledWriter) {
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const std::string data(4 * AgentEvents::kMaxInput, 'x');
  std::size_t written = 0;
  std::thread writer([&] {
    for (ssize_t n = 0; written < data.size() && (n = ::write(fds[1], &data[written], data.size() - written)) > 0;) {
      written += static_cast<std::size_t>(n);
    }
    ::close(fds[1]);
  });
  EXPECT_FALSE(AgentEvents::readHookInput(fds[0]).has_value());
  writer.join();
  ::close(fds[0]);
  EXPECT_EQ(written, data.size());  // never cut off

  ASSERT_EQ(::pipe(fds), 0);
  ASSERT_EQ(::write(fds[1], "{", 1), 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(AgentEvents::readHookInput(fds[0], 0.2).has_value());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  ::close(fds[0]);
  ::close(fds[1]);
}

// The real `vigilo event <agent>`, fed as Claude Code feeds it.
class EventCommandTest : public ::testing::Test {
 protected:
  EventCommandTest() { std::filesystem::create_directories(home_); }
  void event(const std::string& input, std::vector<std::string> args = {"event", "claude-code"}) {
    const auto start = std::chrono::steady_clock::now();
    ToolRun run = runToolWithInput(args, home_, input);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out + run.err, "");
  }
  std::vector<std::string> files() { return listFolder(home_ + "/agent-events"); }

  TempDir dir_;
  std::string home_ = dir_.file("home");
};

TEST_F(EventCommandTest, BadInputExitsAtOnceWithNothingWritten) {
  const std::string prompt = hook("UserPromptSubmit", {{"prompt", "go"}});
  static const char kElf[] = "\x7f" "ELF\x02\x01\x01\x00\x00\xff\xfe";
  struct Row {
    const char* what;
    std::string input;
    std::vector<std::string> args = {"event", "claude-code"};
    bool written = false;
  };
  const Row rows[] = {
      {"empty", ""},
      {"blank", " \n\t "},
      {"binary", std::string(kElf, sizeof kElf - 1)},
      {"bad UTF-8", "{\"hook_event_name\":\"Stop\",\"session_id\":\"a\xc3\x28\"}"},
      {"cut short", prompt.substr(0, prompt.size() / 2)},
      {"two objects", prompt + prompt},
      {"an array", "[" + prompt + "]"},
      {"huge", std::string(3 * 1024 * 1024, '{')},
      {"huge but valid", hook("UserPromptSubmit", {{"prompt", std::string(AgentEvents::kMaxInput, 'a')}})},
      {"deeply nested", R"({"hook_event_name":"Stop","x":)" + std::string(500000, '[')},
      {"deeply nested, closed", R"({"hook_event_name":"Stop","x":)" + std::string(40, '[') + std::string(40, ']') + "}"},
      {"wrong types", R"({"hook_event_name":1,"session_id":{"a":[true]}})"},
      {"hook name a list", R"({"hook_event_name":["Stop"],"session_id":"abc123"})"},
      {"no agent name", prompt, {"event"}},
      {"over-long agent name", prompt, {"event", std::string(33, 'c')}},
      {"just within the limits", hook("UserPromptSubmit", {{"prompt", std::string(AgentEvents::kMaxInput - 1000, 'a')}}),
       {"event", std::string(32, 'c')}, true},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::filesystem::remove_all(home_ + "/agent-events");
    event(row.input, row.args);
    EXPECT_EQ(files(), row.written ? std::vector<std::string>{"abc123.json"} : std::vector<std::string>{});
  }
}

TEST_F(EventCommandTest, RecordsAndTellsARunningAppAtOnce) {
  SystemClock clock;
  auto loop = makePollRunLoop(clock);
  auto notifications = makeSocketNotifications(home_, loop.get());
  int heard = 0;
  ASSERT_TRUE(notifications->observe("com.tarnwell.Vigilo.agentEvent", [&](std::string) {
    ++heard;
    loop->stop();
  }));
  loop->after(10, [&] { loop->stop(); });
  std::thread hookRun([&] { event(hook("Stop", {}, "s2")); });
  loop->run();
  hookRun.join();
  notifications->stopObserving();
  EXPECT_EQ(heard, 1);
  auto e = AgentEvents::decode(readFile(home_ + "/agent-events/s2.json"));
  ASSERT_TRUE(e.has_value());
  EXPECT_EQ(e->state, S::Finished);
  EXPECT_NEAR(e->at, std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(), 30);
}

}  // namespace
}  // namespace vigilo::test
