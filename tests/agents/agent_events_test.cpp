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

// Readable failures.
void PrintTo(const FoldedAgentState& s, std::ostream* os) { *os << toText(s.state) << " since " << std::fixed << s.since; }
void PrintTo(const AgentEvent& e, std::ostream* os) { *os << AgentEvents::encode(e); }

}  // namespace vigilo

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;
using ordered_json = nlohmann::ordered_json;

// Remembers every post instead of delivering it.
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

// Hook inputs as Claude Code sends them (the fields every hook gets, plus
// one per event), with a field no version has sent yet.
std::string hook(const std::string& name, json fields = json::object(), const std::string& session = "abc123") {
  json j = {{"session_id", session},
            {"transcript_path", "/home/ana/.claude/projects/-home-ana-shop/abc123.jsonl"},
            {"cwd", "/home/ana/shop"},
            {"hook_event_name", name},
            {"permission_mode", "default"},
            {"some_future_field", {{"nested", true}}}};
  if (!fields.is_null()) j.update(fields);
  return j.dump();
}

std::string notification(const std::string& type, const std::string& message) {
  json f = {{"message", message}, {"title", "Claude Code"}};
  if (!type.empty()) f["notification_type"] = type;
  return hook("Notification", f);
}

// Given an app folder, a simulated process table and a fixed clock: one
// hook run at a time, as `vigilo event <agent>` does.
class AgentEventsTest : public ::testing::Test {
 protected:
  void record(const std::string& input, std::int32_t parent = 0, const std::string& agent = "claude-code") {
    AgentEvents::record(dir_.path(), agent, input, clock_.now(), &platform_->processes(), parent, &notes_);
  }
  std::optional<AgentEvent> stored(const std::string& session = "abc123") {
    const std::string path = dir_.file("agent-events/" + session + ".json");
    if (!fileExists(path)) return std::nullopt;
    auto e = AgentEvents::decode(readFile(path));
    EXPECT_TRUE(e.has_value()) << "undecodable: " << readFile(path);
    return e;
  }
  std::vector<std::string> files() {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir_.file("agent-events"), ec)) {
      names.push_back(e.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }
  SimLaptop& laptop() { return platform_->laptop(); }
  // shell → `agent` → sh: the hook's parent is the sh.
  std::int32_t hookShellUnder(const std::string& agentPath, std::vector<std::string> args = {}) {
    const auto shell = laptop().startProcess("/bin/zsh", {"-zsh"}, 1);
    agentPid_ = laptop().startProcess(agentPath, std::move(args), shell);
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
    std::optional<AgentState> state;  // nothing: no file, no post
    double atFromNow = 0;
    std::optional<std::string> detail = std::nullopt;
  };
  const Row rows[] = {
      {"prompt", hook("UserPromptSubmit", {{"prompt", "fix the tests"}}), AgentState::Working},
      {"stop", hook("Stop", {{"stop_hook_active", false}, {"last_assistant_message", "Done."}}), AgentState::Finished},
      {"start", hook("SessionStart", {{"source", "startup"}}), AgentState::Idle},
      {"resume", hook("SessionStart", {{"source", "resume"}}), AgentState::Idle},
      {"clear", hook("SessionStart", {{"source", "clear"}}), AgentState::Idle},
      {"fork", hook("SessionStart", {{"source", "fork"}}), AgentState::Idle},
      {"start without source", hook("SessionStart"), AgentState::Idle},
      {"compaction", hook("SessionStart", {{"source", "compact"}}), std::nullopt},
      {"permission", notification("permission_prompt", "Claude needs your permission to use Bash"),
       AgentState::Waiting, 0, "claude needs your permission to use bash"},
      {"elicitation without message", notification("elicitation_dialog", ""), AgentState::Waiting, 0,
       "elicitation_dialog"},
      {"needs input", notification("agent_needs_input", "Agent needs input"), AgentState::Waiting, 0,
       "agent needs input"},
      {"type in matcher", hook("Notification", {{"matcher", "permission_prompt"}, {"message", ""}}),
       AgentState::Waiting, 0, "permission_prompt"},
      {"untyped permission", notification("", "Claude needs your permission"), AgentState::Waiting, 0,
       "claude needs your permission"},
      {"untyped approval", notification("", "Please APPROVE this edit"), AgentState::Waiting, 0,
       "please approve this edit"},
      {"wrongly typed type", hook("Notification", {{"notification_type", 7}, {"message", "Needs permission"}}),
       AgentState::Waiting, 0, "needs permission"},
      {"idle", notification("idle_prompt", "Claude is waiting for your input"), AgentState::Finished, -60},
      {"untyped idle", notification("", "Claude is waiting for your input"), AgentState::Finished, -60},
      {"auth", notification("auth_success", "Signed in"), std::nullopt},
      {"url elicitation", notification("elicitation_url_dialog", "Open the link"), std::nullopt},
      {"elicitation done", notification("elicitation_complete", ""), std::nullopt},
      {"elicitation answer", notification("elicitation_response", ""), std::nullopt},
      {"agent done", notification("agent_completed", "Subagent finished"), std::nullopt},
      {"future type", notification("hologram_ready", "Claude needs your permission"), std::nullopt},
      {"untyped other", notification("", "Hello there"), std::nullopt},
      {"tool use", hook("PreToolUse", {{"tool_name", "Bash"}}), std::nullopt},
      {"subagent", hook("SubagentStop"), std::nullopt},
      {"no hook name", json{{"session_id", "abc123"}}.dump(), std::nullopt},
      {"hook name not text", json{{"session_id", "abc123"}, {"hook_event_name", 3}}.dump(), std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::filesystem::remove_all(dir_.file("agent-events"));
    notes_.posts.clear();
    record(row.input);
    auto e = stored();
    if (!row.state) {
      EXPECT_FALSE(e.has_value());
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

TEST_F(AgentEventsTest, IdlePromptKeepsTheTimeOfAnEarlierStop) {
  // Given a Stop, then Claude Code's idle report 90 s later.
  const Time stopped = clock_.now();
  record(hook("Stop"));
  clock_.advance(90);
  record(notification("idle_prompt", "Claude is waiting for your input"));
  EXPECT_EQ(stored()->state, AgentState::Finished);
  EXPECT_DOUBLE_EQ(stored()->at, stopped);

  // After a prompt, the idle report dates the finish a minute back.
  record(hook("UserPromptSubmit"));
  clock_.advance(300);
  record(notification("idle_prompt", ""));
  EXPECT_DOUBLE_EQ(stored()->at, clock_.now() - 60);
}

TEST_F(AgentEventsTest, CompactionAndSessionEnd) {
  // Given a working session.
  record(hook("UserPromptSubmit"));
  const std::string before = readFile(dir_.file("agent-events/abc123.json"));
  clock_.advance(30);
  notes_.posts.clear();

  record(hook("SessionStart", {{"source", "compact"}}));
  EXPECT_EQ(readFile(dir_.file("agent-events/abc123.json")), before);
  EXPECT_TRUE(notes_.posts.empty());

  record(hook("SessionEnd", {{"reason", "prompt_input_exit"}}));
  EXPECT_TRUE(files().empty());
  EXPECT_EQ(notes_.posts.size(), 1u);

  // Ending a session with no file is no error and still tells the app.
  record(hook("SessionEnd", {{"reason", "logout"}}, "never-seen"));
  EXPECT_TRUE(files().empty());
  EXPECT_EQ(notes_.posts.size(), 2u);
}

TEST_F(AgentEventsTest, SessionIdsBecomeSafeFileNames) {
  struct Row {
    json id;  // null: no session_id at all
    std::optional<std::string> file;
  };
  const Row rows[] = {
      {"../x", "x.json"},
      {"0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b", "0b6f9a3e-1c2d-4e5f-8a9b-0c1d2e3f4a5b.json"},
      {"a/b\\c d.e_F-9\n", "abcde_F-9.json"},
      {"sessión", "sessin.json"},
      {std::string(100, 'z'), std::string(64, 'z') + ".json"},
      {"../", std::nullopt},
      {"", std::nullopt},
      {nullptr, "unknown.json"},
      {42, "unknown.json"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.id.dump());
    std::filesystem::remove_all(dir_.file("agent-events"));
    json input = {{"hook_event_name", "UserPromptSubmit"}, {"prompt", "go"}};
    if (!row.id.is_null()) input["session_id"] = row.id;
    record(input.dump());
    if (row.file) {
      EXPECT_EQ(files(), std::vector<std::string>{*row.file});
    } else {
      EXPECT_TRUE(files().empty());
    }
    EXPECT_FALSE(fileExists(dir_.path() + "/x.json"));
  }
}

TEST_F(AgentEventsTest, BadInputWritesNothing) {
  const std::string prompt = hook("UserPromptSubmit", {{"prompt", "go"}});
  static const char kBinary[] = "\x00\xff\xfe{\"session_id\x01\x80\x1b[2J";
  std::string tooLong = hook("UserPromptSubmit", {{"prompt", std::string(AgentEvents::kMaxInput, 'a')}});
  std::string deep = R"({"hook_event_name":"Stop","session_id":"abc123","x":)" + std::string(100000, '[');
  std::string deepClosed = R"({"hook_event_name":"Stop","session_id":"abc123","x":)" + std::string(40, '[') +
                           std::string(40, ']') + "}";
  struct Row {
    const char* what;
    std::string input;
    std::string agent = "claude-code";
  };
  const Row rows[] = {
      {"empty", ""},
      {"blank", " \n\t "},
      {"binary", std::string(kBinary, sizeof kBinary - 1)},
      {"bad UTF-8 in a string", "{\"hook_event_name\":\"Stop\",\"session_id\":\"a\xc3\x28\"}"},
      {"cut short", prompt.substr(0, prompt.size() / 2)},
      {"trailing garbage", prompt + "}"},
      {"two objects", prompt + prompt},
      {"over a MiB", tooLong},
      {"deeply nested, unclosed", deep},
      {"deeply nested, closed", deepClosed},
      {"an array", "[" + prompt + "]"},
      {"a string", "\"UserPromptSubmit\""},
      {"null", "null"},
      {"hook name is an object", R"({"hook_event_name":{"x":1},"session_id":"abc123"})"},
      {"hook name is a list", R"({"hook_event_name":["Stop"],"session_id":"abc123"})"},
      {"agent name of 33", prompt, std::string(33, 'a')},
      {"no agent name", prompt, ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    notes_.posts.clear();
    record(row.input, 0, row.agent);
    EXPECT_TRUE(files().empty());
    EXPECT_TRUE(notes_.posts.empty());
  }

  // The limits are not tighter than they need to be.
  record(hook("UserPromptSubmit", {{"prompt", std::string(AgentEvents::kMaxInput - 1000, 'a')}}), 0,
         std::string(32, 'a'));
  EXPECT_EQ(files(), std::vector<std::string>{"abc123.json"});
}

TEST_F(AgentEventsTest, WalksUpToTheAgentProcess) {
  struct Row {
    const char* what;
    std::string path;
    std::vector<std::string> args;
    int shellsBetween;  // more shells between the hook's shell and the hook
    std::string agent;
    bool found;
  };
  const Row rows[] = {
      {"native executable, two levels up", "/home/ana/.local/bin/claude", {}, 0, "claude-code", true},
      {"under node", "/usr/bin/node", {"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}, 0,
       "claude-code", true},
      {"six levels up", "/usr/local/bin/claude", {}, 4, "claude-code", true},
      {"seven levels up", "/usr/local/bin/claude", {}, 5, "claude-code", false},
      {"another agent", "/usr/local/bin/codex", {}, 0, "claude-code", false},
      {"that agent's own hook", "/usr/local/bin/codex", {}, 0, "codex", true},
      {"plain node", "/usr/bin/node", {"node", "server.js"}, 0, "claude-code", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::filesystem::remove_all(dir_.file("agent-events"));
    std::int32_t parent = hookShellUnder(row.path, row.args);
    for (int i = 0; i < row.shellsBetween; ++i) parent = laptop().startProcess("/bin/bash", {"bash"}, parent);
    record(hook("UserPromptSubmit"), parent, row.agent);
    auto e = stored();
    ASSERT_TRUE(e.has_value());
    if (row.found) {
      EXPECT_EQ(e->pid, agentPid_);
      EXPECT_EQ(e->pidStart, startOf(agentPid_));
    } else {
      EXPECT_FALSE(e->pid.has_value());
      EXPECT_FALSE(e->pidStart.has_value());
    }
  }
}

TEST_F(AgentEventsTest, WalkStopsAtAHiddenProcessAndKeepsTheLastAgentFound) {
  // Given an event that found the agent.
  const std::int32_t parent = hookShellUnder("/usr/local/bin/claude");
  record(hook("UserPromptSubmit"), parent);
  ASSERT_EQ(stored()->pid, agentPid_);
  const std::int32_t agent = agentPid_;

  // A later hook whose chain is hidden midway (no path) finds nothing, so
  // the agent found before stays.
  const std::int32_t hidden = laptop().startProcess("", {}, agent);
  const std::int32_t sh = laptop().startProcess("/bin/sh", {"sh"}, hidden);
  clock_.advance(5);
  record(hook("Stop"), sh);
  EXPECT_EQ(stored()->state, AgentState::Finished);
  EXPECT_EQ(stored()->pid, agent);
  EXPECT_EQ(stored()->pidStart, startOf(agent));

  // Without a process table there is no walk either.
  AgentEvents::record(dir_.path(), "claude-code", hook("UserPromptSubmit", {}, "other"), clock_.now(), nullptr,
                      parent, &notes_);
  ASSERT_TRUE(stored("other").has_value());
  EXPECT_FALSE(stored("other")->pid.has_value());
}

TEST_F(AgentEventsTest, StoresExactlyTheEventKeysInOrder) {
  const std::int32_t parent = hookShellUnder("/usr/local/bin/claude");
  record(notification("permission_prompt", "Claude needs your permission"), parent);
  record(hook("Stop", {}, "second"));
  auto keys = [&](const std::string& session) {
    std::vector<std::string> out;
    auto j = ordered_json::parse(readFile(dir_.file("agent-events/" + session + ".json")));
    for (const auto& item : j.items()) out.push_back(item.key());
    return out;
  };
  EXPECT_EQ(keys("abc123"),
            (std::vector<std::string>{"agent", "session", "state", "at", "pid", "pidStart", "detail"}));
  EXPECT_EQ(keys("second"), (std::vector<std::string>{"agent", "session", "state", "at"}));
  auto j = json::parse(readFile(dir_.file("agent-events/abc123.json")));
  EXPECT_EQ(j["state"], "waiting");
  EXPECT_TRUE(j["at"].is_number_float());
  EXPECT_TRUE(j["pidStart"].is_number_unsigned());
  // Nothing but the event files is left in the folder.
  EXPECT_EQ(files(), (std::vector<std::string>{"abc123.json", "second.json"}));
}

TEST_F(AgentEventsTest, LoadDropsStaleAndDamagedFiles) {
  // Given events of various ages and files that aren't events.
  record(hook("Stop", {}, "old"));
  clock_.advance(2);
  record(hook("Stop", {}, "edge"));
  clock_.advance(172'800 - 1);
  const std::int32_t parent = hookShellUnder("/usr/local/bin/claude");
  record(hook("UserPromptSubmit", {}, "fresh"), parent);
  const std::string folder = dir_.file("agent-events/");
  writeFile(folder + "damaged.json", R"({"agent":"claude-code","session":"dam)");
  writeFile(folder + "wrong-state.json", R"({"agent":"a","session":"s","state":"sleeping","at":1})");
  writeFile(folder + "wrong-pid.json", R"({"agent":"a","session":"s","state":"idle","at":1e12,"pid":"12"})");
  writeFile(folder + "huge-pid.json", R"({"agent":"a","session":"s","state":"idle","at":1e12,"pid":4294967296})");
  writeFile(folder + "notes.txt", "not an event");

  auto events = AgentEvents::load(dir_.path(), clock_.now());
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].session, "edge");
  EXPECT_EQ(events[0].state, AgentState::Finished);
  EXPECT_EQ(events[1].session, "fresh");
  EXPECT_EQ(events[1].state, AgentState::Working);
  EXPECT_EQ(events[1].pid, agentPid_);
  EXPECT_EQ(files(), (std::vector<std::string>{"edge.json", "fresh.json", "notes.txt"}));

  // What was loaded is what was recorded.
  EXPECT_EQ(AgentEvents::decode(AgentEvents::encode(events[1])), events[1]);
}

TEST(AgentEventsFold, FoldsASessionsEventsIntoOneState) {
  const Time t = 1'800'000'000;
  auto ev = [](const char* session, AgentState s, Time at) {
    AgentEvent e;
    e.agent = "claude-code";
    e.session = session;
    e.state = s;
    e.at = at;
    return e;
  };
  using S = AgentState;
  struct Row {
    const char* what;
    std::vector<AgentEvent> events;
    std::optional<Time> lastActive;
    Time now;
    std::optional<FoldedAgentState> expected;
  };
  const Row rows[] = {
      {"no event", {ev("other", S::Working, t)}, std::nullopt, t, std::nullopt},
      {"idle", {ev("s", S::Idle, t)}, std::nullopt, t, FoldedAgentState{S::Idle, t}},
      {"answered six seconds later", {ev("s", S::Waiting, t)}, t + 6, t + 7, FoldedAgentState{S::Working, t}},
      {"busy five seconds later", {ev("s", S::Waiting, t)}, t + 5, t + 7, FoldedAgentState{S::Waiting, t}},
      {"busy before the question", {ev("s", S::Waiting, t)}, t - 100, t + 7, FoldedAgentState{S::Waiting, t}},
      {"waiting, never busy", {ev("s", S::Waiting, t)}, std::nullopt, t + 3600, FoldedAgentState{S::Waiting, t}},
      {"prompt half an hour old", {ev("s", S::Working, t)}, std::nullopt, t + 1801, std::nullopt},
      {"prompt just under", {ev("s", S::Working, t)}, std::nullopt, t + 1800, FoldedAgentState{S::Working, t}},
      {"old prompt, busy since", {ev("s", S::Working, t)}, t + 1000, t + 2700, FoldedAgentState{S::Working, t}},
      {"old prompt, quiet since", {ev("s", S::Working, t)}, t + 1000, t + 2801, std::nullopt},
      {"stale prompt beside a stop", {ev("s", S::Working, t), ev("s", S::Finished, t - 10)}, std::nullopt, t + 4000,
       FoldedAgentState{S::Finished, t - 10}},
      {"working outranks a later stop", {ev("s", S::Finished, t + 10), ev("s", S::Working, t)}, std::nullopt, t + 20,
       FoldedAgentState{S::Working, t}},
      {"waiting outranks finished", {ev("s", S::Finished, t + 10), ev("s", S::Waiting, t)}, std::nullopt, t + 20,
       FoldedAgentState{S::Waiting, t}},
      {"finished outranks idle", {ev("s", S::Idle, t + 10), ev("s", S::Finished, t)}, std::nullopt, t + 20,
       FoldedAgentState{S::Finished, t}},
      {"later of equals", {ev("s", S::Finished, t + 5), ev("s", S::Finished, t), ev("x", S::Finished, t + 9)},
       std::nullopt, t + 20, FoldedAgentState{S::Finished, t + 5}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    EXPECT_EQ(AgentEvents::state("s", row.events, row.lastActive, row.now), row.expected);
  }
}

TEST(AgentEventsInput, ReadsAHookInputToItsEnd) {
  struct Row {
    std::size_t bytes;
    bool read;
  };
  for (const Row& row : {Row{0, true}, Row{200'000, true}, Row{AgentEvents::kMaxInput + 1, false},
                         Row{8 * AgentEvents::kMaxInput, false}}) {
    SCOPED_TRACE(row.bytes);
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    const std::string data(row.bytes, 'x');
    bool wroteAll = false;
    // The writer is never cut off, however much it writes.
    std::thread writer([&] {
      std::string_view rest = data;
      while (!rest.empty()) {
        const ssize_t n = ::write(fds[1], rest.data(), rest.size());
        if (n <= 0) break;
        rest.remove_prefix(static_cast<std::size_t>(n));
      }
      wroteAll = rest.empty();
      ::close(fds[1]);
    });
    auto got = AgentEvents::readHookInput(fds[0]);
    writer.join();
    ::close(fds[0]);
    EXPECT_TRUE(wroteAll);
    EXPECT_EQ(got.has_value(), row.read);
    if (row.read) {
      EXPECT_EQ(got->size(), row.bytes);
    }
  }

  // A writer that never finishes is given up on.
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  ASSERT_EQ(::write(fds[1], "{", 1), 1);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_FALSE(AgentEvents::readHookInput(fds[0], 0.2).has_value());
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  ::close(fds[0]);
  ::close(fds[1]);
}

// The real `vigilo event claude-code`, fed as Claude Code feeds it.
class EventCommandTest : public ::testing::Test {
 protected:
  EventCommandTest() { std::filesystem::create_directories(home_); }
  ToolRun event(const std::string& input, std::vector<std::string> args = {"event", "claude-code"}) {
    const auto start = std::chrono::steady_clock::now();
    ToolRun run = runToolWithInput(args, home_, input);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "");
    return run;
  }
  std::optional<json> stored(const std::string& session) {
    const std::string path = home_ + "/agent-events/" + session + ".json";
    if (!fileExists(path)) return std::nullopt;
    return json::parse(readFile(path));
  }
  bool folderEmpty() {
    std::error_code ec;
    return std::filesystem::is_empty(home_ + "/agent-events", ec) || ec;
  }

  TempDir dir_;
  std::string home_ = dir_.file("home");
};

TEST_F(EventCommandTest, RecordsAClaudeCodeSession) {
  // Given a session start, a prompt, a permission question, a stop and the end.
  event(hook("SessionStart", {{"source", "startup"}}, "s1"));
  EXPECT_EQ(stored("s1")->at("state"), "idle");
  event(hook("UserPromptSubmit", {{"prompt", "add a test"}}, "s1"));
  EXPECT_EQ(stored("s1")->at("state"), "working");
  EXPECT_EQ(stored("s1")->at("agent"), "claude-code");
  EXPECT_NEAR(stored("s1")->at("at").get<double>(),
              std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(), 30);
  event(hook("Notification", {{"notification_type", "permission_prompt"}, {"message", "Claude needs your permission"}},
             "s1"));
  EXPECT_EQ(stored("s1")->at("state"), "waiting");
  EXPECT_EQ(stored("s1")->at("detail"), "claude needs your permission");
  event(hook("Stop", {}, "s1"));
  EXPECT_EQ(stored("s1")->at("state"), "finished");
  event(hook("SessionEnd", {{"reason", "prompt_input_exit"}}, "s1"));
  EXPECT_FALSE(stored("s1").has_value());
  EXPECT_TRUE(folderEmpty());
}

TEST_F(EventCommandTest, BadInputExitsAtOnceWithNothingWritten) {
  const std::string prompt = hook("UserPromptSubmit", {{"prompt", "go"}});
  static const char kElf[] = "\x7f" "ELF\x02\x01\x01\x00\x00\xff\xfe";
  struct Row {
    const char* what;
    std::string input;
    std::vector<std::string> args = {"event", "claude-code"};
  };
  const Row rows[] = {
      {"empty", ""},
      {"binary", std::string(kElf, sizeof kElf - 1)},
      {"huge", std::string(3 * 1024 * 1024, '{')},
      {"huge but valid", hook("UserPromptSubmit", {{"prompt", std::string(2 * 1024 * 1024, 'a')}})},
      {"deeply nested", R"({"hook_event_name":"Stop","x":)" + std::string(500000, '[')},
      {"wrong types", R"({"hook_event_name":1,"session_id":{"a":[true]}})"},
      {"no agent name", prompt, {"event"}},
      {"over-long agent name", prompt, {"event", std::string(33, 'c')}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    event(row.input, row.args);
    EXPECT_TRUE(folderEmpty());
  }
}

TEST_F(EventCommandTest, TellsARunningAppAtOnce) {
  // Given an observer of the notification, as the app has.
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
  EXPECT_EQ(stored("s2")->at("state"), "finished");
}

}  // namespace
}  // namespace vigilo::test
