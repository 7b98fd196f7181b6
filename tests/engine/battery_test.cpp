#include <gtest/gtest.h>

#include "engine/battery.h"

namespace vigilo {
namespace {

BatteryProperties props(std::int64_t current, std::int64_t max) {
  BatteryProperties p;
  p.currentCapacity = current;
  p.maxCapacity = max;
  return p;
}

TEST(BatteryReadingTest, ComputesFromRawControllerProperties) {
  auto p = props(4999, 5000);
  p.instantAmperage = -1500;
  p.amperage = -99999;  // ignored while InstantAmperage exists
  p.voltage = 12000;
  p.timeRemaining = 65535;
  auto r = readingFrom(p);
  ASSERT_TRUE(r);
  EXPECT_EQ(r->percent, 99);
  EXPECT_DOUBLE_EQ(r->watts, 18.0);
  EXPECT_FALSE(r->minutesLeft);

  p.instantAmperage.reset();
  p.amperage = 800;  // charging: nothing drawn from the battery
  p.timeRemaining = 90;
  r = readingFrom(p);
  EXPECT_DOUBLE_EQ(r->watts, 0.0);
  EXPECT_EQ(r->minutesLeft, 90);

  p.externalConnected = true;
  EXPECT_FALSE(readingFrom(p)->minutesLeft);
}

TEST(BatteryReadingTest, UnusableCapacitiesGiveNoReading) {
  EXPECT_FALSE(readingFrom(std::nullopt));
  EXPECT_FALSE(readingFrom(props(10, 0)));
  BatteryProperties missing;
  missing.maxCapacity = 5000;
  EXPECT_FALSE(readingFrom(missing));
  EXPECT_EQ(readingFrom(props(6000, 5000))->percent, 100);
  EXPECT_EQ(readingFrom(props(-5, 5000))->percent, 0);
}

TEST(BatteryReadingTest, OnPowerNeedsTheAdapterAndChargingOrALowDrain) {
  BatteryReading r;
  r.onAC = true;
  r.watts = 0.3;
  EXPECT_TRUE(r.onPower());
  r.watts = 0.31;
  EXPECT_FALSE(r.onPower());
  r.charging = true;
  EXPECT_TRUE(r.onPower());
  r.onAC = false;
  EXPECT_FALSE(r.onPower());
}

}  // namespace
}  // namespace vigilo
