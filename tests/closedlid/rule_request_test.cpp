#include "closedlid/closed_lid.h"

#include <nlohmann/json.hpp>
#include "commands/command_center.h"
#include "engine/engine_fixture.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

// Given an editor running, a music app installed but not running, a tool
// in a bundle without an id, and the command center with the session.
class RuleRequestTest : public EngineTest {
 protected:
  void SetUp() override {
    laptop().installApp(AppBundle{"/Applications/TextEdit.app", "com.apple.TextEdit", "TextEdit"});
    editor_ = laptop().startProcess("/Applications/TextEdit.app/Contents/MacOS/TextEdit");
    laptop().installApp(AppBundle{"/Applications/Spotify.app", "com.spotify.client", "Spotify"});
    laptop().installApp(AppBundle{"/Applications/Loose.app", std::nullopt, "Loose"});
    writeConfig(R"({"mode": "on", "preset": "max_battery"})");
    engine_ = std::make_unique<Engine>(*sim_, folder_);
    closedLid_ = std::make_unique<ClosedLid>(*engine_);
    engine_->setClosedLidSavings(closedLid_.get());
    engine_->launch();
    center_ = std::make_unique<CommandCenter>(*engine_, [] {});
    center_->setClosedLid(closedLid_.get());
  }
  void TearDown() override {
    center_.reset();
    engine_->shutdown();
    engine_.reset();
  }
  json rule(const std::string& app, const std::string& r) { return center_->handle("rule", {{"app", app}, {"rule", r}}); }

  std::int32_t editor_ = 0;
  std::unique_ptr<ClosedLid> closedLid_;
  std::unique_ptr<CommandCenter> center_;
};

TEST_F(RuleRequestTest, LooksAppsUpAndRepliesWithTheRuleInForce) {
  struct Row {
    std::string app, rule, reply;  // reply: the rule in force, or the error
    bool ok;
  } rows[] = {
      {"TextEdit", "leave", "leave", true},
      {"com.apple.textedit", "default", "pause (preset default)", true},
      {"Spotify", "reset", "leave (preset default)", true},
      {"/Applications/Spotify.app", "slow", "slow", true},
      {"TextEdit", "fast", "rule must be leave, slow, pause or default", false},
      {"Nowhere", "pause", "Couldn't find an app called Nowhere", false},
      {"Loose", "pause", "Loose has no bundle id", false},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.app + " " + r.rule);
    json reply = rule(r.app, r.rule);
    EXPECT_EQ(reply.value("ok", false), r.ok);
    EXPECT_EQ(reply.value(r.ok ? "rule" : "error", std::string()), r.reply);
  }
  // Only explicit rules are stored; "default" removed the editor's.
  EXPECT_EQ(engine_->config().appRules, (std::map<std::string, AppRule>{{"com.spotify.client", AppRule::Slow}}));
}

TEST_F(RuleRequestTest, APresetOrRuleTakesEffectAtOnceWhileTheLidIsShut) {
  laptop().setLidClosed(true);
  advance(2);
  ASSERT_TRUE(laptop().process(editor_)->stopped);
  EXPECT_EQ(center_->handle("preset", {{"preset", "balanced"}})["preset"], "balanced");
  EXPECT_FALSE(laptop().process(editor_)->stopped);
  EXPECT_TRUE(laptop().process(editor_)->slowed);
  rule("TextEdit", "leave");
  EXPECT_FALSE(laptop().process(editor_)->stopped);
  EXPECT_FALSE(laptop().process(editor_)->slowed);
  json status = center_->statusDictionary();
  EXPECT_EQ(status["app_rules"]["com.apple.TextEdit"], "leave");
  EXPECT_EQ(status["unrestored"], json::array());
  EXPECT_EQ(status["targeted"].size(), 0u) << "the editor is left now";
  EXPECT_EQ(status["receipt"]["agent"], "Always awake");
  EXPECT_EQ(status["receipt"]["start_percent"], 80);
  EXPECT_TRUE(status["receipt"]["opened_at"].is_null());
  laptop().setLidClosed(false);
  advance(2);
  status = center_->statusDictionary();
  EXPECT_FALSE(status["receipt"]["opened_at"].is_null());
  EXPECT_EQ(status["receipt"]["line"], "Stayed awake 0 min");
}

}  // namespace
}  // namespace vigilo::test
