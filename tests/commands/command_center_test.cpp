#include "commands/command_center.h"

#include <chrono>
#include <cmath>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <regex>
#include <sys/stat.h>
#include <tuple>

#include "agents/agent_work.h"
#include "closedlid/closed_lid.h"
#include "commands/cli.h"
#include "commands/cli_print.h"
#include "e2e/app_process.h"
#include "engine/engine_fixture.h"
#include "platform/linux/linux_platform.h"
#include "remote/phone_commands.h"
#include "savings/power_watch.h"
#include "savings/savings.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

TEST(ArgumentReadersTest, ReadNumbersTextAndTruthLeniently) {
  json args = json::parse(R"({"n": 5, "s": "12.5", "pad": " 3", "big": 99999, "inf": "inf",
                              "zero": 0, "t": "yes"})");
  // Bounded both ways before any conversion to an integer.
  EXPECT_EQ(numberArg(json{{"v", -1e300}}, "v", 2147483647), -2147483647);
  const std::tuple<const char*, double, std::optional<double>> numbers[] = {
      {"s", 100, 12.5}, {"pad", 100, std::nullopt}, {"big", 10080, 10080}, {"inf", 100, std::nullopt}};
  for (const auto& [key, bound, expected] : numbers) EXPECT_EQ(numberArg(args, key, bound), expected) << key;
  EXPECT_EQ(truthArg(args, "zero"), false);
  EXPECT_FALSE(truthArg(args, "t"));
  EXPECT_FALSE(textArg(args, "n"));
}

TEST(DurationTest, ParsesMinutesHoursAndMixes) {
  struct Row {
    const char* text;
    std::optional<double> minutes;
  } rows[] = {{"90", 90},           {"1H30M", 90},         {"1.5h", 90},         {"20000", 10080},
              {"h", std::nullopt},  {"1h30", std::nullopt}, {"-5", std::nullopt}, {"1..5h", std::nullopt},
              {"1e3", std::nullopt}, {"inf", std::nullopt}};
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    EXPECT_EQ(parseDuration(r.text), r.minutes);
  }
}

// Given the engine on a simulated laptop, with the app's closed-lid
// session, power watch and savings behind the command center.
class CommandCenterTest : public EngineTest {
 protected:
  void SetUp() override { start(R"({"mode": "off"})"); }
  void start(const std::string& config) {
    writeConfig(config);
    engine_ = std::make_unique<Engine>(machine(), folder_);
    closedLid_ = std::make_unique<ClosedLid>(*engine_);
    power_ = std::make_unique<PowerWatch>(folder_, nullptr);
    power_->setPlan([this] { return closedLid_->plan(); });
    engine_->setPowerMeter(power_.get());
    savings_ = std::make_unique<Savings>(*engine_, *closedLid_, power_.get());
    engine_->setWorkSource(&work_);
    engine_->setClosedLidSavings(savings_.get());
    engine_->launch();
    center_ = std::make_unique<CommandCenter>(*engine_, [this] { quitAsked_ = true; });
    center_->setAgents(nullptr, power_.get());
    center_->setClosedLid(closedLid_.get());
    center_->setSavings(savings_.get());
  }
  void TearDown() override {
    center_.reset();
    engine_->shutdown();
    engine_.reset();
  }
  json call(const std::string& cmd, const json& args = json::object()) { return center_->handle(cmd, args); }
  static std::string error(const json& reply) { return reply.value("error", std::string()); }

  std::unique_ptr<PowerWatch> power_;
  std::unique_ptr<ClosedLid> closedLid_;
  std::unique_ptr<Savings> savings_;
  std::unique_ptr<CommandCenter> center_;
  bool quitAsked_ = false;
};

TEST_F(CommandCenterTest, HoldArgumentsAreBoundedAndChecked) {
  json r = call("hold", {{"minutes", 20000}, {"owner", 42}});
  ASSERT_TRUE(r["ok"]);
  EXPECT_EQ(r["hold"]["reason"], "Asked to stay awake");
  EXPECT_DOUBLE_EQ(r["hold"]["end"].get<double>() - r["hold"]["start"].get<double>(), 10080 * 60.0);
  EXPECT_EQ(r["hold"]["owner"], 42);

  EXPECT_EQ(error(call("hold", {{"minutes", -3}})), "minutes must be more than 0");
  const std::int32_t pid = laptop().startProcess("/usr/bin/make");
  EXPECT_EQ(call("hold", {{"pid", std::to_string(pid)}})["hold"]["pid"], pid);
  for (const json& bad : {json(-1e300), json(1e300), json(1.5)}) {
    // A huge number is cut to the bound: a process id that names nothing.
    if (bad != json(1e300)) {
      EXPECT_EQ(error(call("release_pid", {{"pid", bad}})), "pid must be a process id") << bad;
    }
    EXPECT_EQ(error(call("hold", {{"pid", bad}})), "pid must be a running process id") << bad;
  }

  // A long reason is cut, whole characters only, and the reply says so.
  std::string reason;
  for (int i = 0; i < 50000; ++i) reason += "\xc3\xa9";  // é
  json cut = call("hold", {{"reason", reason}});
  const std::string kept = cut["hold"]["reason"];
  EXPECT_LE(kept.size(), 200u);
  EXPECT_EQ(kept.substr(kept.size() - 3), "\u2026");
  EXPECT_EQ(cut["note"], "The reason was cut to 200 bytes.");
}

TEST_F(CommandCenterTest, ClientsOnlyReleaseTheirOwnHolds) {
  const std::string mine = call("hold", {{"owner", 42}})["hold"]["id"];
  const std::string theirs = call("hold", {{"owner", 77}})["hold"]["id"];

  EXPECT_EQ(error(call("release_own", {{"id", theirs}, {"pid", 42}})), "no hold " + theirs + " made by this session");
  EXPECT_EQ(call("release_own", {{"id", mine}, {"pid", 42}})["released"], json::array({mine}));
  EXPECT_EQ(call("release_pid", {{"pid", 42}})["released"], json::array());
  EXPECT_EQ(engine().holds().size(), 1u);
  EXPECT_EQ(error(call("release")), "id: the hold to end (see vigilo status), or all: true");
  EXPECT_EQ(call("release", {{"all", true}})["released"], json::array({theirs}));
  EXPECT_FALSE(engine().holding());
}

TEST_F(CommandCenterTest, ModesPresetsWatchesAndRefusals) {
  call("mode", {{"mode", "when_busy"}});
  EXPECT_EQ(engine().config().mode, Mode::Auto);
  EXPECT_EQ(error(call("mode", {{"mode", "sometimes"}})), "mode must be off, when_busy (auto) or always");
  json always = call("mode", {{"mode", "always"}, {"minutes", 90}});
  EXPECT_EQ(always["mode"], "always");
  EXPECT_DOUBLE_EQ(always["always_until"].get<double>(), clock_.now() + 5400);
  EXPECT_TRUE(engine().holding());

  EXPECT_EQ(error(call("preset", {{"preset", "turbo"}})), "preset must be max_battery, balanced or full_speed");
  EXPECT_EQ(call("preset", {{"preset", "max_battery"}})["preset"], "max_battery");
  EXPECT_EQ(Config::decode(readFile(folder_ + "/config.json"))->preset, Preset::MaxBattery);

  EXPECT_EQ(call("watch", {{"app", "Xcode"}})["watch_list"], json::array({"Xcode"}));
  EXPECT_EQ(error(call("watch", {{"app", "Safari"}, {"remove", true}})), "Safari isn't on the list");
  EXPECT_EQ(error(call("agent", {{"name", "aider"}, {"executable", "no-such-tool-here"}})),
            "Couldn't find no-such-tool-here");
  EXPECT_EQ(call("agent", {{"name", "shell"}, {"executable", "sh"}})["custom_agents"][0]["executables"],
            json::array({"sh"}));

  EXPECT_EQ(error(call("override_floor", {{"on", 1}, {"force", true}})),
            "Going below the battery limit can only be allowed in Vigilo itself");
  EXPECT_EQ(error(call("frobnicate")), "Unknown command frobnicate");
}

// Given an editor running, a music app installed but not running and a
// tool in a bundle without an id, held awake.
class CommandCenterRulesTest : public CommandCenterTest {
 protected:
  void SetUp() override {
    laptop().installApp(AppBundle{"/Applications/TextEdit.app", "com.apple.TextEdit", "TextEdit"});
    editor_ = laptop().startProcess("/Applications/TextEdit.app/Contents/MacOS/TextEdit");
    laptop().installApp(AppBundle{"/Applications/Spotify.app", "com.spotify.client", "Spotify"});
    laptop().installApp(AppBundle{"/Applications/Loose.app", std::nullopt, "Loose"});
    start(R"({"mode": "on", "preset": "max_battery"})");
  }
  json rule(const std::string& app, const std::string& r) { return call("rule", {{"app", app}, {"rule", r}}); }

  std::int32_t editor_ = 0;
};

// Rules look apps up by name, id or path and reply with the rule in force;
// with the lid shut a new preset or rule takes effect at once.
TEST_F(CommandCenterRulesTest, RulesLookAppsUpAndTakeEffectAtOnceWhileTheLidIsShut) {
  struct Row {
    std::string app, rule, reply;  // reply: the rule in force, or the error
    bool ok;
  } rows[] = {
      {"TextEdit", "leave", "leave", true},
      {"com.apple.textedit", "default", "pause (preset default)", true},
      {"Spotify", "reset", "leave (preset default)", true},
      {"/Applications/Spotify.app", "slow", "slow", true},
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

  laptop().setLidClosed(true);
  advance(2);
  ASSERT_TRUE(laptop().process(editor_)->stopped);
  EXPECT_EQ(call("preset", {{"preset", "balanced"}})["preset"], "balanced");
  EXPECT_FALSE(laptop().process(editor_)->stopped);
  EXPECT_TRUE(laptop().process(editor_)->slowed);
  rule("TextEdit", "leave");
  EXPECT_FALSE(laptop().process(editor_)->stopped || laptop().process(editor_)->slowed);
  json status = center_->statusDictionary();
  EXPECT_EQ(status["targeted"].size(), 0u) << "the editor is left now";
  EXPECT_EQ(status["receipt"]["agent"], "Always awake");
  laptop().setLidClosed(false);
  advance(2);
  EXPECT_EQ(center_->statusDictionary()["receipt"]["line"], "Stayed awake 0 min");
}

TEST_F(CommandCenterTest, ReceiveAnswersOnlyRequestsItsCallerStillWaitsFor) {
  const double now = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
  // The caller has given up on these: neither done nor answered.
  center_->receive(json{{"id", "late-1"}, {"cmd", "hold"}, {"deadline", now - 1}}.dump());
  center_->receive(json{{"id", "late-2"}, {"cmd", "hold"}, {"deadline", now + 0.1}}.dump());
  EXPECT_TRUE(engine().holds().empty());
  EXPECT_FALSE(fileExists(folder_ + "/replies/late-1.json") || fileExists(folder_ + "/replies/late-2.json"));
  center_->receive(json{{"id", "on-time"}, {"cmd", "status"}, {"deadline", now + 60}}.dump());
  center_->receive(R"({"id":"A-3","cmd":"quit"})");
  EXPECT_TRUE(quitAsked_);
  // Replies name projects and holds: only the user may read them.
  struct stat file {};
  ASSERT_EQ(::stat((folder_ + "/replies/on-time.json").c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777, 0600u);
}

TEST_F(CommandCenterTest, SettingsChangedFromOutsideDropTheEndTimeAndTheReplyShowsTheMenuBarTitle) {
  // Given Always for 30 minutes, then `vigilo set mode auto` and `set mode on`.
  call("mode", {{"mode", "always"}, {"minutes", 30}});
  ASSERT_TRUE(call("set", {{"key", "mode"}, {"value", "auto"}})["ok"]);
  EXPECT_FALSE(engine().config().alwaysUntil);
  EXPECT_EQ(call("set", {{"key", "mode"}, {"value", "on"}})["status"], "Awake until you turn it off");
  advance(31 * 60);
  EXPECT_EQ(engine().config().mode, Mode::On);
  EXPECT_TRUE(engine().holding());

  // The time left beside the icon follows the lid-closed estimate while the
  // lid is shut, as the reply's own hours do, not the battery's figure for
  // the draw of the moment.
  call("mode", {{"mode", "off"}});
  ASSERT_TRUE(call("set", {{"key", "menubar"}, {"value", "timeLeft"}})["ok"]);
  laptop().setLidClosed(true);
  laptop().setDraw(20);
  advance(2);
  json r = call("status");
  ASSERT_TRUE(r["hours_left_closed"].is_number());
  const double hours = r["hours_left_closed"];
  char expected[16];
  std::snprintf(expected, sizeof expected, hours >= 1 ? "%.0fh" : "%.0fm", hours >= 1 ? hours : hours * 60);
  EXPECT_EQ(r["menu_bar_title"], expected);
  ASSERT_TRUE(r["battery"]["minutes_left"].is_number());
  EXPECT_NE(std::lround(hours * 60), r["battery"]["minutes_left"].get<long>());
}

TEST_F(CommandCenterTest, ThePanelNamesIgnoredSleepBlockersAndThePowerReportAnExternalScreen) {
  // Given caffeinate holding sleep off while such requests don't count.
  AgentWork work(*sim_, folder_, dir_.file("home"), nullptr);
  engine().setWorkSource(&work);
  center_->setAgents(&work, power_.get());
  ASSERT_TRUE(call("set", {{"key", "downloads"}, {"value", false}})["ok"]);
  const std::int32_t caffeinate = laptop().startProcess("/usr/bin/caffeinate", {"caffeinate", "-i"});
  PowerAssertion a;
  a.pid = caffeinate;
  a.type = "PreventUserIdleSystemSleep";
  a.name = "caffeinate command-line tool";
  a.since = clock_.now();
  ASSERT_TRUE(laptop().addPowerAssertion(a));
  advance(2);
  EXPECT_EQ(call("panel")["ignored_sleep_blockers"],
            json::parse(R"([{"pid": )" + std::to_string(caffeinate) + R"(, "name": "caffeinate", "since": )" +
                        json(*a.since).dump() + "}]"));
  // Counted, it is no longer ignored.
  ASSERT_TRUE(call("set", {{"key", "downloads"}, {"value", true}})["ok"]);
  advance(2);
  EXPECT_EQ(call("panel")["ignored_sleep_blockers"], json::array());

  laptop().setExternalDisplay(true);
  EXPECT_EQ(call("power")["external_display"], true);
  center_->setAgents(nullptr, power_.get());
  engine().setWorkSource(&work_);
}


// Given the laptop speaking the Linux backend's words, held awake, and a
// chat app drawing power.
class LinuxWordsTest : public CommandCenterTest {
 protected:
  void SetUp() override {
    speak(linuxMachineWords());
    laptop().setTelemetry(true);
    laptop().setProcessWatts(laptop().startProcess("/usr/bin/chat"), 4.0);
    start(R"({"mode": "on", "preset": "max_battery", "menuBarText": "watts"})");
  }
  // What a print function of the tool writes.
  static std::string printed(const std::function<void()>& print) {
    testing::internal::CaptureStdout();
    print();
    return testing::internal::GetCapturedStdout();
  }
};

TEST_F(LinuxWordsTest, EveryTextNamesThisMachineAndNothingOfTheMac) {
  const MachineWords& words = linuxMachineWords();
  // Each text with what it says this machine does instead of the Mac.
  std::vector<std::tuple<std::string, std::string, std::string>> texts;
  auto add = [&](const std::string& name, const std::string& text, const std::string& said = "") {
    texts.emplace_back(name, text, said);
  };

  // The tool's own texts, from the real binary on this Linux machine; none
  // of them starts an app.
  const std::string home = dir_.file("tool");
  const std::vector<std::string> env = {"HOME=" + dir_.file("person")};
  add("help", runTool({"help"}, home, env).out, "keep your Linux machine awake");
  add("pair", runTool({"pair", "--no-qr"}, home, env).out, "can control this Linux machine.");
  add("doctor", runTool({"doctor"}, home, env).out);
  add("mcp",
      runToolWithInput({"mcp"}, home,
                       R"({"jsonrpc": "2.0", "id": 1, "method": "initialize", "params": {}})"
                       "\n"
                       R"({"jsonrpc": "2.0", "id": 2, "method": "tools/list"})"
                       "\n",
                       env)
          .out,
      "the battery's draw, measured only while on battery");

  // The app's replies, printed as the tool prints them and whole (--json).
  auto reply = [&](const std::string& name, const json& r, const std::function<void()>& print,
                   const std::string& said) {
    add(name, printed(print), said);
    add(name + " --json", r.dump());
  };
  const json schema = call("schema");
  reply("settings", schema, [&] { cli::printSettings(schema); }, "Ctrl+Alt+Super+A cycles the mode.");
  add("power test, lid open", call("power_test").value("error", std::string()));
  laptop().setLidClosed(true);
  advance(4);
  const json status = call("status");
  reply("status", status, [&] { cli::printStatus(status, words); }, "Tray: ");

  ASSERT_TRUE(call("power_test", {{"detailed", true}})["ok"]);
  std::string progress;
  for (int t = 0; t < 900 && savings_->test().running(); ++t) {
    progress += savings_->test().progress().value_or("") + "\n";
    advance(1);
  }
  add("power test progress", progress, "Measuring the power-saver profile, 1 of 2");
  const json measured = call("power");
  reply("power", measured, [&] { cli::printPower(measured, words); }, "The power-saver profile: saves");
  ASSERT_TRUE(call("power_test")["ok"]);
  laptop().setThermalState(2);
  advance(2);
  const json aborted = call("power");
  reply("power, test aborted", aborted, [&] { cli::printMeasured(aborted, words); }, "the Linux machine got too hot");
  laptop().setThermalState(0);
  laptop().removeLid();
  advance(2);
  add("power test, no lid", call("power_test").value("error", std::string()),
      "This Linux machine has no lid that Vigilo can read");

  const std::regex mac(R"(\bMacs?\b|macOS|menu bar|\bDock\b|⌃|⌘|Time Machine|pmset|\biOS\b)");
  for (const auto& [name, text, said] : texts) {
    std::smatch found;
    EXPECT_FALSE(text.empty()) << name;
    EXPECT_FALSE(std::regex_search(text, found, mac)) << found.str() << " in " << name << ":\n" << text;
    EXPECT_NE(text.find(said), std::string::npos) << name << ":\n" << text;
  }
}

TEST_F(LinuxWordsTest, ASettingTheMachineLacksIsStoredAndSaysSo) {
  const json r = call("set", {{"key", "show_in_dock"}, {"value", "on"}});
  ASSERT_TRUE(r["ok"]) << r;
  EXPECT_EQ(r["note"],
            "show_in_dock is saved, but this Linux machine can't honour it: On Linux Vigilo lives in the tray; there "
            "is no separate app icon to show or hide.");
  EXPECT_EQ(json::parse(readFile(folder_ + "/config.json"))["showInDock"], true) << "kept for a machine that has it";
  EXPECT_EQ(phoneReply(r, "set")["note"], r["note"]) << "the phone hears it too";
  for (const json& s : call("schema")["settings"]) {
    if (s["key"] == "show_in_dock") {
      EXPECT_EQ(s["available"], false);
    }
  }
  EXPECT_FALSE(call("set", {{"key", "hotkey"}, {"value", "off"}}).contains("note"));
}

}  // namespace
}  // namespace vigilo::test
