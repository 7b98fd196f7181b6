#include "closedlid/closed_lid.h"

#include <map>

#include "engine/engine_fixture.h"

namespace vigilo::test {
namespace {

// Given the simulated laptop with a music player, an editor (with a helper
// inside its bundle), a container engine and a chat app installed and
// running, and a session that holds the laptop awake.
class ClosedLidTest : public EngineTest {
 protected:
  ClosedLidTest() {
    auto app = [&](const std::string& name, const std::string& id) {
      const std::string bundle = "/Applications/" + name + ".app";
      laptop().installApp(AppBundle{bundle, id, name});
      return laptop().startProcess(bundle + "/Contents/MacOS/" + name);
    };
    music = app("Spotify", "com.spotify.client");
    editor = app("TextEdit", "com.apple.TextEdit");
    helper = laptop().startProcess("/Applications/TextEdit.app/Contents/XPCServices/helper", {}, editor);
    docker = app("Docker", "com.docker.docker");
    chat = app("Slack", "com.tinyspeck.slackmacgap");
  }

  Engine& start(const std::string& config = R"({"mode": "on"})") {
    writeConfig(config);
    engine_ = std::make_unique<Engine>(*sim_, folder_);
    closedLid_ = std::make_unique<ClosedLid>(*engine_, [this] { return protection; });
    engine_->setWorkSource(&work_);
    engine_->setClosedLidSavings(closedLid_.get());
    closedLid_->setNoticeHandler([this](const Notice& n) { notices_.push_back(n.title + ": " + n.text); });
    engine_->launch();
    return *engine_;
  }
  // The engine dies without putting anything back.
  void crash() {
    closedLid_.reset();
    engine_.reset();
  }
  void closeLid() {
    laptop().setLidClosed(true);
    advance(2);
  }
  void openLid() {
    laptop().setLidClosed(false);
    advance(2);
  }
  // "paused", "slowed" or "running".
  std::string state(std::int32_t pid) {
    const SimProcess* p = laptop().process(pid);
    if (p == nullptr) return "gone";
    return p->stopped ? "paused" : p->slowed ? "slowed" : "running";
  }
  std::map<std::string, std::string> states() {
    return {{"music", state(music)}, {"editor", state(editor)}, {"helper", state(helper)},
            {"docker", state(docker)}, {"chat", state(chat)}};
  }
  void expectAllRunning() {
    for (const auto& [app, s] : states()) EXPECT_EQ(s, "running") << app;
  }
  // The records of every change the session makes are gone.
  bool recordsEmpty() {
    for (const char* f : {"touched.json", "resume-pids", "powermode-restore", "timemachine-restore",
                          "brightness-restore", "display-off"}) {
      if (files().exists(f)) return false;
    }
    return true;
  }

  std::int32_t music = 0, editor = 0, helper = 0, docker = 0, chat = 0;
  AgentProtection protection;
  std::unique_ptr<ClosedLid> closedLid_;
};

TEST_F(ClosedLidTest, EachPresetAndRuleChangesExactlyItsApps) {
  // {config, what becomes of music, editor, helper, docker and chat}
  const std::pair<const char*, std::vector<std::string>> cases[] = {
      {R"({"mode": "on", "preset": "max_battery"})", {"running", "paused", "paused", "slowed", "paused"}},
      {R"({"mode": "on", "preset": "max_battery", "appRules": {"com.tinyspeck.slackmacgap": "leave"}})",
       {"running", "paused", "paused", "slowed", "running"}},
      {R"({"mode": "on", "preset": "full_speed", "appRules": {"com.apple.TextEdit": "pause", )"
       R"("com.spotify.client": "slow"}})",
       {"slowed", "paused", "paused", "running", "running"}},
  };
  for (const auto& [config, expected] : cases) {
    SCOPED_TRACE(config);
    start(config);
    closeLid();
    EXPECT_EQ((std::vector{state(music), state(editor), state(helper), state(docker), state(chat)}), expected);
    openLid();
    expectAllRunning();
    EXPECT_TRUE(recordsEmpty());
    engine().shutdown();
    crash();
  }
}

TEST_F(ClosedLidTest, ClosedSessionDarkensAndSavesThenPutsAllBackWhenTheLidOpens) {
  // Given backups on, Low Power Mode off and a bright screen.
  laptop().setBrightness(0.8);
  start(R"({"mode": "on", "preset": "max_battery", "pauseTimeMachine": true})");
  closeLid();
  EXPECT_EQ(std::tuple(laptop().brightness(), laptop().powerMode("lowpowermode"), laptop().automaticBackups()),
            std::tuple(0.0, 1, false));
  EXPECT_TRUE(laptop().displayAssertion());
  EXPECT_TRUE(closedLid_->unrestored().empty()) << "nothing is 'unrestored' during a session";

  // A re-application every tick changes nothing more; two minutes without
  // internet go into the receipt.
  const auto before = laptop().commandCount();
  laptop().setOnline(false);
  advance(120);
  EXPECT_EQ(laptop().commandCount(), before);
  laptop().setOnline(true);
  advance(2);

  // The poll notices the lid opening within half a second.
  laptop().setLidClosed(false);
  advance(0.5);
  EXPECT_EQ(std::tuple(laptop().brightness(), laptop().powerMode("lowpowermode"), laptop().automaticBackups()),
            std::tuple(0.8, 0, true));
  EXPECT_FALSE(laptop().displayAssertion());
  expectAllRunning();
  EXPECT_TRUE(recordsEmpty());
  ASSERT_FALSE(notices_.empty());
  EXPECT_THAT(notices_.back(), testing::HasSubstr(" · no internet for 2 min"));
}

TEST_F(ClosedLidTest, TheSessionEndsWithTheHoldAndAtQuitAndNeverSignalsAReusedPid) {
  start(R"({"mode": "on", "preset": "max_battery"})");
  closeLid();
  ASSERT_EQ(state(editor), "paused");
  // The paused chat app dies and a stranger, paused by someone else, gets its pid.
  laptop().endProcess(chat);
  const auto stranger = laptop().startProcess("/usr/local/bin/other", {}, 1, chat);
  laptop().stop(stranger);
  engine().setMode(Mode::Off);
  EXPECT_EQ(std::tuple(state(editor), state(stranger)), std::tuple("running", "paused"));
  // A hold starting while the lid is still shut starts a session again.
  engine().addHold("training", std::nullopt, std::nullopt, std::nullopt);
  EXPECT_EQ(state(editor), "paused");
  engine().shutdown();
  EXPECT_EQ(state(editor), "running");
  EXPECT_TRUE(recordsEmpty());
}

TEST_F(ClosedLidTest, ACrashMidSessionIsPutBackAtTheNextLaunchButAReusedPidIsLeftAlone) {
  laptop().setBrightness(0.01);
  start(R"({"mode": "on", "preset": "max_battery", "pauseTimeMachine": true, "screenOffNoLock": true})");
  closeLid();
  ASSERT_EQ(state(chat), "paused");
  ASSERT_FALSE(laptop().builtInDisplayOn());
  crash();
  laptop().endProcess(chat);
  chat = laptop().startProcess("/usr/local/bin/other", {}, 1, chat);
  laptop().stop(chat);
  openLid();
  start(R"({"mode": "off"})");
  EXPECT_EQ(states(), (std::map<std::string, std::string>{{"music", "running"}, {"editor", "running"},
                                                             {"helper", "running"}, {"docker", "running"},
                                                             {"chat", "paused"}}));
  EXPECT_TRUE(laptop().builtInDisplayOn());
  EXPECT_EQ(laptop().brightness(), 0.5) << "a dark screen at the start never comes back black";
  EXPECT_EQ(std::tuple(laptop().powerMode("lowpowermode"), laptop().automaticBackups()), std::tuple(0, true));
  EXPECT_TRUE(recordsEmpty());
}

TEST_F(ClosedLidTest, ProtectedProcessesHeatAndAnExternalScreen) {
  protection.bundles = {"/Applications/Docker.app"};
  // An agent running in a terminal app: the terminal (and its other
  // processes) carries the agent's output and must keep running.
  laptop().installApp(AppBundle{"/Applications/iTerm.app", "com.googlecode.iterm2", "iTerm"});
  const auto terminal = laptop().startProcess("/Applications/iTerm.app/Contents/MacOS/iTerm2");
  const auto terminalHelper = laptop().startProcess("/Applications/iTerm.app/Contents/MacOS/helper");
  const auto shell = laptop().startProcess("/bin/zsh", {}, terminal);
  protection.pids = {laptop().startProcess("/usr/local/bin/claude", {}, shell)};
  start(R"({"mode": "off", "preset": "balanced"})");
  // A hold bound to the editor protects it and its helper.
  engine().addHold("editing", std::nullopt, editor, std::nullopt);
  laptop().setExternalDisplay(true);
  closeLid();
  EXPECT_FALSE(engine().lidClosed()) << "a shut laptop driving a screen is in use";
  EXPECT_EQ(state(chat), "running");
  laptop().setExternalDisplay(false);
  advance(2);
  ASSERT_TRUE(engine().lidClosed());
  // What an agent uses is never slowed.
  for (auto pid : {editor, helper, docker, terminal, terminalHelper, shell}) EXPECT_EQ(state(pid), "running") << pid;
  EXPECT_EQ(state(chat), "slowed");

  // Heat makes the targets strictest; once cool the preset comes back, each
  // change made once.
  laptop().setThermalState(2);
  advance(2);
  EXPECT_EQ(std::tuple(state(chat), state(music)), std::tuple("paused", "running"));
  laptop().setThermalState(0);
  advance(2);
  EXPECT_EQ(std::tuple(state(chat), state(music)), std::tuple("slowed", "slowed"));
  EXPECT_EQ(count("stop " + std::to_string(chat)), 1);
}

TEST_F(ClosedLidTest, WhatThePersonSetThemselvesIsNeitherRecordedNorUndone) {
  laptop().setLowPowerByUser(1);
  laptop().setBackupsByUser(false);
  start(R"({"mode": "on", "pauseTimeMachine": true})");
  closeLid();
  EXPECT_FALSE(files().exists("powermode-restore") || files().exists("timemachine-restore"));
  openLid();
  EXPECT_EQ(laptop().powerMode("lowpowermode"), 1);
  EXPECT_FALSE(laptop().automaticBackups());
}

TEST_F(ClosedLidTest, ScreenModes) {
  // lockOnClose: the screen sleeps and locks; nothing else is touched.
  start(R"({"mode": "on", "lockOnClose": true, "preset": "full_speed"})");
  closeLid();
  EXPECT_EQ(std::tuple(laptop().locked(), laptop().displayAssertion(), laptop().brightness()),
            std::tuple(true, false, 1.0));
  openLid();
  engine().shutdown();
  crash();

  // Switching the screen off locks this laptop within 12 s: back to the
  // dark screen for good, with a warning.
  laptop().setLocked(false);
  start(R"({"mode": "on", "screenOffNoLock": true, "preset": "full_speed"})");
  closeLid();
  ASSERT_FALSE(laptop().builtInDisplayOn());
  laptop().setLocked(true);
  advance(6);
  EXPECT_EQ(std::tuple(laptop().builtInDisplayOn(), engine().config().screenOffNoLock, laptop().brightness()),
            std::tuple(true, false, 0.0));
  EXPECT_THAT(closedLid_->warning().value_or(""), testing::HasSubstr("went back to the dark screen"));
}

TEST_F(ClosedLidTest, BootedSimulatorsAreShutDownOnceUnlessTestsRun) {
  struct Case {
    bool testsRunning;
    const char* preset;
    bool shutDown;
  } cases[] = {{false, "balanced", true}, {true, "balanced", false}, {false, "full_speed", false}};
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.preset) + (c.testsRunning ? " with tests" : ""));
    const auto device = laptop().startProcess("/Library/Developer/CoreSimulator/launchd_sim");
    const auto runner = c.testsRunning ? laptop().startProcess("/tmp/AppUITests-Runner") : 0;
    const long before = count("simctl shutdown all");
    start(std::string(R"({"mode": "on", "shutDownSimulators": true, "preset": ")") + c.preset + R"("})");
    closeLid();
    advance(4);
    EXPECT_EQ(count("simctl shutdown all") - before, c.shutDown ? 1 : 0);
    EXPECT_EQ(laptop().process(device) == nullptr, c.shutDown);
    openLid();
    engine().shutdown();
    crash();
    if (laptop().process(device)) laptop().endProcess(device);
    if (runner) laptop().endProcess(runner);
  }
}

TEST(ClosedTargets, BackgroundClassesAndSkips) {
  TargetInputs in;
  const std::pair<std::int32_t, const char*> procs[] = {
      {10, "/Applications/Xcode.app/Contents/Developer/Applications/Simulator.app/Contents/MacOS/Simulator"},
      {11, "/Library/Developer/CoreSimulator/launchd_sim"}, {12, "/usr/local/bin/player"},
      {13, "/usr/sbin/coreaudiod"}, {14, "/usr/bin/clang"}, {15, "/Applications/Music.app/Contents/MacOS/Music"},
      {16, "/tmp/MyAppUITests-Runner"}};
  for (const auto& [pid, path] : procs) {
    ProcessInfo p;
    p.pid = pid;
    p.ppid = 1;
    p.startMicros = 1000 + static_cast<std::uint64_t>(pid);
    p.path = path;
    in.processes.push_back(p);
  }
  const ProcessInfo runner = in.processes.back();
  in.processes.pop_back();
  in.bundles[15] = AppBundle{"/Applications/Music.app", "com.apple.Music", "Music"};
  PowerAssertion a;
  a.pid = 12;
  a.resources = {"audio-out"};
  PowerAssertion viaCoreAudio;
  viaCoreAudio.pid = 13;
  viaCoreAudio.processName = "coreaudiod";
  viaCoreAudio.name = "com.apple.audio.context.preventuseridlesleep pid 15";
  in.assertions = {a, viaCoreAudio};
  in.slowBuilds = true;
  in.preset = Preset::MaxBattery;

  auto rules = [](const std::map<std::int32_t, ClosedTarget>& m) {
    std::map<std::int32_t, std::string> out;
    for (const auto& [pid, t] : m) out[pid] = std::string(toText(t.rule));
    return out;
  };
  using M = std::map<std::int32_t, std::string>;
  // The booted device (11) is counted, never paused.
  EXPECT_EQ(scanBackgroundWork(in).simulators, 1);
  EXPECT_EQ(rules(closedTargets(in, {})), (M{{10, "pause"}, {12, "pause"}, {14, "slow"}}));
  EXPECT_EQ(rules(closedTargets(in, {"simulators", "builds"})), (M{{12, "pause"}}));
  EXPECT_EQ(rules(closedTargets(in, {"audio"})), (M{{10, "pause"}, {14, "slow"}}));

  // A UI test runner keeps simulators running; so does an agent using Xcode.
  in.processes.push_back(runner);
  EXPECT_EQ(rules(closedTargets(in, {"audio", "builds"})), M{});
  in.processes.pop_back();
  in.agentBundles = {"com.apple.dt.Xcode"};
  EXPECT_EQ(rules(closedTargets(in, {"audio", "builds"})), M{});

  // Protected trees: a hold on 1 covers everything started under it.
  in.agentBundles.clear();
  in.holdPids = {1};
  EXPECT_EQ(rules(closedTargets(in, {})), M{});
}

}  // namespace
}  // namespace vigilo::test
