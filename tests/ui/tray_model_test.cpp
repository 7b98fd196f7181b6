#include "ui/tray_model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

#if VIGILO_GDK_PIXBUF
#include <gdk-pixbuf/gdk-pixbuf.h>
#endif

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
    const char* title = "";  // menubar "none" by default
  };
  const std::vector<Case> cases = {
      {"idle in When Busy", R"({"mode":"auto"})", nullptr, TrayIcon::SleepsNormally,
       "Nothing running · sleeps when closed", {"mode-auto", "preset-balanced"}},
      {"an agent works", R"({"mode":"auto","preset":"max_battery"})",
       [this] { work_.reason = "Claude Code is running a command"; }, TrayIcon::AwakeForWork,
       "Claude Code is running a command · stays awake closed", {"mode-auto", "preset-max_battery"}},
      {"Always, the battery beside the icon", R"({"mode":"on","menuBarText":"battery"})",
       [this] { laptop().setCharge(55.5); }, TrayIcon::AwakeAlways, "Awake until you turn it off",
       {"mode-always", "preset-balanced"}, "55%"},
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
    EXPECT_EQ(checked(v.menu), c.checked);
    EXPECT_EQ(v.title, c.title);
    work_.reason.reset();
  }
}

// Given holds and a choice of modes, each item's click does what it says,
// and a hold's item keeps naming that hold after another one ends.
TEST_F(TrayModelTest, ClicksChangeTheEngineThroughTheCommandCenter) {
  writeConfig(R"({"mode":"auto"})");
  launch();
  const Hold first = engine().addHold(std::string(100, 'x') + "_é", 30, std::nullopt, std::nullopt);
  const Hold second = engine().addHold("export", std::nullopt, std::nullopt, std::nullopt);
  const TrayView view = trayView(engine());
  const TrayMenuItem* item = findMenuItem(view.menu, "hold:" + first.id);
  ASSERT_NE(item, nullptr);
  EXPECT_LT(item->label.size(), 100u);  // cut, without splitting a character
  EXPECT_NE(item->label.find("…”"), std::string::npos);

  EXPECT_TRUE(click("hold:" + second.id)["ok"]);
  ASSERT_EQ(engine().holds().size(), 1u);
  EXPECT_EQ(engine().holds()[0].id, first.id);
  EXPECT_EQ(click("release-all")["ok"], false);  // gone with one hold left

  EXPECT_TRUE(click("always-2h")["ok"]);
  ASSERT_TRUE(engine().onUntil());
  EXPECT_NEAR(*engine().onUntil() - engine().now(), 7200, 1);
  EXPECT_NE(findMenuItem(trayView(engine()).menu, "always-until"), nullptr);
  EXPECT_TRUE(click("mode-always")["ok"]);
  EXPECT_FALSE(engine().onUntil());
  EXPECT_TRUE(click("preset-full_speed")["ok"]);
  EXPECT_EQ(engine().config().preset, Preset::FullSpeed);
  EXPECT_TRUE(click("hold:" + first.id)["ok"]);
  EXPECT_TRUE(engine().holds().empty());

  // "Open Vigilo…" and Quit ask the app like `vigilo open` and the quit request.
  const TrayView last = trayView(engine());
  EXPECT_EQ(findMenuItem(last.menu, "open")->action->cmd, "open");
  EXPECT_EQ(findMenuItem(last.menu, "quit")->action->cmd, "quit");
}

#if VIGILO_GDK_PIXBUF
// The WCAG relative luminance of an sRGB colour.
double luminance(double r, double g, double b) {
  auto lin = [](double c) { return c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4); };
  return 0.2126 * lin(r) + 0.7152 * lin(g) + 0.0722 * lin(b);
}

// The contrast between the colour most of an icon's drawn pixels have (once
// laid over `background`) and the background. Symbolic icons are first
// recoloured the way GTK does it for a host: every path, rect and circle is
// filled with the host's foreground, whatever the file says; strokes and
// other shapes keep the file's colours.
double iconContrast(const std::string& file, std::uint32_t background, const std::string& foreground) {
  std::string svg = readFile(file);
  if (!foreground.empty()) {
    const auto open = svg.find('>', svg.find("<svg"));
    svg.insert(open + 1, "<style>rect,circle,path{fill:" + foreground + " !important;}</style>");
  }
  GdkPixbufLoader* loader = gdk_pixbuf_loader_new();
  gdk_pixbuf_loader_set_size(loader, 24, 24);
  gdk_pixbuf_loader_write(loader, reinterpret_cast<const guchar*>(svg.data()), svg.size(), nullptr);
  gdk_pixbuf_loader_close(loader, nullptr);
  GdkPixbuf* pixbuf = gdk_pixbuf_loader_get_pixbuf(loader);
  if (pixbuf == nullptr || gdk_pixbuf_get_n_channels(pixbuf) != 4) {
    g_object_unref(loader);
    return 0;
  }
  const double bg[3] = {((background >> 16) & 0xff) / 255.0, ((background >> 8) & 0xff) / 255.0,
                        (background & 0xff) / 255.0};
  // Colours binned to 5 bits a channel, each with the luminance of its last pixel.
  std::map<std::uint32_t, std::pair<int, double>> bins;
  const guchar* pixels = gdk_pixbuf_get_pixels(pixbuf);
  const int stride = gdk_pixbuf_get_rowstride(pixbuf);
  for (int y = 0; y < gdk_pixbuf_get_height(pixbuf); ++y) {
    for (int x = 0; x < gdk_pixbuf_get_width(pixbuf); ++x) {
      const guchar* p = pixels + y * stride + x * 4;
      const double a = p[3] / 255.0;
      // Edges blended into the panel are no one's colour.
      if (a < 0.6) continue;
      double c[3];
      for (int i = 0; i < 3; ++i) c[i] = a * p[i] / 255.0 + (1 - a) * bg[i];
      const auto channel = [&](int i) { return std::uint32_t(c[i] * 31); };
      auto& bin = bins[channel(0) << 10 | channel(1) << 5 | channel(2)];
      bin = {bin.first + 1, luminance(c[0], c[1], c[2])};
    }
  }
  g_object_unref(loader);
  if (bins.empty()) return 0;
  const double fg = std::max_element(bins.begin(), bins.end(), [](const auto& a, const auto& b) {
                      return a.second.first < b.second.first;
                    })->second.second;
  const double panel = luminance(bg[0], bg[1], bg[2]);
  return (std::max(fg, panel) + 0.05) / (std::min(fg, panel) + 0.05);
}

TEST(TrayIconsTest, EveryIconReadsOnDarkAndLightPanels) {
  // Each state's icon comes in full colour and as the symbolic variant the
  // tray names where the host recolours icons (a missing file reads as no
  // contrast at all).
  const std::filesystem::path icons = std::filesystem::path(VIGILO_SOURCE_DIR) / "data/icons/hicolor";
  struct Panel {
    std::uint32_t background;
    const char* foreground;  // what the host paints symbolic icons in
  };
  std::vector<std::string> names{"vigilo"};  // the app's own icon too
  for (TrayIcon state : {TrayIcon::NeedsSetup, TrayIcon::Guarded, TrayIcon::AwakeAlways, TrayIcon::AwakeForWork,
                         TrayIcon::SleepsNormally}) {
    names.emplace_back(iconName(state));
  }
  for (const std::string& name : names) {
    for (const Panel& panel : {Panel{0x353535, "#eeeeec"}, Panel{0xf0f0f0, "#2e3436"}}) {
      SCOPED_TRACE(name + " on a panel of " + std::to_string(panel.background));
      EXPECT_GE(iconContrast((icons / "scalable/apps" / (name + ".svg")).string(), panel.background, ""), 3.0);
      EXPECT_GE(iconContrast((icons / "symbolic/apps" / (name + "-symbolic.svg")).string(), panel.background,
                             panel.foreground),
                3.0);
    }
  }
}
#endif

}  // namespace
}  // namespace vigilo::test
