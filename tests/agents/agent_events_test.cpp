#include "agents/agent_events.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <sys/stat.h>
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

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;
using S = AgentState;

class RecordingNotifications final : public Notifications {
 public:
  Result observe(const std::string&, std::function<void(std::string)>) override { return Result::ok(); }
  void stopObserving() override {}
  Result post(const std::string& name, const std::string&) override { return posts.push_back(name), Result::ok(); }
  std::vector<std::string> posts;
};

// A hook input as Claude Code sends it, with a field no version has sent yet.
std::string hook(const std::string& name, json fields = json::object(), const std::string& session = "abc123") {
  json j = {{"session_id", session}, {"hook_event_name", name}, {"some_future_field", {{"nested", true}}}};
  if (fields.is_object()) j.update(fields);
  return j.dump();
}
std::string notification(const std::string& type, const std::string& message) {
  return hook("Notification", type.empty() ? json{{"message", message}}
                                           : json{{"message", message}, {"notification_type", type}});
}

std::vector<std::string> listFolder(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code ec;
  for (const auto& e : std::filesystem::directory_iterator(folder, ec)) names.push_back(e.path().filename().string());
  std::sort(names.begin(), names.end());
  return names;
}

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
  void reset() { std::filesystem::remove_all(dir_.file("agent-events")), notes_.posts.clear(); }
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

TEST_F(AgentEventsTest, MapsEachAgentsHookEventsInItsOwnWords) {
  // Each agent's hooks as its documentation shows them, never another's
  // vocabulary. An idle report is dated a minute back.
  const json codex = {{"cwd", "/home/ana/shop"}, {"model", "gpt-5-codex"}, {"permission_mode", "default"},
                      {"transcript_path", nullptr}, {"turn_id", "019a2b"}};
  const json gemini = {{"cwd", "/home/ana/shop"}, {"timestamp", "2026-11-26T00:10:00.000Z"},
                       {"transcript_path", "/home/ana/.gemini/tmp/4f1c/chats/session.json"}};
  auto with = [](json base, const json& fields) { return base.update(fields), base; };
  const std::string claude = "claude-code";
  using Detail = std::optional<std::string>;
  const std::tuple<std::string, const char*, std::string, std::optional<S>, double, Detail> rows[] = {
      {claude, "permission", notification("permission_prompt", "Needs your Permission"), S::Waiting, 0,
       "needs your permission"},
      {claude, "elicitation without message", notification("elicitation_dialog", ""), S::Waiting, 0,
       "elicitation_dialog"},
      {claude, "type in matcher", hook("Notification", {{"matcher", "permission_prompt"}}), S::Waiting, 0,
       "permission_prompt"},
      {claude, "untyped permission", notification("", "Please APPROVE this"), S::Waiting, 0, "please approve this"},
      {claude, "idle", notification("idle_prompt", "Claude is waiting for your input"), S::Finished, -60, {}},
      {claude, "untyped idle", notification("", "Claude is waiting for your input"), S::Finished, -60, {}},
      {claude, "known type, asking text", notification("hologram_ready", "Claude needs your permission"), {}, 0, {}},
      {claude, "Codex's words", hook("PermissionRequest", {{"tool_name", "Bash"}}), {}, 0, {}},
      {"codex", "prompt", hook("UserPromptSubmit", with(codex, {{"prompt", "fix the tests"}})), S::Working, 0, {}},
      {"codex", "asks to run a command",
       hook("PermissionRequest", with(codex, {{"tool_name", "Bash"},
                                              {"tool_input", {{"command", "npm ci"}, {"description", "Install Deps"}}}})),
       S::Waiting, 0, "install deps"},
      {"codex", "asks with only a tool", hook("PermissionRequest", with(codex, {{"tool_name", "apply_patch"}})),
       S::Waiting, 0, "permission to use apply_patch"},
      {"codex", "tool ran", hook("PostToolUse", with(codex, {{"tool_name", "Bash"}, {"tool_response", "ok"}})),
       S::Working, 0, {}},
      {"codex", "Claude's words", notification("permission_prompt", "Needs your permission"), {}, 0, {}},
      {"gemini", "prompt", hook("BeforeAgent", with(gemini, {{"prompt", "fix the tests"}})), S::Working, 0, {}},
      {"gemini", "tool permission",
       hook("Notification", with(gemini, {{"notification_type", "ToolPermission"},
                                          {"message", "Allow run_shell_command: npm test?"},
                                          {"details", {{"tool_name", "run_shell_command"}}}})),
       S::Waiting, 0, "allow run_shell_command: npm test?"},
      {"gemini", "turn done", hook("AfterAgent", with(gemini, {{"prompt_response", "Done."}})), S::Finished, 0, {}},
      {"gemini", "other notification", hook("Notification", with(gemini, {{"notification_type", "Update"}})), {}, 0, {}},
      {"gemini", "Claude's stop", hook("Stop", gemini), {}, 0, {}},
  };
  for (const auto& [agent, what, input, state, atFromNow, detail] : rows) {
    SCOPED_TRACE(agent + ": " + what);
    reset();
    record(input, 0, agent);
    const AgentEvent expected{agent, "abc123", state.value_or(S::Idle), clock_.now() + atFromNow, {}, {}, detail};
    EXPECT_EQ(stored(), state ? std::optional(expected) : std::nullopt);
    EXPECT_EQ(notes_.posts, state ? std::vector<std::string>{AgentEvents::changed} : std::vector<std::string>{});
  }
  // Each starts and ends its session the same way, and says so.
  for (const char* agent : {"codex", "gemini"}) {
    reset();
    record(hook("SessionStart", {{"source", "startup"}}), 0, agent);
    const auto started = stored();
    EXPECT_TRUE(started && started->state == S::Idle) << agent;
    record(hook("SessionEnd", {{"reason", "exit"}}), 0, agent);
    EXPECT_TRUE(files().empty()) << agent;
    EXPECT_EQ(notes_.posts.size(), 2u);
  }
}

TEST_F(AgentEventsTest, IdleAfterStopAndCompaction) {
  // An idle report 90 s after a Stop keeps the Stop's time.
  const Time stopped = clock_.now();
  record(hook("Stop"));
  clock_.advance(90);
  record(notification("idle_prompt", "Claude is waiting for your input"));
  EXPECT_EQ(stored(), (AgentEvent{"claude-code", "abc123", S::Finished, stopped, {}, {}, {}}));

  // Compaction leaves the file untouched and tells no one.
  const std::string before = readFile(dir_.file("agent-events/abc123.json"));
  clock_.advance(30);
  notes_.posts.clear();
  record(hook("SessionStart", {{"source", "compact"}}));
  EXPECT_EQ(readFile(dir_.file("agent-events/abc123.json")), before);
  EXPECT_TRUE(notes_.posts.empty());
}

TEST_F(AgentEventsTest, SessionIdsBecomeSafeFileNames) {
  const std::pair<json, std::optional<std::string>> rows[] = {
      {"../x", "x.json"},
      {"a/b\\c d.e_F-9\n", "abcde_F-9.json"},
      {std::string(100, 'z'), std::string(64, 'z') + ".json"},
      {"../", std::nullopt},
      {nullptr, "unknown.json"},  // null: no session_id at all
  };
  for (const auto& [id, file] : rows) {
    SCOPED_TRACE(id.dump());
    reset();
    record(id.is_null() ? R"({"hook_event_name":"Stop"})" : json{{"hook_event_name", "Stop"}, {"session_id", id}}.dump());
    EXPECT_EQ(files(), file ? std::vector<std::string>{*file} : std::vector<std::string>{});
    EXPECT_FALSE(fileExists(dir_.path() + "/x.json"));
  }
}

TEST_F(AgentEventsTest, WalksUpToTheAgentProcess) {
  // Agent path, its arguments, shells between the agent's sh and the hook, the hook's agent, found.
  const std::tuple<std::string, std::vector<std::string>, int, std::string, bool> rows[] = {
      {"/usr/local/bin/claude", {}, 4, "claude-code", true},  // six levels up
      {"/usr/local/bin/claude", {}, 5, "claude-code", false},
      {"/usr/local/bin/codex", {}, 0, "claude-code", false},
      {"/usr/bin/node", {"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"}, 0, "claude-code", true},
  };
  for (const auto& [path, args, shellsBetween, agent, found] : rows) {
    SCOPED_TRACE(path + " +" + std::to_string(shellsBetween) + " for " + agent);
    reset();
    std::int32_t parent = hookShellUnder(path, args);
    for (int i = 0; i < shellsBetween; ++i) parent = laptop().startProcess("/bin/bash", {"bash"}, parent);
    record(hook("UserPromptSubmit"), parent, agent);
    const auto e = stored().value_or(AgentEvent{});
    EXPECT_EQ(e.pid, found ? std::optional(agentPid_) : std::nullopt);
    EXPECT_EQ(e.pidStart, found ? std::optional(startOf(agentPid_)) : std::nullopt);
  }

  // A later hook whose chain is hidden midway keeps the agent found before.
  const std::int32_t hidden = laptop().startProcess("", {}, agentPid_);
  record(hook("Stop"), laptop().startProcess("/bin/sh", {"sh"}, hidden));
  EXPECT_EQ(stored(), (AgentEvent{"claude-code", "abc123", S::Finished, clock_.now(), agentPid_, startOf(agentPid_), {}}));
}

TEST_F(AgentEventsTest, LoadDropsStaleAndDamagedFiles) {
  record(hook("Stop", {}, "old"));
  clock_.advance(2);
  record(hook("Stop", {}, "edge"));
  clock_.advance(172'800 - 1);
  record(notification("permission_prompt", "Allow?"), hookShellUnder("/usr/local/bin/claude"));
  const std::string folder = dir_.file("agent-events/");
  writeFile(folder + "damaged.json", R"({"agent":"claude-code","session":"dam)");
  writeFile(folder + "wrong-state.json", R"({"agent":"a","session":"s","state":"sleeping","at":1e12})");
  writeFile(folder + "notes.txt", "not an event");

  const auto events = AgentEvents::load(dir_.path(), clock_.now());
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0], (AgentEvent{"claude-code", "abc123", S::Waiting, clock_.now(), agentPid_, startOf(agentPid_),
                                   "allow?"}));
  EXPECT_EQ(events[1].session, "edge");
  EXPECT_EQ(files(), (std::vector<std::string>{"abc123.json", "edge.json", "notes.txt"}));
  // Exactly the event's keys, in order; absent ones left out.
  EXPECT_EQ(json::parse(readFile(folder + "edge.json")).size(), 4u);
  std::string keys;
  const auto written = nlohmann::ordered_json::parse(readFile(folder + "abc123.json"));
  for (const auto& item : written.items()) keys += item.key() + ",";
  EXPECT_EQ(keys, "agent,session,state,at,pid,pidStart,detail,");

  // A hook input near its 1 MB limit is cut when written, so the app reads
  // the event instead of deleting it unread.
  record(hook("Notification", {{"message", std::string(900 * 1024, 'm')}, {"notification_type", "permission_prompt"}}, "big"));
  EXPECT_LE(std::filesystem::file_size(folder + "big.json"), 4u * 1024);
  EXPECT_EQ(AgentEvents::load(dir_.path(), clock_.now()).size(), 3u);
}

TEST_F(AgentEventsTest, FollowsNoLinkAndUsesNoFolderSomeoneElseCanChange) {
  // Each way another user could aim the events folder at a project file
  // named like a session; only a link inside a folder of the user's own is used.
  TempDir project;
  const std::string victim = project.file("package.json");
  const std::string events = dir_.file("agent-events");
  auto ownedBy = [&](const std::string& path, uid_t uid, mode_t mode) {
    std::filesystem::create_directories(path);
    ASSERT_EQ(::chown(path.c_str(), uid, uid), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  };
  struct Case {
    const char* what;
    std::function<void()> plant;
    bool used;
  };
  const std::vector<Case> cases = {
      {"a link to a file outside", [&] { ownedBy(events, ::getuid(), 0700), std::filesystem::create_symlink(victim, events + "/package.json"); }, true},
      {"the folder a link to the project", [&] { std::filesystem::create_symlink(project.path(), events); }, false},
      {"the folder another user's", [&] { ownedBy(events, 65534, 0700); }, false},
      {"the folder writable by others", [&] { ownedBy(events, ::getuid(), 0777); }, false},
      {"the app folder writable by others", [&] { ownedBy(dir_.path(), ::getuid(), 0777); }, false},
  };
  for (const Case& c : cases) {
    reset();
    writeFile(victim, "{}");
    c.plant();
    EXPECT_TRUE(AgentEvents::load(dir_.path(), clock_.now()).empty()) << c.what;
    record(hook("SessionEnd", {}, "package"));
    record(hook("Stop", {}, "package"));
    EXPECT_EQ(readFile(victim), "{}") << c.what;
    EXPECT_EQ(stored("package").has_value(), c.used) << c.what;
    ::chmod(dir_.path().c_str(), 0700);
  }
}

TEST(AgentEventsFold, FoldsASessionsEventsIntoOneState) {
  const Time t = 1'800'000'000;
  auto ev = [](S s, Time at, const char* session = "s") { return AgentEvent{"claude-code", session, s, at, {}, {}, {}}; };
  using F = FoldedAgentState;
  const auto none = std::optional<Time>();
  const std::tuple<const char*, std::vector<AgentEvent>, std::optional<Time>, Time, std::optional<F>> rows[] = {
      {"no event of the session", {ev(S::Working, t, "other")}, none, t, std::nullopt},
      {"answered six seconds later", {ev(S::Waiting, t)}, t + 6, t + 7, F{S::Working, t}},
      {"busy five seconds later", {ev(S::Waiting, t)}, t + 5, t + 7, F{S::Waiting, t}},
      {"prompt half an hour old", {ev(S::Working, t)}, none, t + 1801, std::nullopt},
      {"prompt just under", {ev(S::Working, t)}, none, t + 1800, F{S::Working, t}},
      {"old prompt, busy since", {ev(S::Working, t)}, t + 1000, t + 2700, F{S::Working, t}},
      {"old prompt, quiet since", {ev(S::Working, t)}, t + 1000, t + 2801, std::nullopt},
      {"working outranks a later stop", {ev(S::Finished, t + 10), ev(S::Working, t)}, none, t + 20, F{S::Working, t}},
      {"waiting outranks finished", {ev(S::Finished, t + 10), ev(S::Waiting, t)}, none, t + 20, F{S::Waiting, t}},
      {"later of equals", {ev(S::Finished, t + 5), ev(S::Finished, t), ev(S::Finished, t + 9, "x")}, none, t + 20,
       F{S::Finished, t + 5}},
  };
  for (const auto& [what, events, lastActive, now, expected] : rows) {
    SCOPED_TRACE(what);
    EXPECT_EQ(AgentEvents::state("s", events, lastActive, now), expected);
  }
}

// The real `vigilo event <agent>`, fed as Claude Code feeds it.
class EventCommandTest : public ::testing::Test {
 protected:
  EventCommandTest() { std::filesystem::create_directories(home_); }
  void event(const std::string& input, std::vector<std::string> args = {"event", "claude-code"}) {
    ToolRun run = runToolWithInput(args, home_, input);
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out + run.err, "");
  }
  std::vector<std::string> files() { return listFolder(home_ + "/agent-events"); }

  TempDir dir_;
  std::string home_ = dir_.file("home");
};

TEST_F(EventCommandTest, ExitsAtOnceWritingOnlyWhatIsValid) {
  const std::string prompt = hook("UserPromptSubmit", {{"prompt", "go"}});
  const std::string claude = "claude-code";
  // What, the input, the agent name.
  const std::tuple<const char*, std::string, std::string> rows[] = {
      {"huge", std::string(3 * 1024 * 1024, '{'), claude},
      {"huge but valid", hook("UserPromptSubmit", {{"prompt", std::string(AgentEvents::kMaxInput, 'a')}}), claude},
      {"deeply nested", R"({"hook_event_name":"Stop","x":)" + std::string(500000, '['), claude},
      {"wrong types", R"({"hook_event_name":1,"session_id":{"a":[true]}})", claude},
      {"over-long agent name", prompt, std::string(33, 'c')},
  };
  for (const auto& [what, input, agent] : rows) {
    SCOPED_TRACE(what);
    event(input, {"event", agent});
    EXPECT_EQ(files(), std::vector<std::string>{});
  }
  // Input just within the limits is recorded, and a running app told at once.
  SystemClock clock;
  auto loop = makePollRunLoop(clock);
  auto notifications = makeSocketNotifications(home_, loop.get());
  int heard = 0;
  ASSERT_TRUE(notifications->observe(AgentEvents::changed, [&](std::string) { ++heard, loop->stop(); }));
  loop->after(10, [&] { loop->stop(); });
  std::thread hookRun([&] {
    event(hook("Stop", {{"x", std::string(AgentEvents::kMaxInput - 1000, 'a')}}), {"event", std::string(32, 'c')});
  });
  loop->run();
  hookRun.join();
  EXPECT_EQ(heard, 1);
  EXPECT_EQ(files(), std::vector<std::string>{"abc123.json"});

  // Codex's notify gives its JSON as the last argument: that is the event,
  // and standard input is not read.
  const std::string turnDone = R"({"type":"agent-turn-complete","thread-id":"t-42","turn-id":"7","cwd":"/tmp"})";
  event(hook("UserPromptSubmit", json::object(), "from-input"), {"event", "codex", turnDone});
  EXPECT_EQ(files(), (std::vector<std::string>{"abc123.json", "t-42.json"}));
  EXPECT_EQ(AgentEvents::decode(readFile(home_ + "/agent-events/t-42.json"))->state, S::Finished);
  // Whatever the words, the hook neither fails nor prints.
  event("", {"event", "codex", "--json"});
  EXPECT_EQ(files().size(), 2u);
}

}  // namespace
}  // namespace vigilo::test
