#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "e2e/sim_app.h"
#include "e2e/piped_process.h"
#include "engine/config.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

const std::string kPhoneDir = sourceDir(__FILE__) + "/phone";
const std::string kBrowserDir = sourceDir(__FILE__) + "/browser";
const std::string kPageDir = sourceDir(__FILE__) + "/../../web/phone";

// Given a loopback ntfy stand-in, a phone paired with `vigilo pair` and a
// running `vigilo app --simulate`: Node's WebCrypto plays the phone.
class PhoneRelayTest : public SimAppTest {
 protected:
  void SetUp() override {
    relay_ = std::make_unique<PipedProcess>(
        std::vector<std::string>{"/usr/bin/env", "node", kPhoneDir + "/ntfy_standin.mjs"},
        std::vector<std::string>{"KEEPALIVE_SECONDS=1", "PAGE_DIR=" + kPageDir}, dir_.file("relay-err.txt"));
    auto first = relay_->readLine(10s);
    ASSERT_TRUE(first) << readFile(dir_.file("relay-err.txt"));
    port_ = json::parse(*first)["port"].get<int>();
    relayUrl_ = "http://127.0.0.1:" + std::to_string(port_);

    ToolRun pair = vigilo({"pair", "--relay", relayUrl_, "--page", relayUrl_ + "/page/index.html", "--no-qr"});
    ASSERT_EQ(pair.status, 0) << pair.err;
    const auto at = pair.out.find(relayUrl_ + "/page/index.html#k=");
    ASSERT_NE(at, std::string::npos) << pair.out;
    link_ = pair.out.substr(at, pair.out.find('\n', at) - at);

    startApp();
    ASSERT_TRUE(waitFor([&] { return outputHas("phone control listens for 1 phone"); }, 10s)) << app_->output();
    phone_ = std::make_unique<PipedProcess>(
        std::vector<std::string>{"/usr/bin/env", "node", kPhoneDir + "/phone.mjs", link_}, std::vector<std::string>{},
        dir_.file("phone-err.txt"));
    auto ready = phone_->readLine(10s);
    ASSERT_TRUE(ready) << readFile(dir_.file("phone-err.txt"));
    phoneReady_ = *ready;
  }
  void TearDown() override {
    if (phone_) phone_->closeInput();
    stopApp();
    if (relay_) relay_->closeInput();
  }

  json ask(const json& request) {
    if (!phone_->write(request.dump() + "\n")) return nullptr;
    auto line = phone_->readLine(15s);
    return line ? json::parse(*line, nullptr, false) : json(nullptr);
  }
  Config config() { return Config::fromJson(json::parse(readFile(home_ + "/config.json"), nullptr, false)); }

  int port_ = 0;
  std::string relayUrl_;
  std::string link_;
  std::string phoneReady_;  // the phone's first line, with its topics
  std::unique_ptr<PipedProcess> relay_;
  std::unique_ptr<PipedProcess> phone_;
};

TEST_F(PhoneRelayTest, APhoneSeesTheStatusChangesTheModeAndIsRefusedWhatItMayNotDo) {
  EXPECT_NE(link_.find("#k="), std::string::npos);
  EXPECT_NE(link_.find("&r=http%3A%2F%2F127.0.0.1%3A" + std::to_string(port_)), std::string::npos);

  json panel = ask({{"cmd", "panel"}});
  ASSERT_EQ(panel["ok"], true) << panel.dump() << app_->output();
  // The longest answers still fit in one relay message.
  json schema = ask({{"cmd", "schema"}});
  EXPECT_EQ(schema["ok"], true) << schema.dump();
  EXPECT_GT(schema["settings"].size(), 10u);
  EXPECT_EQ(ask({{"cmd", "power"}})["ok"], true);

  json off = ask({{"cmd", "mode"}, {"args", {{"mode", "off"}}}});
  EXPECT_EQ(off["ok"], true) << off.dump();
  ASSERT_TRUE(waitFor([&] { return config().mode == Mode::Off; }, 5s));
  // Text that isn't a box at all is ignored, and the app lives on.
  EXPECT_EQ(ask({{"raw", "hello there"}})["published"], 200);

  // Wakes: one scheduled for later, one at once.
  json at = ask({{"cmd", "wake_at"}, {"args", {{"time", "07:00"}, {"minutes", 30}}}});
  EXPECT_TRUE(at["wakeAt"].is_number()) << at.dump();
  EXPECT_EQ(ask({{"cmd", "wake"}, {"args", {{"minutes", 5}}}})["ok"], true);
  ASSERT_TRUE(waitFor([&] { return outputHas("Woken from your phone"); }, 5s)) << app_->output();
  // A phone can't loosen a safety setting.
  json floor = ask({{"cmd", "set"}, {"args", {{"key", "battery_floor"}, {"value", 0}}}});
  EXPECT_EQ(floor["ok"], false) << floor.dump();
  EXPECT_EQ(config().batteryFloor, 15);
  EXPECT_EQ(ask({{"cmd", "watch"}, {"args", {{"app", std::string(2000, 'x')}}}})["error"],
            "app is too long (at most 1024 characters)");

  // The phone tells its name; it shows in the list of paired phones.
  ToolRun list = vigilo({"pair", "--list", "--json"});
  EXPECT_EQ(json::parse(list.out)["phones"][0]["name"], "Test phone") << list.out;
}

// Given a relay that sends garbage, goes away and comes back, then takes
// the phone's commands while refusing the app.
TEST_F(PhoneRelayTest, GarbageAndOutagesOfTheRelayLoseNoCommand) {
  auto count = [&](const std::string& text) {
    std::size_t n = 0;
    const std::string out = app_->output();
    for (auto at = out.find(text); at != std::string::npos; at = out.find(text, at + 1)) ++n;
    return n;
  };
  auto relay = [&](const std::string& line) { return relay_->write(line + "\n") && relay_->readLine(5s); };
  const std::string cmdTopic = json::parse(phoneReady_)["cmdTopic"];
  ASSERT_TRUE(relay("garbage " + cmdTopic));
  EXPECT_EQ(ask({{"cmd", "panel"}})["ok"], true);
  // Read on the same stream: the bad lines were skipped, not a reason to
  // start over.
  ASSERT_TRUE(relay_->write("stats\n"));
  auto stats = relay_->readLine(5s);
  ASSERT_TRUE(stats);
  EXPECT_EQ(json::parse(*stats)["subscriptions"][cmdTopic], 1) << *stats;
  EXPECT_EQ(count("can't read the phone relay"), 0u) << app_->output();

  ASSERT_TRUE(relay("down"));
  ASSERT_TRUE(waitFor([&] { return count("can't read the phone relay") == 1; }, 10s)) << app_->output();
  ASSERT_TRUE(relay("up"));
  ASSERT_TRUE(waitFor([&] { return count("phone relay reachable again") == 1; }, 15s)) << app_->output();
  EXPECT_EQ(ask({{"cmd", "panel"}})["ok"], true);

  // While the app can't read, the phone's command is taken by the relay; the
  // app reads it with `since` once it gets through again, from a point the
  // garbage's absurd times didn't move.
  ASSERT_TRUE(relay("refuse-subscribers"));
  ASSERT_TRUE(waitFor([&] { return count("can't read the phone relay") == 2; }, 10s)) << app_->output();
  json sent = ask({{"cmd", "mode"}, {"args", {{"mode", "off"}}}, {"noWait", true}, {"n", "while-away"}});
  ASSERT_EQ(sent["published"], 200);
  ASSERT_TRUE(relay("accept-subscribers"));
  json reply = ask({{"await", "while-away"}});
  EXPECT_EQ(reply["ok"], true) << reply.dump() << app_->output();
  EXPECT_TRUE(waitFor([&] { return config().mode == Mode::Off; }, 5s));
  EXPECT_EQ(count("phone: mode done"), 1u) << "handled once, though read after a reconnect";
}

TEST_F(PhoneRelayTest, HostileNamesNeitherStopTheAppNorComeBackAfterARelaunchAndRevokingStopsThePhone) {
  // Given a phone named in long CJK text behind an escape sequence.
  std::string name = "\x1b[2J";
  for (int i = 0; i < 30; ++i) name += "手";
  EXPECT_EQ(ask({{"cmd", "panel"}, {"dev", name}})["ok"], true) << app_->output();

  ToolRun list = vigilo({"pair", "--list"});
  EXPECT_EQ(list.out.find('\x1b'), std::string::npos) << "the name can't drive the terminal";
  EXPECT_NE(list.out.find("\\x1b[2J手手"), std::string::npos) << list.out;

  stopApp();
  startApp();
  ASSERT_TRUE(waitFor([&] { return outputHas("phone control listens for 1 phone"); }, 10s)) << app_->output();
  EXPECT_EQ(ask({{"cmd", "panel"}})["ok"], true) << app_->output();
  EXPECT_FALSE(outputHas("already handled")) << "what was read before the relaunch is not read again\n"
                                             << app_->output();

  ToolRun revoke = vigilo({"pair", "--all"});
  ASSERT_EQ(revoke.status, 0) << revoke.err;
  ASSERT_TRUE(waitFor([&] { return outputHas("phone control is off"); }, 10s)) << app_->output();
  EXPECT_EQ(ask({{"cmd", "mode"}, {"args", {{"mode", "off"}}}, {"timeoutMs", 3000}})["timeout"], true);
  EXPECT_NE(config().mode, Mode::Off);
}

TEST_F(PhoneRelayTest, ThePhonesPageInABrowserShowsTheStatusAndLetsTheLaptopSleep) {
  ASSERT_TRUE(std::filesystem::exists(kBrowserDir + "/node_modules/puppeteer-core"))
      << "puppeteer-core is not installed: run scripts/setup (it runs npm ci --prefix tests/remote/browser).";
  ASSERT_EQ(::access("/usr/bin/chromium", X_OK), 0) << "Chromium is not installed: run scripts/setup.";
  ASSERT_EQ(ask({{"cmd", "mode"}, {"args", {{"mode", "always"}}}})["ok"], true);
  ASSERT_TRUE(waitFor([&] { return config().mode == Mode::On; }, 5s));

  const std::string shot = (std::filesystem::path(VIGILO_BINARY).parent_path() / "phone-page.png").string();
  std::filesystem::remove(shot);
  PipedProcess browser({"/usr/bin/env", "node", kBrowserDir + "/page.mjs", link_, shot, "sleep"},
                       {"HOME=" + dir_.path()}, dir_.file("browser-err.txt"));
  browser.closeInput();
  const std::string out = browser.readToEnd(90s);
  ASSERT_EQ(browser.wait(10s), 0) << out << readFile(dir_.file("browser-err.txt")) << app_->output();
  json page = json::parse(out, nullptr, false);
  ASSERT_TRUE(page.is_object()) << out;
  // Without its key the page can send nothing; with a dead relay it says so
  // in words.
  EXPECT_EQ(page["noKey"]["enabled"], 0);
  EXPECT_EQ(page["deadRelay"]["status"],
            "Can't reach the relay (127.0.0.1:9). Check that this phone is online; nothing was sent, and the laptop "
            "carries on as it was.");
  EXPECT_NE(page["before"], "Connecting…") << "the status came from the laptop";
  // The Power button shows the hours left with the lid shut and the apps
  // drawing the most.
  EXPECT_EQ(page["power"]["hours"].get<std::string>().rfind("about ", 0), 0u) << page["power"].dump();
  EXPECT_FALSE(page["power"]["apps"].empty()) << page["power"].dump();
  EXPECT_EQ(page["mode"], "When busy");
  // The simulated battery drains as the page loads: the charge of the moment.
  const std::string battery = page["battery"];
  ASSERT_TRUE(battery.ends_with("%")) << battery;
  EXPECT_NEAR(std::stoi(battery), status()["battery"]["percent"].get<int>(), 2) << battery;
  EXPECT_TRUE(page["errors"].empty()) << page["errors"].dump();
  EXPECT_EQ(config().mode, Mode::Auto);
  EXPECT_GT(std::filesystem::file_size(shot), 1000u);
}

}  // namespace
}  // namespace vigilo::test
