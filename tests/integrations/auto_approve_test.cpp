#include <cstdlib>
#include <filesystem>
#include <functional>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <toml++/toml.h>

#include "commands/command_center.h"
#include "engine/engine.h"
#include "engine/engine_fixture.h"
#include "integrations/auto_approve.h"
#include "integrations/toml_top.h"
#include "safety/watchdog.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using ordered_json = nlohmann::ordered_json;

const std::string kClaudeOriginal =
    "{\r\n  \"permissions\": {\r\n    \"allow\": [\r\n      \"Bash(npm test)\"\r\n    ],\r\n    \"defaultMode\": "
    "\"acceptEdits\"\r\n  },\r\n  \"model\": \"opus\",\r\n  \"statusLine\": \"zoë\"\r\n}\r\n";
const std::string kCodexOriginal =
    "# Codex, by hand\r\nmodel = \"o3\"\r\napproval_policy = 'on-request' # ask me\r\n\r\n[tui]\r\nnotifications = "
    "true";

// Given the person's Claude Code and Codex settings in a home folder of
// their own, and Approve everything on a manual clock.
class AutoApproveTest : public ::testing::Test {
 protected:
  void SetUp() override {
    places_.home = dir_.file("home");
    std::filesystem::create_directories(places_.home + "/.claude");
    std::filesystem::create_directories(places_.home + "/.codex");
    writeFile(claudePath(), kClaudeOriginal);
    writeFile(codexPath(), kCodexOriginal);
  }
  AutoApprove approve() { return AutoApprove(dir_.file("app"), places_, clock_); }
  std::string claudePath() const { return places_.claudeSettings(); }
  std::string codexPath() const { return places_.codexConfig(); }
  std::string appFile(const std::string& name) const { return dir_.file("app/" + name); }
  std::string turnOn(AutoApprove::Ends ends = AutoApprove::Ends::Manual, std::optional<double> hours = {}) {
    bool ok = false;
    std::string m = approve().turnOn(ends, hours, &ok);
    EXPECT_TRUE(ok) << m;
    return m;
  }

  TempDir dir_;
  AgentPlaces places_;
  ManualClock clock_;
};

TEST_F(AutoApproveTest, TurningOffAfterThePersonsEditsKeepsThemAndPutsBackOnlyVigilosValues) {
  EXPECT_EQ(turnOn(), "On. New Claude Code and Codex sessions won't ask.");
  const ordered_json claude = ordered_json::parse(readFile(claudePath()));
  EXPECT_EQ(claude["permissions"],
            ordered_json::parse(R"j({"allow": ["Bash(npm test)"], "defaultMode": "bypassPermissions"})j"));
  auto codex = toml::parse(readFile(codexPath()));
  EXPECT_EQ(codex["approval_policy"].value<std::string>(), "never");
  // The record's keys, in their order, are what the watchdog's restore reads.
  const ordered_json record = ordered_json::parse(readFile(appFile("auto-approve.json")));
  std::vector<std::string> keys;
  for (const auto& [k, v] : record.items()) keys.push_back(k);
  EXPECT_EQ(keys, (std::vector<std::string>{"claudeMode", "claudeTouched", "codexApproval", "codexTouched", "ends",
                                            "sawWork", "since"}));

  std::string c = readFile(claudePath());
  writeFile(claudePath(), c.replace(c.find("opus"), 4, "sonnet"));
  writeFile(codexPath(), "# added later\r\n" + readFile(codexPath()) + "\r\n[profiles.x]\r\nmodel = \"y\"\r\n");

  bool ok = false;
  EXPECT_EQ(approve().turnOff(&ok), "Off. Your previous Claude Code and Codex settings are back.");
  EXPECT_TRUE(ok);
  std::string expected = kClaudeOriginal;
  EXPECT_EQ(readFile(claudePath()), expected.replace(expected.find("opus"), 4, "sonnet"));
  EXPECT_EQ(readFile(codexPath()), "# added later\r\n" + kCodexOriginal + "\r\n[profiles.x]\r\nmodel = \"y\"\r\n");
  EXPECT_FALSE(fileExists(appFile("auto-approve.json")));
  EXPECT_FALSE(fileExists(appFile("approve-restore")));
}

TEST_F(AutoApproveTest, ACrashWhileOnLeavesWhatTheShellRestoreNeeds) {
  // Given a Codex file that didn't exist and a Claude file the person edits
  // after Vigilo wrote it: the restore puts back only the unchanged one.
  std::filesystem::remove(codexPath());
  turnOn(AutoApprove::Ends::Time, 2);
  const std::string folder = appFile("approve-restore");
  EXPECT_EQ(readFile(folder + "/claude.restored"), kClaudeOriginal);
  writeFile(claudePath(), readFile(claudePath()) + " ");

  // What the watchdog does, as a shell with the system's SHA-256 tool: each
  // target, copy and checksum the app wrote must work with it.
  const std::string script =
      "cd '" + folder + "' && for n in claude codex; do t=$(cat $n.target); "
      "[ \"$(sha256sum \"$t\" | cut -d' ' -f1)\" = \"$(cat $n.sha)\" ] && cp $n.restored \"$t.vigilo-tmp\" && "
      "mv \"$t.vigilo-tmp\" \"$t\"; done; true";
  ASSERT_EQ(std::system(script.c_str()), 0);
  EXPECT_EQ(readFile(codexPath()), "");
  EXPECT_NE(readFile(claudePath()).find("bypassPermissions"), std::string::npos);

  // The app finishes the job for the changed file, and its record goes.
  bool ok = false;
  approve().turnOff(&ok);
  EXPECT_TRUE(ok);
  EXPECT_EQ(ordered_json::parse(readFile(claudePath()))["permissions"]["defaultMode"], "acceptEdits");
  EXPECT_FALSE(fileExists(folder));
}

TEST_F(AutoApproveTest, KilledBeforeItsEditTheRecordIsDroppedByTheAppAndTheWatchdog) {
  // Given the app folder as it stood just before the first edit, which is
  // what a kill at that moment leaves behind.
  const std::string app = dir_.file("app");
  const std::string snapshot = dir_.file("snapshot");
  AutoApprove a = approve();
  a.beforeWrite = [&] {
    if (!fileExists(snapshot)) std::filesystem::copy(app, snapshot, std::filesystem::copy_options::recursive);
  };
  bool ok = false;
  a.turnOn(AutoApprove::Ends::Manual, {}, &ok);
  ASSERT_TRUE(ok);
  // Applied: neither drops a record whose edit is in force.
  EXPECT_EQ(approve().dropUnapplied(), std::nullopt);
  EXPECT_TRUE(approve().isOn());

  struct Kill {
    const char* when;
    std::function<void()> cut;  // from the snapshot to what that kill leaves
  };
  const std::vector<Kill> kills = {
      {"before any restore copy", [&] { std::filesystem::remove_all(appFile("approve-restore")); }},
      {"before Codex's target", [&] { std::filesystem::remove(appFile("approve-restore/codex.target")); }},
  };
  for (const Kill& k : kills) {
    for (const bool byWatchdog : {false, true}) {
      SCOPED_TRACE(std::string(k.when) + (byWatchdog ? ", watchdog" : ", app"));
      std::filesystem::remove_all(app);
      std::filesystem::copy(snapshot, app, std::filesystem::copy_options::recursive);
      k.cut();
      writeFile(claudePath(), kClaudeOriginal);
      writeFile(codexPath(), kCodexOriginal);
      if (byWatchdog) {
        EXPECT_TRUE(restoreApproveFiles(StateFiles(app)).empty());
      } else {
        EXPECT_EQ(approve().dropUnapplied(),
                  "Approve everything is off: Vigilo stopped before its change to the agents' settings took effect, "
                  "so its record was removed.");
      }
      EXPECT_FALSE(approve().isOn());
      EXPECT_FALSE(fileExists(appFile("approve-restore")));
      EXPECT_EQ(readFile(claudePath()), kClaudeOriginal);
      EXPECT_EQ(readFile(codexPath()), kCodexOriginal);
    }
  }
}

TEST_F(AutoApproveTest, RefusalsChangeNothing) {
  struct Case {
    const char* what;
    std::string claude, codex;
    std::function<void()> meanwhile;
    std::string message;
  };
  const std::vector<Case> cases = {
      {"claude not JSON", "{\"a\": 1,}", kCodexOriginal, nullptr,
       "Couldn't read ~/.claude/settings.json (it isn't plain JSON), so nothing was changed."},
      {"key twice", kClaudeOriginal, "approval_policy = \"never\"\nsandbox_mode = \"x\"\napproval_policy = \"y\"\n",
       nullptr, "~/.codex/config.toml sets approval_policy twice, so Vigilo left it alone."},
      {"claude changed meanwhile", kClaudeOriginal, kCodexOriginal,
       [this] { writeFile(claudePath(), "{\"mine\": true}"); },
       "~/.claude/settings.json changed while Vigilo was editing it; try again."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    writeFile(claudePath(), c.claude);
    writeFile(codexPath(), c.codex);
    AutoApprove a = approve();
    bool fired = false;
    if (c.meanwhile) a.beforeWrite = [&] {
      if (!fired) c.meanwhile();
      fired = true;
    };
    bool ok = true;
    EXPECT_EQ(a.turnOn(AutoApprove::Ends::Work, {}, &ok), c.message);
    EXPECT_FALSE(ok);
    EXPECT_FALSE(a.isOn());
    EXPECT_EQ(readFile(codexPath()), c.codex);
    if (!c.meanwhile) {
      EXPECT_EQ(readFile(claudePath()), c.claude);
    }
    EXPECT_FALSE(fileExists(appFile("approve-restore")));
  }

  // Codex changed during its edit: the Claude file, already written, is put back.
  writeFile(claudePath(), kClaudeOriginal);
  writeFile(codexPath(), kCodexOriginal);
  AutoApprove a = approve();
  int writes = 0;
  a.beforeWrite = [&] {
    if (++writes == 2) writeFile(codexPath(), "model = \"mine\"\n");
  };
  EXPECT_EQ(a.turnOn(AutoApprove::Ends::Manual, {}), "~/.codex/config.toml changed while Vigilo was editing it; try again.");
  EXPECT_FALSE(a.isOn());
  EXPECT_EQ(readFile(claudePath()), kClaudeOriginal);
  EXPECT_EQ(readFile(codexPath()), "model = \"mine\"\n");
}

TEST_F(AutoApproveTest, AFailedPutBackIsRetriedUntilItWorks) {
  turnOn();
  writeFile(claudePath(), "not json");
  bool ok = true;
  EXPECT_EQ(approve().turnOff(&ok),
            "Couldn't read ~/.claude/settings.json to put it back (it isn't plain JSON or can't be opened). Approve "
            "everything may still be on; Vigilo keeps trying.");
  EXPECT_FALSE(ok);
  EXPECT_EQ(approve().status().problem, "Couldn't put your settings back yet");
  EXPECT_EQ(approve().expiry(false, clock_.now()), "retry");
  // Codex doesn't wait for Claude Code: it is back already.
  EXPECT_EQ(readFile(codexPath()), kCodexOriginal);
  writeFile(claudePath(), kClaudeOriginal);
  EXPECT_EQ(approve().turnOff(&ok), "Off. Your previous Claude Code and Codex settings are back.");

  writeFile(appFile("auto-approve.json"), "{broken");
  EXPECT_EQ(approve().status().problem, "Its record is damaged");
  approve().turnOff(&ok);
  EXPECT_FALSE(ok);
  EXPECT_TRUE(fileExists(appFile("auto-approve.json")));
}

TEST_F(AutoApproveTest, EndsByTimeByWorkOrOnlyByThePerson) {
  const Time start = clock_.now();
  struct Case {
    AutoApprove::Ends ends;
    std::optional<double> hours;
    bool sawWork;
    bool holding;
    double after;
    std::optional<std::string> expiry;
    std::string line;
  };
  const Case cases[] = {
      {AutoApprove::Ends::Time, 2, false, false, 7199, std::nullopt, "Turns off at " + formatShortTime(start + 7200)},
      {AutoApprove::Ends::Time, 2, false, false, 7200, "Its time was up", ""},
      {AutoApprove::Ends::Time, std::nullopt, false, false, 28800, "Its time was up", ""},
      {AutoApprove::Ends::Work, {}, false, false, 86399, std::nullopt, "Turns off when the next work finishes"},
      {AutoApprove::Ends::Work, {}, false, false, 86400, "No work started for a day", ""},
      {AutoApprove::Ends::Work, {}, true, true, 60, std::nullopt, "Turns off when the work finishes"},
      {AutoApprove::Ends::Work, {}, true, false, 60, "The work finished", ""},
      {AutoApprove::Ends::Manual, {}, true, false, 1e7, std::nullopt, "Stays on until you turn it off"},
  };
  for (const Case& c : cases) {
    clock_.setWall(start);
    turnOn(c.ends, c.hours);
    if (c.sawWork) approve().markWork();
    if (!c.line.empty()) {
      EXPECT_EQ(approve().status().endsLine, c.line);
    }
    EXPECT_EQ(approve().expiry(c.holding, start + c.after), c.expiry) << c.after;
    bool ok = false;
    approve().turnOff(&ok);
    ASSERT_TRUE(ok);
  }
  EXPECT_EQ(readFile(claudePath()), kClaudeOriginal);
  EXPECT_EQ(readFile(codexPath()), kCodexOriginal);
}

// Given the engine on the simulated laptop with Approve everything plugged
// into its slow beat, and the person's agent settings in a home of its own.
class ApproveJobsTest : public EngineTest {
 protected:
  ApproveJobsTest() {
    std::filesystem::create_directories(places_.home + "/.codex");
    writeFile(places_.codexConfig(), "model = \"o3\"\n");
  }
  static AgentPlaces placesIn(const std::string& home) {
    AgentPlaces p;
    p.home = home;
    return p;
  }
  void turnOn(AutoApprove::Ends ends, std::optional<double> hours = {}) {
    bool ok = false;
    approve_.turnOn(ends, hours, &ok);
    ASSERT_TRUE(ok);
  }

  AgentPlaces places_ = placesIn(dir_.file("person"));
  AutoApprove approve_{dir_.file("home"), places_, clock_};
  std::vector<std::string> told_;
  ApproveJobs jobs_{approve_, nullptr, [this](const std::string& s) { told_.push_back(s); }};
};

// Turned on by a request, it ends on the beat after the work it saw
// finishes, by a request, or at quit.
TEST_F(ApproveJobsTest, RequestsTurnItOnAndTheBeatOrQuitEndsIt) {
  launch();
  engine().addSlowJobs(&jobs_);
  CommandCenter center(engine(), [] {});
  center.setApprove(&approve_);
  EXPECT_EQ(center.statusDictionary()["approve_everything"]["on"], false);
  EXPECT_EQ(center.handle("approve", {{"on", true}, {"ends", "soon"}})["error"], "ends: work, time or manual");
  auto on = center.handle("approve", {{"on", true}, {"ends", "work"}});
  ASSERT_EQ(on["ok"], true) << on;
  EXPECT_EQ(on["message"], "On. New Claude Code and Codex sessions won't ask.");
  EXPECT_EQ(center.statusDictionary()["approve_everything"]["ends_line"], "Turns off when the next work finishes");
  advance(30);
  EXPECT_TRUE(approve_.isOn()) << "no work seen yet";
  work_.reason = "Claude Code is working";
  advance(10);
  ASSERT_TRUE(engine().holding());
  work_.reason.reset();
  advance(10);
  EXPECT_FALSE(approve_.isOn());
  EXPECT_EQ(told_, (std::vector<std::string>{"Approve everything is off: The work finished. Off. Your previous "
                                             "Claude Code and Codex settings are back."}));
  EXPECT_EQ(readFile(places_.codexConfig()), "model = \"o3\"\n");
  // Claude Code isn't set up in this home: its settings were never made up.
  EXPECT_FALSE(std::filesystem::exists(places_.home + "/.claude"));

  turnOn(AutoApprove::Ends::Manual);
  auto off = center.handle("approve", {{"on", false}});
  EXPECT_EQ(off["message"], "Off. Your previous Claude Code and Codex settings are back.");
  EXPECT_EQ(off["approve_everything"]["on"], false);

  // With no agent running, quitting ends it too.
  turnOn(AutoApprove::Ends::Manual);
  engine().shutdown();
  EXPECT_FALSE(approve_.isOn());
  EXPECT_FALSE(files().exists("alive"));
}

}  // namespace
}  // namespace vigilo::test
