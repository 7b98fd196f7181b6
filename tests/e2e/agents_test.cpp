#include <csignal>
#include <filesystem>
#include <regex>

#include <gtest/gtest.h>

#include "agents/agent_events.h"
#include "commands/channel.h"
#include "e2e/sim_app.h"
#include "platform/notifications.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// One agent's hooks as it sends them: its executable, the name it is shown
// by, and the events (with their fields) of a session that starts, asks the
// person, finishes and ends.
struct AgentHookScript {
  const char* agent;
  const char* executable;
  const char* name;
  std::string start, ask, stop, end;
};

void PrintTo(const AgentHookScript& script, std::ostream* os) { *os << script.agent; }

std::string event(const std::string& name, const std::string& fields = "") {
  return R"("hook_event_name":")" + name + "\"" + fields;
}

// Given the app in mode auto on a simulated laptop whose clock runs five
// times fast, where the agent's process runs, and the agent's hooks piped
// into the real `vigilo event`.
class AgentsTest : public SimAppTest, public ::testing::WithParamInterface<AgentHookScript> {
 protected:
  static constexpr double kSpeed = 5;

  void SetUp() override {
    writeFile(home_ + "/config.json", R"({"mode": "auto", "quietMinutes": 1})");
    writeFile(state_, std::string(R"({"clockSpeed": 5, "processes": [{"path": ")") + GetParam().executable +
                          R"(", "args": ["agent"], "cwd": "/home/me/vigilo", "watts": 0}]})");
    startApp();
    upAt_ = SystemClock().now();
  }
  // The app's clock started before it first answered, so counting from then
  // gives a time never ahead of it (and behind by at most the start-up).
  Time appNow() const { return upAt_ + (SystemClock().now() - upAt_) * kSpeed; }
  // The hook stamps its event with the tool's own clock, which the fast
  // laptop has left behind; the event is stamped again with the app's time,
  // and the app told, as the hook does.
  void hook(const std::string& event, const std::string& session = "abc123") {
    const std::string input = R"({"session_id":")" + session +
                              R"(","transcript_path":"/tmp/t.jsonl","cwd":"/home/me/vigilo",)" + event + "}";
    ToolRun r = runToolWithInput({"event", GetParam().agent}, home_, input);
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_EQ(r.out, "");
    const std::string file = home_ + "/agent-events/" + session + ".json";
    if (!fileExists(file)) return;
    json e = json::parse(readFile(file));
    e["at"] = appNow();
    writeFile(file + ".new", e.dump());
    std::filesystem::rename(file + ".new", file);
    ASSERT_TRUE(makeSocketNotifications(home_, nullptr)->post(kAgentEventNotification, "{}"));
  }
  std::string reason() {
    json s = status();
    return s.is_object() && s["reason"].is_string() ? s["reason"].get<std::string>() : std::string();
  }
  bool reasonBecomes(const std::string& expected) {
    return waitFor([&] { return reason() == expected; }, 10s);
  }
  Time upAt_ = 0;
};

TEST_P(AgentsTest, HooksHoldWithTheRightReasonAndSleepTheQuietMinuteAfterTheFinish) {
  const AgentHookScript& a = GetParam();
  const std::string name = a.name;
  hook(a.start);
  EXPECT_TRUE(reasonBecomes("")) << reason() << app_->output();
  EXPECT_FALSE(sleepDisabled());

  // The prompt went in two minutes ago, from the simulated agent, which is
  // busy (the event file is the one its hook would have written then; the
  // hooks below, run by this test, find no agent above them and keep this
  // event's process). A SessionEnd of another session only rings the bell.
  std::int32_t pid = 0;
  std::uint64_t start = 0;
  ASSERT_TRUE(editSimStateFile(state_, SystemClock(), [&](SimLaptop& l) {
    for (const SimProcess& p : l.processes()) {
      if (p.path == a.executable) pid = p.pid, start = p.startMicros;
    }
    l.setProcessWatts(pid, 2.0);
  }));
  const json prompt = {{"agent", a.agent}, {"session", "abc123"}, {"state", "working"},
                       {"at", appNow() - 120}, {"pid", pid}, {"pidStart", start}};
  writeFile(home_ + "/agent-events/abc123.json", prompt.dump());
  hook(event("SessionEnd"), "another");
  EXPECT_TRUE(reasonBecomes(name + " is working in vigilo")) << reason() << app_->output();
  EXPECT_TRUE(sleepDisabled()) << app_->output() << readFile(state_);

  // Idle while it asks; the quiet minute runs from the last of its work.
  const Time idleFrom = appNow();
  ASSERT_TRUE(editSimStateFile(state_, SystemClock(), [&](SimLaptop& l) { l.setProcessWatts(pid, 0.0); }));
  hook(a.ask);
  EXPECT_TRUE(reasonBecomes(name + " is waiting for you")) << reason() << app_->output();
  EXPECT_TRUE(sleepDisabled());

  // Then the finish and the session's end: not asleep yet.
  hook(a.stop);
  EXPECT_TRUE(reasonBecomes(name + " stopped · sleeps in 1 min")) << reason() << app_->output();
  hook(a.end);
  EXPECT_FALSE(fileExists(home_ + "/agent-events/abc123.json"));
  EXPECT_TRUE(sleepDisabled());

  // A minute later on the laptop's clock, not sooner, it sleeps. The app
  // stamps the laptop's file with its clock as it switches sleep back on
  // (at most a tick late).
  ASSERT_TRUE(waitFor([&] { return outputHas("» " + name + " finished"); }, 30s)) << app_->output();
  json laptop;
  ASSERT_TRUE(waitFor(
      [&] {
        laptop = json::parse(readFile(state_), nullptr, false);
        return !laptop.value("sleepDisabled", true);
      },
      5s));
  EXPECT_GE(laptop.value("updated", 0.0) - idleFrom, 58.0);
  EXPECT_NE(app_->output().find("alert: " + name + " needs you"), std::string::npos) << app_->output();
  // Two minutes of work and the few seconds the test took, times five.
  EXPECT_TRUE(std::regex_search(app_->output(), std::regex("alert: " + name + " finished after [23] min of work")))
      << app_->output();
}

// Payloads as each agent's documentation shows them, with a field no
// version has sent yet.
INSTANTIATE_TEST_SUITE_P(
    EachAgent, AgentsTest,
    ::testing::Values(
        AgentHookScript{"claude-code", "/usr/local/bin/claude", "Claude Code", event("SessionStart", R"(,"source":"startup")"),
                        event("Notification", R"(,"message":"Claude needs your permission to use Bash",)"
                                              R"("title":"Permission needed","notification_type":"permission_prompt",)"
                                              R"("some_new_field":[1,2])"),
                        event("Stop", R"(,"stop_hook_active":false,"last_assistant_message":"Done.")"),
                        event("SessionEnd", R"(,"reason":"prompt_input_exit")")},
        AgentHookScript{"codex", "/usr/local/bin/codex", "Codex",
                        event("SessionStart", R"(,"model":"gpt-5-codex","permission_mode":"default","source":"startup")"),
                        event("PermissionRequest", R"(,"turn_id":"t1","tool_name":"Bash","tool_input":)"
                                                   R"({"command":"npm ci","description":"Install dependencies"})"),
                        event("Stop", R"(,"turn_id":"t1","stop_hook_active":false,"last_assistant_message":"Done.")"),
                        event("SessionEnd", R"(,"reason":"exit")")},
        AgentHookScript{"gemini", "/usr/local/bin/gemini", "Gemini CLI",
                        event("SessionStart", R"(,"timestamp":"2026-11-26T00:10:00.000Z","source":"startup")"),
                        event("Notification", R"(,"timestamp":"2026-11-26T00:10:05.000Z",)"
                                              R"("notification_type":"ToolPermission",)"
                                              R"("message":"Allow run_shell_command?","details":{"x":1})"),
                        event("AfterAgent", R"(,"prompt":"fix it","prompt_response":"Done.","stop_hook_active":false)"),
                        event("SessionEnd", R"(,"reason":"exit")")}),
    [](const ::testing::TestParamInfo<AgentHookScript>& info) {
      std::string n = info.param.agent;
      std::erase(n, '-');
      return n;
    });

}  // namespace
}  // namespace vigilo::test
