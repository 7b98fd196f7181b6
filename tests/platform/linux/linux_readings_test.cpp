#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "engine/battery.h"
#include "platform/linux/linux_fixture.h"
#include "platform/linux/sysfs_text.h"
#include "power/power_sensor.h"

namespace vigilo::test {
namespace {

// What one fixture tree must give: the raw properties, the engine's reading
// of them, and whether the power test can measure the battery's own draw.
struct BatteryCase {
  std::string name;
  std::vector<std::pair<std::string, std::string>> supplies;  // name, "key=value,..."
  std::int64_t current, max, amperage, voltage, timeRemaining;
  bool external, charging;
  BatteryReading reading;
  bool onPower;
  bool measured;
};

// The trees follow what real drivers show: the ACPI battery in mWh units
// (energy_*, power_now; ThinkPads), in mAh units (charge_*, unsigned
// current_now), a fuel gauge that signs its current (bq27xxx on ARM
// boards), UCSI USB-C sources, and a HID peripheral's battery.
TEST_F(LinuxTreeTest, BatteryFromRealDriversFormats) {
  const std::string pack = "type=Battery,status=";
  const std::vector<BatteryCase> cases{
      {"energy-based pack discharging, adapter offline",
       {{"AC", "type=Mains,online=0"},
        {"BAT0", pack + "Discharging,present=1,technology=Li-ion,energy_now=38450000,energy_full=50320000,"
                 "energy_full_design=57020000,power_now=8712000,voltage_now=11945000,voltage_min_design=11520000,"
                 "capacity=76"}},
       3338, 4368, -729, 11945, 274, false, false, BatteryReading{76, false, false, 11945.0 * 729 / 1e6, 274}, false,
       true},
      {"charge-based pack charging on the adapter",
       {{"ADP1", "type=Mains,online=1"},
        {"BAT1", pack + "Charging,present=1,charge_now=2890000,charge_full=3950000,current_now=1234000,"
                 "voltage_now=12900000,capacity=73"}},
       2890, 3950, 1234, 12900, 51, true, true, BatteryReading{73, true, true, 0.0, std::nullopt}, true, false},
      {"fuel gauge that signs its current, no adapter shown",
       {{"bq27541-0", pack + "Discharging,charge_now=1800000,charge_full=4000000,current_now=-1500000,"
                      "voltage_now=8000000"}},
       1800, 4000, -1500, 8000, 72, false, false, BatteryReading{45, false, false, 12.0, 72}, false, true},
      {"not charging at a charge threshold",
       {{"AC", "type=Mains,online=1"},
        {"BAT0", pack + "Not charging,energy_now=40000000,energy_full=50000000,power_now=0,voltage_now=12300000,"
                 "voltage_min_design=11520000"}},
       3472, 4340, 0, 12300, 65535, true, false, BatteryReading{80, true, false, 0.0, std::nullopt}, true, false},
      {"adapter too weak for the draw",
       {{"AC", "type=Mains,online=1"},
        {"BAT0", pack + "Discharging,energy_now=22000000,energy_full=44000000,power_now=5000000,"
                 "voltage_now=11000000,voltage_min_design=11000000"}},
       2000, 4000, -454, 11000, 264, true, false, BatteryReading{50, true, false, 11000.0 * 454 / 1e6, std::nullopt},
       false, true},
      {"USB-C charger through UCSI, no Mains supply",
       {{"ucsi-source-psy-USBC000:001", "type=USB,online=1,scope=Unknown"},
        {"BAT0", pack + "Charging,charge_now=1000000,charge_full=4000000,current_now=2000000,voltage_now=15000000"}},
       1000, 4000, 2000, 15000, 90, true, true, BatteryReading{25, true, true, 0.0, std::nullopt}, true, false},
      {"two packs discharging, a third bay empty",
       {{"BAT0", pack + "Discharging,energy_now=10000000,energy_full=20000000,power_now=3000000,"
                 "voltage_now=11000000,voltage_min_design=11000000"},
        {"BAT1", pack + "Discharging,energy_now=30000000,energy_full=60000000,power_now=6000000,"
                 "voltage_now=12000000,voltage_min_design=11000000"},
        {"BAT2", "type=Battery,present=0"}},
       3637, 7273, -772, 11648, 282, false, false, BatteryReading{50, false, false, 11648.0 * 772 / 1e6, 282}, false,
       true},
      {"energy only, no power figure",
       {{"BAT0", pack + "Discharging,energy_now=40000000,energy_full=50000000,voltage_now=12000000"}},
       3334, 4167, 0, 12000, 65535, false, false, BatteryReading{80, false, false, 0.0, std::nullopt}, false, false},
  };
  for (const BatteryCase& c : cases) {
    SCOPED_TRACE(c.name);
    removeFromTree("/sys");
    for (const auto& [name, spec] : c.supplies) supply(name, spec);
    auto props = platform()->registry().battery();
    ASSERT_TRUE(props.has_value());
    EXPECT_EQ(std::tuple(props->currentCapacity, props->maxCapacity, props->amperage, props->voltage,
                         props->timeRemaining, props->externalConnected, props->isCharging),
              std::tuple(c.current, c.max, c.amperage, c.voltage, c.timeRemaining, c.external, c.charging));
    auto r = readingFrom(props);
    ASSERT_TRUE(r.has_value());
    EXPECT_NEAR(r->watts, c.reading.watts, 1e-9);
    r->watts = c.reading.watts;
    EXPECT_EQ(*r, c.reading);
    EXPECT_EQ(r->onPower(), c.onPower);
    auto sample = PowerSensor::sample(props, 0);
    EXPECT_EQ(sample && sample->watts, c.measured);
    if (c.measured && sample && sample->watts) {
      EXPECT_NEAR(*sample->watts, c.reading.watts, 0.01);
    }
  }
}

TEST_F(LinuxTreeTest, BatteryAbsentPeripheralOrUnreadableGivesNoReading) {
  // Given only a wireless mouse's battery: the machine has none.
  supply("hid-34:88:5d:aa:bb:cc-battery", "type=Battery,scope=Device,status=Discharging,capacity=60");
  auto p = platform();
  EXPECT_FALSE(p->registry().battery().has_value());
  Capability battery = *capability(p->capabilities(), "battery");
  EXPECT_EQ(std::tuple(battery.available, battery.detail),
            std::tuple(false,
                       "No battery found under /sys/class/power_supply, so the battery limit and only-on-power "
                       "guards are off."));
  // Given a pack whose driver shows nonsense: a pack, but no reading, and
  // the capability says why.
  supply("BAT0", "type=Battery,status=Discharging,energy_now=garbage,energy_full=,voltage_now=-");
  auto props = p->registry().battery();
  ASSERT_TRUE(props.has_value());
  EXPECT_FALSE(readingFrom(props).has_value());
  battery = *capability(p->capabilities(), "battery");
  EXPECT_FALSE(battery.available);
  EXPECT_NE(battery.detail.find("BAT0 doesn't show its charge"), std::string::npos) << battery.detail;
}

TEST(LinuxSysfsText, IntegersWordsAndLidBitToleratePaddingAndRefuseJunk) {
  EXPECT_EQ(sysfsInteger("  -870000 \n"), -870000);
  for (const char* junk : {"\n", "12ab", "99999999999999999999999"}) {
    EXPECT_FALSE(sysfsInteger(junk).has_value()) << junk;
  }
  EXPECT_EQ(sysfsWord("Not charging\nsecond line"), "Not charging");
  EXPECT_TRUE(hasLidSwitchBit("10 1\n"));
  EXPECT_FALSE(hasLidSwitchBit("10 0\n"));  // another switch, not the lid
}

// Given zones without trips, which are never guessed at, then a CPU package
// zone with unset trips that reads hot, a zone with a passive and a critical
// trip, and one with only a hot trip.
TEST_F(LinuxTreeTest, ThermalFollowsTripPointsWithHysteresis) {
  const std::string tz = "/sys/class/thermal/";
  putAll({{tz + "thermal_zone0/type", "INT3400 Thermal\n"},
          {tz + "thermal_zone0/temp", "20000\n"},
          {tz + "thermal_zone2/type", "iwlwifi_1\n"},
          {tz + "thermal_zone2/temp", "120000\n"}});
  auto p = platform();
  EXPECT_EQ(p->registry().thermalState(), 0);
  const Capability off = *capability(p->capabilities(), "thermal");
  EXPECT_FALSE(off.available);
  EXPECT_NE(off.detail.find("INT3400 Thermal and iwlwifi_1"), std::string::npos) << off.detail;

  putAll({{tz + "thermal_zone0/type", "x86_pkg_temp\n"}, {tz + "thermal_zone0/temp", "99000\n"},
          {tz + "thermal_zone0/trip_point_0_type", "passive\n"}, {tz + "thermal_zone0/trip_point_0_temp", "0\n"},
          {tz + "thermal_zone1/type", "acpitz\n"}, {tz + "thermal_zone1/trip_point_0_type", "critical\n"},
          {tz + "thermal_zone1/trip_point_0_temp", "105000\n"}, {tz + "thermal_zone1/trip_point_1_type", "passive\n"},
          {tz + "thermal_zone1/trip_point_1_temp", "90000\n"}, {tz + "thermal_zone1/trip_point_2_type", "active\n"},
          {tz + "thermal_zone1/trip_point_2_temp", "60000\n"}, {tz + "cooling_device0/type", "Processor\n"},
          {tz + "thermal_zone3/type", "pch_skylake\n"}, {tz + "thermal_zone3/trip_point_0_type", "hot\n"},
          {tz + "thermal_zone3/trip_point_0_temp", "95000\n"}, {tz + "thermal_zone3/temp", "20000\n"}});
  EXPECT_TRUE(capability(p->capabilities(), "thermal")->available);
  // Each step: the zone, its temperature, then the state it must give. An
  // unreadable temperature counts as no information, not as cool or hot.
  const std::vector<std::tuple<int, std::string, int>> steps{
      {1, "80500", 1}, {1, "77000", 1},  {1, "75900", 0},  {1, "90000", 2},  {1, "86500", 2},
      {1, "85500", 1}, {1, "105000", 3}, {1, "101500", 3}, {1, "100500", 2}, {1, "50000", 0},
      {1, "N/A", 0},
      // A zone with only a hot trip: critical there, serious 10 °C below.
      {3, "76000", 1}, {3, "85000", 2}, {3, "95000", 3}};
  for (const auto& [n, temp, state] : steps) {
    SCOPED_TRACE("zone " + std::to_string(n) + " at " + temp);
    put(tz + "thermal_zone" + std::to_string(n) + "/temp", temp + "\n");
    EXPECT_EQ(p->registry().thermalState(), state);
  }
}

TEST_F(LinuxTreeTest, LidFromTheAcpiButton) {
  auto p = platform();
  // No button, no lid switch among the input devices, no bus: no lid.
  put("/sys/class/input/input0/capabilities/sw", "0\n");
  EXPECT_FALSE(p->registry().lidClosed().has_value());

  const std::vector<std::pair<std::string, std::optional<bool>>> states{
      {"state:      open\n", false},
      {"state:      closed\n", true},
      {"state:      unknown\n", std::nullopt},
  };
  for (const auto& [text, closed] : states) {
    put("/proc/acpi/button/lid/LID0/state", text);
    EXPECT_EQ(p->registry().lidClosed(), closed) << text;
  }
}

}  // namespace
}  // namespace vigilo::test
