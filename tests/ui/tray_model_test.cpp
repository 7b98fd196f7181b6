#include "ui/tray_model.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "commands/command_center.h"
#include "engine/engine_fixture.h"

namespace vigilo::test {
namespace {

class TrayModelTest : public EngineTest {
 protected:
  // The keys of the checked radio items, in menu order.
  static std::vector<std::string> checked(const std::vector<TrayMenuItem>& menu) {
    std::vector<std::string> out;
    std::function<void(const std::vector<TrayMenuItem>&)> walk = [&](const std::vector<TrayMenuItem>& items) {
      for (const auto& i : items) {
        if (i.checked) out.push_back(i.key);
        walk(i.children);
      }
    };
    walk(menu);
    return out;
  }
  // Clicks the item with `key` as the tray does: through the command center.
  nlohmann::json click(const std::string& key) {
    const TrayView view = trayView(engine());
    const TrayMenuItem* item = findMenuItem(view.menu, key);
    if (item == nullptr || !item->enabled || !item->action) return {{"ok", false}, {"error", "no such item"}};
    CommandCenter center(engine(), [] {});
    return center.handle(item->action->cmd, item->action->args);
  }
};

// Given the simulated laptop in each state a person can meet, the icon,
// tooltip, title and checked items say the same thing as the status line.
TEST_F(TrayModelTest, IconTooltipAndCheckedItemsFollowTheEngine) {
  struct Case {
    const char* name;
    const char* config;
    std::function<void()> arrange;
    TrayIcon icon;
    const char* tooltip;
    std::vector<std::string> checked;
  };
  const std::vector<Case> cases = {
      {"idle in When Busy", R"({"mode":"auto"})", nullptr, TrayIcon::SleepsNormally,
       "Nothing running · sleeps when closed", {"mode-auto", "preset-balanced"}},
      {"an agent works", R"({"mode":"auto","preset":"max_battery"})",
       [this] { work_.reason = "Claude Code is running a command"; }, TrayIcon::AwakeForWork,
       "Claude Code is running a command · stays awake closed", {"mode-auto", "preset-max_battery"}},
      {"a hold in mode Off", R"({"mode":"off"})",
       [this] { engine().addHold("training", std::nullopt, std::nullopt, std::nullopt); },
       TrayIcon::AwakeForWork, "training · stays awake closed", {"mode-off", "preset-balanced"}},
      {"Always", R"({"mode":"on"})", nullptr, TrayIcon::AwakeAlways, "Awake until you turn it off",
       {"mode-always", "preset-balanced"}},
      {"Always but on battery with only-on-power", R"({"mode":"on","onlyOnPower":true})",
       [this] { laptop().setAdapter(false, false); }, TrayIcon::Guarded,
       "Only on power, sleeps when closed", {"mode-always", "preset-balanced"}},
      {"setup missing beats a guard", R"({"mode":"on","onlyOnPower":true})",
       [this] {
         laptop().setAdapter(false, false);
         laptop().setSetup(false, "The sudoers rule is missing.");
       },
       TrayIcon::NeedsSetup, "Needs a one-time setup", {"mode-always", "preset-balanced"}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    engine_.reset();
    writeConfig(c.config);
    launch();
    if (c.arrange) c.arrange();
    advance(10);  // the setup is looked at on the slow beat
    TrayView v = trayView(engine());
    EXPECT_EQ(v.icon, c.icon);
    EXPECT_EQ(v.tooltip, c.tooltip);
    EXPECT_EQ(v.tooltip, engine().statusLine());
    EXPECT_EQ(checked(v.menu), c.checked);
    EXPECT_EQ(v.title, "");  // menubar "none" by default
    work_.reason.reset();
  }

  // The title beside the icon follows the menubar setting.
  engine_.reset();
  writeConfig(R"({"mode":"on","menuBarText":"battery"})");
  launch();
  advance(2);
  TrayView v = trayView(engine());
  EXPECT_FALSE(v.title.empty());
  EXPECT_EQ(v.title, engine().menuBarTitle());
  EXPECT_EQ(v.title.back(), '%');
}

// Given holds and a choice of modes, each item's click does what it says,
// and a hold's item keeps naming that hold after another one ends.
TEST_F(TrayModelTest, ClicksChangeTheEngineThroughTheCommandCenter) {
  writeConfig(R"({"mode":"auto"})");
  launch();
  const Hold first = engine().addHold(std::string(100, 'x') + "_é", 30, std::nullopt, std::nullopt);
  const Hold second = engine().addHold("export", std::nullopt, std::nullopt, std::nullopt);
  TrayView v = trayView(engine());
  const TrayMenuItem* item = findMenuItem(v.menu, "hold:" + first.id);
  ASSERT_NE(item, nullptr);
  EXPECT_LT(item->label.size(), 100u);  // cut, without splitting a character
  EXPECT_NE(item->label.find("…”"), std::string::npos);
  ASSERT_NE(findMenuItem(v.menu, "release-all"), nullptr);

  EXPECT_TRUE(click("hold:" + second.id)["ok"]);
  ASSERT_EQ(engine().holds().size(), 1u);
  EXPECT_EQ(engine().holds()[0].id, first.id);
  EXPECT_EQ(findMenuItem(trayView(engine()).menu, "release-all"), nullptr);

  EXPECT_TRUE(click("always-2h")["ok"]);
  EXPECT_EQ(engine().config().mode, Mode::On);
  ASSERT_TRUE(engine().onUntil());
  EXPECT_NEAR(*engine().onUntil() - engine().now(), 7200, 1);
  EXPECT_NE(findMenuItem(trayView(engine()).menu, "always-until"), nullptr);

  EXPECT_TRUE(click("mode-always")["ok"]);
  EXPECT_FALSE(engine().onUntil());
  EXPECT_TRUE(click("preset-full_speed")["ok"]);
  EXPECT_EQ(engine().config().preset, Preset::FullSpeed);
  EXPECT_TRUE(click("mode-off")["ok"]);
  EXPECT_EQ(engine().config().mode, Mode::Off);
  EXPECT_TRUE(click("release-all")["ok"] == false);  // gone with one hold left
  EXPECT_TRUE(click("hold:" + first.id)["ok"]);
  EXPECT_TRUE(engine().holds().empty());
  EXPECT_FALSE(engine().holding());

  // "Open Vigilo…" asks the app for its panel like `vigilo open`.
  const TrayView last = trayView(engine());
  const TrayMenuItem* open = findMenuItem(last.menu, "open");
  ASSERT_NE(open, nullptr);
  ASSERT_TRUE(open->action.has_value());
  EXPECT_EQ(open->action->cmd, "open");
  EXPECT_EQ(findMenuItem(trayView(engine()).menu, "quit")->action->cmd, "quit");
}

}  // namespace
}  // namespace vigilo::test
