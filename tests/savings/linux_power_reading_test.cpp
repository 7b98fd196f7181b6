#include <gtest/gtest.h>

#include "platform/linux/sysfs_text.h"
#include "power/power_sensor.h"

namespace vigilo::test {
namespace {

// What the power test can read from a Linux battery: its own power figure
// (power_now, or current_now × voltage_now) while it powers the machine;
// nothing from a battery that reports only its energy, or while charging.
TEST(LinuxPowerReadingTest, TheTestReadsTheBatterysOwnPowerOrRefuses) {
  struct Case {
    const char* what;
    std::map<std::string, std::string, std::less<>> attributes;
    std::optional<double> watts;
  };
  const Case cases[] = {
      {"power_now while discharging",
       {{"type", "Battery"}, {"status", "Discharging"}, {"energy_now", "40000000"}, {"energy_full", "50000000"},
        {"power_now", "7500000"}, {"voltage_now", "12000000"}},
       7.5},
      {"current_now × voltage_now",
       {{"type", "Battery"}, {"status", "Discharging"}, {"charge_now", "3000000"}, {"charge_full", "4000000"},
        {"current_now", "500000"}, {"voltage_now", "12000000"}},
       6.0},
      {"energy only",
       {{"type", "Battery"}, {"status", "Discharging"}, {"energy_now", "40000000"}, {"energy_full", "50000000"},
        {"voltage_now", "12000000"}},
       std::nullopt},
      {"on the charger",
       {{"type", "Battery"}, {"status", "Charging"}, {"energy_now", "40000000"}, {"energy_full", "50000000"},
        {"power_now", "20000000"}, {"voltage_now", "12000000"}},
       std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    auto props = batteryFromSupplies({PowerSupplyText{"BAT0", c.attributes}});
    ASSERT_TRUE(props);
    auto sample = PowerSensor::sample(props, 0);
    ASSERT_EQ(sample && sample->watts, c.watts.has_value());
    if (c.watts) {
      EXPECT_NEAR(*sample->watts, *c.watts, 0.05);
    }
  }
}

}  // namespace
}  // namespace vigilo::test
