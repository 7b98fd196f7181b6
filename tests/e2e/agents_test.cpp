#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "commands/channel.h"
#include "e2e/sim_app.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given the app in mode auto on a simulated laptop where a "claude" process
// runs, and Claude Code's hooks piped into the real `vigilo event`.
class AgentsTest : public SimAppTest {
 protected:
  void SetUp() override {
    writeFile(home_ + "/config.json", R"({"mode": "auto", "quietMinutes": 1})");
    writeFile(state_, R"({"processes": [{"path": "/usr/local/bin/claude", "args": ["claude"],
                                         "cwd": "/home/me/vigilo", "watts": 0}]})");
    startApp();
  }
  void hook(const std::string& event, const std::string& extra = "", const std::string& session = "abc123") {
    const std::string input = R"({"session_id":")" + session +
                              R"(","transcript_path":"/tmp/t.jsonl","cwd":"/home/me/vigilo",)"
                              R"("hook_event_name":")" + event + "\"" + extra + "}";
    ToolRun r = runToolWithInput({"event", "claude-code"}, home_, input);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  std::string reason() {
    ToolRun r = vigilo({"status", "--json"});
    if (r.status != 0) return "status failed: " + r.err;
    json s = json::parse(r.out, nullptr, false);
    return s.is_object() && s["reason"].is_string() ? s["reason"].get<std::string>() : std::string();
  }
  bool reasonBecomes(const std::string& expected) {
    return waitFor([&] { return reason() == expected; }, 10s);
  }
};

TEST_F(AgentsTest, ClaudeCodeHooksHoldWithTheRightReasonAndSleepTheQuietMinuteAfterTheStop) {
  hook("SessionStart", R"(,"source":"startup")");
  EXPECT_TRUE(reasonBecomes("")) << reason() << app_->output();
  EXPECT_FALSE(sleepDisabled());

  // The prompt went in two minutes ago, from the simulated claude, which is
  // busy (the event file is the one its hook would have written then; the
  // hooks below, run by this test, find no agent above them and keep this
  // event's process). A SessionEnd of another session only rings the bell.
  std::int32_t pid = 0;
  std::uint64_t start = 0;
  ASSERT_TRUE(editSimStateFile(state_, SystemClock(), [&](SimLaptop& l) {
    for (const SimProcess& p : l.processes()) {
      if (p.path == "/usr/local/bin/claude") pid = p.pid, start = p.startMicros;
    }
    l.setProcessWatts(pid, 2.0);
  }));
  const json prompt = {{"agent", "claude-code"}, {"session", "abc123"}, {"state", "working"},
                       {"at", SystemClock().now() - 120}, {"pid", pid}, {"pidStart", start}};
  writeFile(home_ + "/agent-events/abc123.json", prompt.dump());
  hook("SessionEnd", "", "another");
  EXPECT_TRUE(reasonBecomes("Claude Code is working in vigilo")) << reason() << app_->output();
  EXPECT_TRUE(sleepDisabled()) << app_->output() << readFile(state_);

  hook("Notification", R"(,"message":"Claude needs your permission to use Bash","title":"Permission needed",)"
                       R"("notification_type":"permission_prompt","some_new_field":[1,2])");
  EXPECT_TRUE(reasonBecomes("Claude Code is waiting for you")) << reason() << app_->output();
  EXPECT_TRUE(sleepDisabled());

  // Idle, then the Stop: a minute later, not sooner, it sleeps.
  ASSERT_TRUE(editSimStateFile(state_, SystemClock(), [&](SimLaptop& l) { l.setProcessWatts(pid, 0.0); }));
  hook("Stop", R"(,"stop_hook_active":false,"last_assistant_message":"Done.")");
  const auto stopped = std::chrono::steady_clock::now();
  EXPECT_TRUE(reasonBecomes("Claude Code stopped · sleeps in 1 min")) << reason() << app_->output();
  hook("SessionEnd", R"(,"reason":"prompt_input_exit")");
  EXPECT_TRUE(sleepDisabled());

  ASSERT_TRUE(waitFor([&] { return outputHas("» Claude Code finished"); }, 75s)) << app_->output();
  const double after = std::chrono::duration<double>(std::chrono::steady_clock::now() - stopped).count();
  EXPECT_GE(after, 58.0);
  EXPECT_LE(after, 66.0);
  EXPECT_NE(app_->output().find("alert: Claude Code finished after 2 min of work"), std::string::npos)
      << app_->output();
  EXPECT_NE(app_->output().find("alert: Claude Code needs you"), std::string::npos);
  EXPECT_TRUE(waitFor([&] { return !sleepDisabled(); }, 5s));
  EXPECT_FALSE(fileExists(home_ + "/agent-events/abc123.json"));
}

}  // namespace
}  // namespace vigilo::test
