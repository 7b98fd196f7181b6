#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "e2e/sim_app.h"
#include "engine/journal.h"
#include "platform/sim/sim_laptop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given a shut simulated laptop with apps to pause and slow, and an app
// folder set to keep it awake with every saving on.
class ClosedLidCrashTest : public SimAppTest {
 protected:
  ClosedLidCrashTest() {
    writeFile(state_, R"({"lid": "closed",
      "apps": [{"path": "/Applications/TextEdit.app", "bundleId": "com.apple.TextEdit", "name": "TextEdit"},
               {"path": "/Applications/Docker.app", "bundleId": "com.docker.docker", "name": "Docker"},
               {"path": "/Applications/Slack.app", "bundleId": "com.tinyspeck.slackmacgap", "name": "Slack"}],
      "processes": [{"pid": 1, "ppid": 0, "path": "/sbin/launchd"},
                    {"pid": 200, "path": "/Applications/TextEdit.app/Contents/MacOS/TextEdit"},
                    {"pid": 201, "path": "/Applications/TextEdit.app/Contents/XPCServices/helper", "ppid": 200},
                    {"pid": 202, "path": "/Applications/Docker.app/Contents/MacOS/Docker"},
                    {"pid": 203, "path": "/Applications/Slack.app/Contents/MacOS/Slack"}],
      "display": {"on": true, "brightness": 0.7}})");
  }
  void writeConfig(const std::string& text) { writeFile(home_ + "/config.json", text); }
  json laptop() {
    auto j = json::parse(readFile(state_), nullptr, false);
    return j.is_object() ? j : json::object();
  }

  // Every change visible on the laptop has its record in the app folder.
  void expectEveryChangeRecorded(json l) {
    // Killed before it wrote the laptop file, the app changed nothing yet.
    if (!l.contains("processes")) return;
    auto journal = json::parse(inHome("touched.json") ? readFile(home_ + "/touched.json") : "[]", nullptr, false);
    for (const auto& p : l["processes"]) {
      if (!p.value("stopped", false) && !p.value("slowed", false)) continue;
      bool found = false;
      for (const auto& t : journal) found = found || (t["pid"] == p["pid"] && t["paused"] == p["stopped"]);
      EXPECT_TRUE(found) << "process " << p["pid"] << " changed without a record";
    }
    if (l["powerModes"]["lowpowermode"] == 1) { EXPECT_TRUE(inHome("powermode-restore")); }
    if (l["automaticBackups"] == false) { EXPECT_TRUE(inHome("timemachine-restore")); }
    if (l["display"]["on"] == false) { EXPECT_TRUE(inHome("display-off")); }
    if (l["display"]["brightness"] != 0.7) { EXPECT_TRUE(inHome("brightness-restore")); }
  }
};

TEST_F(ClosedLidCrashTest, KilledAtEveryStepEveryChangeComesBack) {
  const auto anyProcess = [this](const char* flag) {
    const json l = laptop();  // kept alive for the loop
    for (const auto& p : l["processes"]) {
      if (p.value(flag, false)) return true;
    }
    return false;
  };
  // Each step of entering the session that the app makes visible on the
  // laptop (a record alone undoes to what is already there); every kill
  // lands right after one, on a fresh machine.
  const std::vector<std::pair<const char*, std::function<bool()>>> steps = {
      {"at launch", [] { return true; }},
      {"sleep switched off", [this] { return sleepDisabled(); }},
      {"screen off", [this] { return laptop()["display"]["on"] == false; }},
      {"low power on", [this] { return laptop()["powerModes"]["lowpowermode"] == 1; }},
      {"backups off", [this] { return laptop()["automaticBackups"] == false; }},
      {"a pause recorded", [this] { return inHome("touched.json"); }},
      {"an app paused", [&] { return anyProcess("stopped"); }},
      {"an app slowed", [&] { return anyProcess("slowed"); }},
  };
  const std::string fresh = readFile(state_);
  const auto killAt = [&](const char* what, const std::function<bool()>& reached) {
    SCOPED_TRACE(what);
    auto app = launch();
    ASSERT_TRUE(waitFor(reached, 10s)) << app->output();
    app->signal(SIGKILL);
    ASSERT_EQ(app->wait(5s), 128 + SIGKILL);
    expectEveryChangeRecorded(laptop());
  };
  for (const auto& [what, reached] : steps) {
    std::filesystem::remove_all(home_);
    std::filesystem::create_directories(home_);
    writeConfig(R"({"mode": "on", "preset": "max_battery", "pauseTimeMachine": true, "screenOffNoLock": true})");
    writeFile(state_, fresh);
    killAt(what, reached);
  }
  ASSERT_TRUE(inHome("touched.json")) << "the last kill landed inside the session";

  // With the lid open and nothing to hold, the next launches put it all
  // back, killed after each record they clear.
  json l = laptop();
  l["lid"] = "open";
  writeFile(state_, l.dump());
  writeConfig(R"({"mode": "off"})");
  for (const char* record : {"touched.json", "powermode-restore", "timemachine-restore", "brightness-restore",
                             "display-off"}) {
    killAt(record, [this, record] { return !inHome(record); });
  }

  // The last launch finishes the work.
  auto app = launch();
  const auto recordsGone = [&] {
    for (const char* f : {"touched.json", "resume-pids", "powermode-restore", "timemachine-restore",
                          "brightness-restore", "display-off"}) {
      if (inHome(f)) return false;
    }
    return true;
  };
  // Answering a request, it is up and its quit handler in place.
  ASSERT_TRUE(waitFor([&] { return recordsGone() && vigilo({"status"}).status == 0; }, 10s)) << app->output();
  app->signal(SIGTERM);
  ASSERT_EQ(app->wait(10s), 0);
  l = laptop();
  for (const auto& p : l["processes"]) EXPECT_FALSE(p.value("stopped", false) || p.value("slowed", false)) << p;
  EXPECT_EQ(l["display"]["on"], true);
  EXPECT_EQ(l["display"]["brightness"], 0.7);
  EXPECT_EQ(l["powerModes"]["lowpowermode"], 0);
  EXPECT_EQ(l["automaticBackups"], true);
  EXPECT_FALSE(inHome("alive"));
  EXPECT_FALSE(sleepDisabled());
  // Writes the kills cut short left nothing behind, in the app folder or
  // beside the laptop's file.
  std::vector<std::string> leftovers;
  for (const auto& e : std::filesystem::recursive_directory_iterator(dir_.path())) {
    if (e.path().filename().string().find(".vigilo-tmp") != std::string::npos) leftovers.push_back(e.path());
  }
  EXPECT_TRUE(leftovers.empty()) << ::testing::PrintToString(leftovers);
}

}  // namespace
}  // namespace vigilo::test
