#include <csignal>
#include <filesystem>

#include <gtest/gtest.h>

#include "commands/channel.h"
#include "e2e/app_process.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given the app in mode auto on a simulated laptop where a "claude" process
// runs, and Claude Code's hooks piped into the real `vigilo event`.
class AgentsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    home_ = dir_.file("home");
    state_ = dir_.file("laptop.json");
    std::filesystem::create_directories(home_);
    writeFile(home_ + "/config.json", R"({"mode": "auto", "quietMinutes": 1})");
    writeFile(state_, R"({"processes": [{"path": "/usr/local/bin/claude", "args": ["claude"],
                                         "cwd": "/home/me/vigilo", "watts": 0}]})");
    app_ = std::make_unique<AppProcess>(std::vector<std::string>{"app", "--simulate", state_}, home_,
                                        dir_.file("app.txt"));
    ASSERT_TRUE(waitFor([&] { return runningApp(home_).has_value(); }, 10s)) << app_->output();
  }
  void TearDown() override {
    app_->signal(SIGTERM);
    EXPECT_EQ(app_->wait(10s), 0) << app_->output();
  }
  void hook(const std::string& event, const std::string& extra = "") {
    const std::string input = R"({"session_id":"abc123","transcript_path":"/tmp/t.jsonl","cwd":"/home/me/vigilo",)"
                              R"("hook_event_name":")" + event + "\"" + extra + "}";
    ToolRun r = runToolWithInput({"event", "claude-code"}, home_, input);
    ASSERT_EQ(r.status, 0) << r.err;
  }
  std::string reason() {
    ToolRun r = runTool({"status", "--json"}, home_);
    if (r.status != 0) return "status failed: " + r.err;
    json s = json::parse(r.out, nullptr, false);
    return s.is_object() && s["reason"].is_string() ? s["reason"].get<std::string>() : std::string();
  }
  bool held() {
    SystemClock clock;
    SimLaptop laptop(clock);
    laptop.fromJson(json::parse(readFile(state_), nullptr, false));
    return laptop.sleepDisabled();
  }
  bool reasonBecomes(const std::string& expected) {
    return waitFor([&] { return reason() == expected; }, 10s);
  }

  TempDir dir_;
  std::string home_;
  std::string state_;
  std::unique_ptr<AppProcess> app_;
};

TEST_F(AgentsTest, ClaudeCodeHooksHoldWithTheRightReasonAndReleaseWhenDone) {
  hook("SessionStart", R"(,"source":"startup")");
  EXPECT_TRUE(reasonBecomes("")) << reason() << app_->output();
  EXPECT_FALSE(held());

  hook("UserPromptSubmit", R"(,"prompt":"fix the tests","permission_mode":"default")");
  EXPECT_TRUE(reasonBecomes("Claude Code is working in vigilo")) << reason() << app_->output();
  EXPECT_TRUE(held()) << app_->output() << readFile(state_);

  hook("Notification", R"(,"message":"Claude needs your permission to use Bash","title":"Permission needed",)"
                       R"("notification_type":"permission_prompt","some_new_field":[1,2])");
  EXPECT_TRUE(reasonBecomes("Claude Code is waiting for you")) << reason() << app_->output();
  EXPECT_TRUE(held());

  hook("Stop", R"(,"stop_hook_active":false,"last_assistant_message":"Done.")");
  EXPECT_TRUE(reasonBecomes("Claude Code stopped · sleeps in 1 min")) << reason() << app_->output();
  hook("SessionEnd", R"(,"reason":"prompt_input_exit")");
  EXPECT_TRUE(held());

  // The quiet minute passes: the hold ends with the agent's name.
  ASSERT_TRUE(waitFor([&] { return app_->output().find("» Claude Code finished") != std::string::npos; }, 75s))
      << app_->output();
  EXPECT_TRUE(waitFor([&] { return !held(); }, 5s));
  EXPECT_FALSE(fileExists(home_ + "/agent-events/abc123.json"));
}

}  // namespace
}  // namespace vigilo::test
