#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "commands/command_center.h"
#include "engine/engine_fixture.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

// Given the command center in front of an engine whose safety settings are
// strict, and a panel whose key is "k".
class PanelRequestsTest : public EngineTest {
 protected:
  void SetUp() override {
    writeConfig(R"({"heatGuard": true, "batteryFloor": 30, "onlyOnPower": true})");
    launch();
    center_ = std::make_unique<CommandCenter>(engine(), nullptr);
    center_->setInAppCheck([](const json& args) {
      auto it = args.find("panel_key");
      return it != args.end() && *it == "k";
    });
  }
  json call(const std::string& cmd, const json& args) { return center_->handle(cmd, args); }
  std::unique_ptr<CommandCenter> center_;
};

TEST_F(PanelRequestsTest, OnlyRequestsCarryingThePanelsKeyLoosen) {
  for (auto [cmd, args] : std::vector<std::pair<std::string, json>>{
           {"set", {{"key", "battery_floor"}, {"value", 5}}}, {"override_floor", {{"on", true}}}}) {
    SCOPED_TRACE(args.dump());
    EXPECT_EQ(call(cmd, args)["ok"], false);
    for (const json& key : {json("wrong"), json(7), json("k")}) {
      args["panel_key"] = key;
      EXPECT_EQ(call(cmd, args)["ok"], key == "k") << key;
    }
  }
  // The looser values are the new baseline: reading the file again keeps them.
  engine().reloadConfigFromDisk();
  EXPECT_EQ(engine().config().batteryFloor, 5);
  EXPECT_EQ(json::parse(readFile(folder_ + "/safety.json"))["batteryFloor"], 5);
  EXPECT_TRUE(engine().floorOverride());
  // Ending it needs no key; allowing it again through `set` needs it.
  EXPECT_TRUE(call("set", {{"key", "below_floor_allowed"}, {"value", false}})["ok"]);
  EXPECT_FALSE(engine().floorOverride());
  EXPECT_TRUE(call("set", {{"key", "below_floor_allowed"}, {"value", true}, {"panel_key", "k"}})["ok"]);
  EXPECT_TRUE(engine().floorOverride());
}

TEST_F(PanelRequestsTest, ADeferredRequestIsAnsweredWhenItsWorkEnds) {
  std::function<void(const json&)> respond;
  json seen;
  center_->addDeferredHandler("snapshot", [&](const json& args, std::function<void(const json&)> r) {
    seen = args;
    respond = std::move(r);
  });
  center_->receive(R"({"id": "abc-1", "cmd": "snapshot", "args": {"path": "/tmp/p.png"}})");
  EXPECT_EQ(seen["path"], "/tmp/p.png");
  const std::string reply = folder_ + "/replies/abc-1.json";
  EXPECT_FALSE(fileExists(reply));
  ASSERT_TRUE(respond);
  respond({{"ok", true}, {"path", "/tmp/p.png"}});
  EXPECT_EQ(json::parse(readFile(reply))["path"], "/tmp/p.png");
  // Callers that can't wait for a reply file (the tray, the phone) are told so.
  EXPECT_EQ(call("snapshot", json::object())["error"], "snapshot can only be asked through the vigilo command");
}

}  // namespace
}  // namespace vigilo::test
