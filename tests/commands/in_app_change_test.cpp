#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "commands/in_app_change.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

// Given a record whose safety settings are at their strictest defaults, each
// change the panel may make after a confirmation, and what it still refuses.
TEST(InAppChange, LoosensWhatOutsideCallersCannotAndStillChecksValues) {
  Config strict;
  strict.batteryFloor = 30;
  strict.heatGuard = true;
  strict.onlyOnPower = true;

  struct Case {
    const char* key;
    json value;
    bool ok;
    std::string error;
  };
  const Case cases[] = {
      {"battery_floor", "10", true, ""},
      {"Battery-Floor", 0, true, ""},
      {"battery_floor", 95, false, "battery_floor needs a percent from 0 to 80"},
      {"heat_guard", false, true, ""},
      {"only_on_power", "off", true, ""},
      {"ntfy_topic", " vigilo-alerts_1 ", true, ""},
      {"ntfy_topic", "a/b", false, "ntfy_topic needs letters, digits, - and _ only (at most 64)"},
      {"mode", "sometimes", false, "mode needs auto, on or off"},
      {"colour", "red", false, ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.key);
    InAppChange out = changeInApp(strict, c.key, c.value);
    EXPECT_EQ(out.change.ok, c.ok) << out.change.error;
    if (!c.error.empty()) {
      EXPECT_EQ(out.change.error, c.error);
    }
    if (!c.ok) {
      EXPECT_EQ(out.change.config.batteryFloor, 30);
    }
  }
  // Only the asked field moves.
  Config floor = changeInApp(strict, "battery_floor", 10).change.config;
  EXPECT_EQ(floor.batteryFloor, 10);
  EXPECT_TRUE(floor.heatGuard);
  EXPECT_TRUE(floor.onlyOnPower);
  EXPECT_EQ(changeInApp(strict, "ntfy_topic", " vigilo-alerts_1 ").change.config.ntfyTopic, "vigilo-alerts_1");

  InAppChange below = changeInApp(strict, "below_floor_allowed", true);
  EXPECT_TRUE(below.change.ok);
  EXPECT_TRUE(below.allowBelowFloor);
  InAppChange end = changeInApp(strict, "below_floor_allowed", false);
  EXPECT_TRUE(end.change.endBelowFloor);
  EXPECT_FALSE(end.allowBelowFloor);
}

}  // namespace
}  // namespace vigilo
