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

std::string event(const std::string& name, const std::string& fields = "") {
  return R"("hook_event_name":")" + name + "\"" + fields;
}

// Given the app in mode auto on a simulated laptop whose clock runs five
// times fast, where Claude Code's process runs, and its hooks piped into the
// real `vigilo event` (each agent's own payloads are read by the event
// parser's tests).
class AgentsTest : public SimAppTest {
 protected:
  static constexpr double kSpeed = 5;
  static constexpr const char* kExecutable = "/usr/local/bin/claude";

  void SetUp() override {
    writeFile(home_ + "/config.json", R"({"mode": "auto", "quietMinutes": 1})");
    writeFile(state_, std::string(R"({"clockSpeed": 5, "processes": [{"path": ")") + kExecutable +
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
    ToolRun r = runToolWithInput({"event", "claude-code"}, home_, input);
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

TEST_F(AgentsTest, HooksHoldWithTheRightReasonAndSleepTheQuietMinuteAfterTheFinish) {
  const std::string name = "Claude Code";
  hook(event("SessionStart", R"(,"source":"startup")"));
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
      if (p.path == kExecutable) pid = p.pid, start = p.startMicros;
    }
    l.setProcessWatts(pid, 2.0);
  }));
  const json prompt = {{"agent", "claude-code"}, {"session", "abc123"}, {"state", "working"},
                       {"at", appNow() - 120}, {"pid", pid}, {"pidStart", start}};
  writeFile(home_ + "/agent-events/abc123.json", prompt.dump());
  hook(event("SessionEnd"), "another");
  EXPECT_TRUE(reasonBecomes(name + " is working in vigilo")) << reason() << app_->output();
  EXPECT_TRUE(sleepDisabled()) << app_->output() << readFile(state_);

  // Idle while it asks; the quiet minute runs from the last of its work.
  const Time idleFrom = appNow();
  ASSERT_TRUE(editSimStateFile(state_, SystemClock(), [&](SimLaptop& l) { l.setProcessWatts(pid, 0.0); }));
  // With a field no version has sent yet.
  hook(event("Notification", R"(,"message":"Claude needs your permission to use Bash",)"
                             R"("notification_type":"permission_prompt","some_new_field":[1,2])"));
  EXPECT_TRUE(reasonBecomes(name + " is waiting for you")) << reason() << app_->output();
  EXPECT_TRUE(sleepDisabled());

  // Then the finish and the session's end: not asleep yet.
  hook(event("Stop", R"(,"stop_hook_active":false,"last_assistant_message":"Done.")"));
  EXPECT_TRUE(reasonBecomes(name + " stopped · sleeps in 1 min")) << reason() << app_->output();
  hook(event("SessionEnd", R"(,"reason":"prompt_input_exit")"));
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

}  // namespace
}  // namespace vigilo::test
