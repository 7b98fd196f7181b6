#include "remote/notifier.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "e2e/piped_process.h"
#include "engine/engine_fixture.h"
#include "platform/linux/desktop_alerts.h"
#include "remote/notify_mock.h"
#include "remote/relay_client.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

const std::string kHere = sourceDir(__FILE__);

TEST(AlertTextTest, TitlesAndLengthsReadAsThePersonExpects) {
  EXPECT_EQ(busyFor(89), "Busy for 89 min");
  EXPECT_EQ(busyFor(90), "Busy for 1.5 hours");
  EXPECT_EQ(busyFor(135), "Busy for 2.2 hours");  // 2.25 rounds to even
  EXPECT_EQ(finishedTitle("Codex", false, "is still waiting"), "Codex is waiting for you");
  EXPECT_EQ(finishedTitle("Codex", true, "finished"), "Codex closed");
}

class RecordingOutlets final : public AlertOutlets {
 public:
  explicit RecordingOutlets(std::vector<std::string>* log) : log_(log) {}
  bool note(const std::string& title, const std::string& body) override {
    log_->push_back("note " + title + " | " + body);
    return true;
  }
  bool play(const std::string& name) override {
    log_->push_back("play " + name);
    return true;
  }
  std::vector<std::string> missing() override { return {}; }

 private:
  std::vector<std::string>* log_;
};

// A loopback ntfy stand-in for the pushes.
class Relay {
 public:
  explicit Relay(const std::string& errFile)
      : process_({"/usr/bin/env", "node", kHere + "/phone/ntfy_standin.mjs"}, {}, errFile) {
    auto line = process_.readLine(10s);
    if (line) url = "http://127.0.0.1:" + std::to_string(json::parse(*line)["port"].get<int>());
  }
  ~Relay() { process_.closeInput(); }
  // What the topic holds, as ntfy's poll gives it.
  std::vector<json> messages(const std::string& topic) {
    std::vector<json> out;
    std::string body;
    PipedProcess curl(
        {"/usr/bin/env", "node", "-e", "fetch(process.argv[1]).then(r=>r.text()).then(t=>process.stdout.write(t))",
         url + "/" + topic + "/json?poll=1"},
        {}, "/dev/null");
    curl.closeInput();
    std::string all = curl.readToEnd(10s);
    std::size_t start = 0;
    for (std::size_t nl; (nl = all.find('\n', start)) != std::string::npos; start = nl + 1) {
      out.push_back(json::parse(all.substr(start, nl - start)));
    }
    return out;
  }
  std::string url;

 private:
  PipedProcess process_;
};

class NotifierTest : public EngineTest {};

TEST_F(NotifierTest, EachAlertGoesWhereTheSettingsSayInOrder) {
  // Given the chime and a topic on, and the lid shut.
  writeConfig(R"({"doneChime": true, "notifyDone": true, "ntfyTopic": "my-alerts_1"})");
  Engine& e = launch();
  laptop().setLidClosed(true);
  advance(2);
  Relay relay(dir_.file("relay-err.txt"));
  ASSERT_FALSE(relay.url.empty());
  std::vector<std::string> log;
  int relayAsked = 0;
  Notifier notifier(
      e, std::make_unique<RecordingOutlets>(&log),
      [&] {
        ++relayAsked;
        return relay.url;
      },
      nullptr);

  notifier.finished("Claude Code", 95, false, "finished");
  notifier.needsYou("Codex");
  notifier.flush();
  const std::string finishedBody = "Busy for 1.6 hours with the lid closed. Battery at 80%.";
  EXPECT_EQ(log, (std::vector<std::string>{
                     "play Glass", "note Claude Code finished | " + finishedBody, "play Glass",
                     "note Codex is waiting for you | It asked for your approval. It stays awake for up to 5 min if "
                     "nothing else starts."}));
  auto pushed = relay.messages("my-alerts_1");
  ASSERT_EQ(pushed.size(), 2u);
  EXPECT_EQ(pushed[0]["title"], "Claude Code finished");
  EXPECT_EQ(pushed[0]["message"], finishedBody);
  EXPECT_EQ(pushed[1]["title"], "Codex is waiting for you");

  // A push reports whether the server took it; no server at all is a
  // failure too, not a hang.
  std::vector<bool> results;
  notifier.push("ok-topic", "Vigilo", "Phone alerts work.", [&](bool sent) { results.push_back(sent); });
  notifier.push("bad.topic", "Vigilo", "x", [&](bool sent) { results.push_back(sent); });
  notifier.flush();
  EXPECT_EQ(results, (std::vector<bool>{true, false}));
  EXPECT_FALSE(relayPost("http://127.0.0.1:9/none", "x", {}, 2));

  // Everything off: nothing plays, shows, or reaches the network.
  Config c = e.config();
  c.doneChime = false;
  c.notifyDone = false;
  c.ntfyTopic.clear();
  e.apply(c, true);
  log.clear();
  relayAsked = 0;
  notifier.finished("Claude Code", 3, true, "finished");
  notifier.flush();
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(relayAsked, 0);
}

TEST(DesktopAlertsTest, NotificationsReachTheSessionsNotificationDaemon) {
  if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed";
  TempDir dir;
  NotifyMock mock(dir.file("mock-err.txt"));
  if (mock.address.empty()) {
    GTEST_SKIP() << "dbusmock's notification_daemon didn't start: " << readFile(dir.file("mock-err.txt"));
  }
  auto alerts = makeDesktopAlerts(DesktopAlertOptions{mock.address, dir.file("no-sounds")});
  EXPECT_TRUE(alerts->note("Codex finished", "Busy for 12 min."));
  EXPECT_EQ(mock.shown(), json::parse(R"([["Vigilo", "Codex finished", "Busy for 12 min."]])"));
  // Named by its own icon and desktop entry, so the daemon shows Vigilo's.
  EXPECT_EQ(mock.icons(), json::parse(R"([["Vigilo", "vigilo", "vigilo"]])"));
  auto missing = alerts->missing();
  ASSERT_EQ(missing.size(), 1u) << "the daemon is there; the sound theme is not";
  EXPECT_NE(missing[0].find("The chime can't play"), std::string::npos) << missing[0];

  // No bus at all: told plainly, and a notification is dropped, not fatal.
  auto nobus = makeDesktopAlerts(DesktopAlertOptions{"unix:path=" + dir.file("no-bus"), dir.file("no-sounds")});
  EXPECT_FALSE(nobus->note("x", "y"));
  EXPECT_EQ(nobus->missing().at(0), "No desktop session bus, so alerts can't show as desktop notifications.");
}

}  // namespace
}  // namespace vigilo::test
