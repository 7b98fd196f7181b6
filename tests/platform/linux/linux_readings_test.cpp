#include <gtest/gtest.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "engine/battery.h"
#include "platform/linux/linux_fixture.h"
#include "platform/linux/sysfs_text.h"

namespace vigilo::test {
namespace {

using Files = std::map<std::string, std::string>;

// What one fixture tree must give: the raw properties, then the engine's
// reading of them (nothing when no reading can be made).
struct BatteryCase {
  std::string name;
  Files files;
  std::optional<std::int64_t> current, max, amperage, voltage, timeRemaining;
  bool external = false, charging = false;
  std::optional<BatteryReading> reading;
  bool onPower = false;
};

const std::string kPs = "/sys/class/power_supply/";

BatteryReading reading(int percent, bool onAC, bool charging, double watts, std::optional<int> minutes) {
  BatteryReading r;
  r.percent = percent;
  r.onAC = onAC;
  r.charging = charging;
  r.watts = watts;
  r.minutesLeft = minutes;
  return r;
}

// The trees follow what real drivers show: the ACPI battery in mWh units
// (energy_*, power_now; ThinkPads), in mAh units (charge_*, unsigned
// current_now), a fuel gauge that signs its current (bq27xxx on ARM
// boards), UCSI USB-C sources, and a HID peripheral's battery.
std::vector<BatteryCase> batteryCases() {
  std::vector<BatteryCase> cases;
  cases.push_back({"energy-based pack discharging, adapter offline",
                   {{kPs + "AC/type", "Mains\n"},
                    {kPs + "AC/online", "0\n"},
                    {kPs + "BAT0/type", "Battery\n"},
                    {kPs + "BAT0/status", "Discharging\n"},
                    {kPs + "BAT0/present", "1\n"},
                    {kPs + "BAT0/technology", "Li-ion\n"},
                    {kPs + "BAT0/energy_now", "38450000\n"},
                    {kPs + "BAT0/energy_full", "50320000\n"},
                    {kPs + "BAT0/energy_full_design", "57020000\n"},
                    {kPs + "BAT0/power_now", "8712000\n"},
                    {kPs + "BAT0/voltage_now", "11945000\n"},
                    {kPs + "BAT0/voltage_min_design", "11520000\n"},
                    {kPs + "BAT0/capacity", "76\n"}},
                   3338,
                   4368,
                   -729,
                   11945,
                   274,
                   false,
                   false,
                   reading(76, false, false, 11945.0 * 729 / 1e6, 274),
                   false});
  cases.push_back({"charge-based pack charging on the adapter",
                   {{kPs + "ADP1/type", "Mains\n"},
                    {kPs + "ADP1/online", "1\n"},
                    {kPs + "BAT1/type", "Battery\n"},
                    {kPs + "BAT1/status", "Charging\n"},
                    {kPs + "BAT1/present", "1\n"},
                    {kPs + "BAT1/charge_now", "2890000\n"},
                    {kPs + "BAT1/charge_full", "3950000\n"},
                    {kPs + "BAT1/current_now", "1234000\n"},
                    {kPs + "BAT1/voltage_now", "12900000\n"},
                    {kPs + "BAT1/capacity", "73\n"}},
                   2890,
                   3950,
                   1234,
                   12900,
                   51,
                   true,
                   true,
                   reading(73, true, true, 0.0, std::nullopt),
                   true});
  cases.push_back({"fuel gauge that signs its current, no adapter shown",
                   {{kPs + "bq27541-0/type", "Battery\n"},
                    {kPs + "bq27541-0/status", "Discharging\n"},
                    {kPs + "bq27541-0/charge_now", "1800000\n"},
                    {kPs + "bq27541-0/charge_full", "4000000\n"},
                    {kPs + "bq27541-0/current_now", "-1500000\n"},
                    {kPs + "bq27541-0/voltage_now", "8000000\n"}},
                   1800,
                   4000,
                   -1500,
                   8000,
                   72,
                   false,
                   false,
                   reading(45, false, false, 12.0, 72),
                   false});
  cases.push_back({"full on the adapter",
                   {{kPs + "AC/type", "Mains\n"},
                    {kPs + "AC/online", "1\n"},
                    {kPs + "BAT0/type", "Battery\n"},
                    {kPs + "BAT0/status", "Full\n"},
                    {kPs + "BAT0/energy_now", "50000000\n"},
                    {kPs + "BAT0/energy_full", "50000000\n"},
                    {kPs + "BAT0/power_now", "0\n"},
                    {kPs + "BAT0/voltage_now", "12600000\n"},
                    {kPs + "BAT0/voltage_min_design", "11100000\n"}},
                   4505,
                   4505,
                   0,
                   12600,
                   65535,
                   true,
                   false,
                   reading(100, true, false, 0.0, std::nullopt),
                   true});
  cases.push_back({"not charging at a charge threshold",
                   {{kPs + "AC/type", "Mains\n"},
                    {kPs + "AC/online", "1\n"},
                    {kPs + "BAT0/type", "Battery\n"},
                    {kPs + "BAT0/status", "Not charging\n"},
                    {kPs + "BAT0/energy_now", "40000000\n"},
                    {kPs + "BAT0/energy_full", "50000000\n"},
                    {kPs + "BAT0/power_now", "0\n"},
                    {kPs + "BAT0/voltage_now", "12300000\n"},
                    {kPs + "BAT0/voltage_min_design", "11520000\n"}},
                   3472,
                   4340,
                   0,
                   12300,
                   65535,
                   true,
                   false,
                   reading(80, true, false, 0.0, std::nullopt),
                   true});
  cases.push_back({"adapter too weak for the draw",
                   {{kPs + "AC/type", "Mains\n"},
                    {kPs + "AC/online", "1\n"},
                    {kPs + "BAT0/type", "Battery\n"},
                    {kPs + "BAT0/status", "Discharging\n"},
                    {kPs + "BAT0/energy_now", "22000000\n"},
                    {kPs + "BAT0/energy_full", "44000000\n"},
                    {kPs + "BAT0/power_now", "5000000\n"},
                    {kPs + "BAT0/voltage_now", "11000000\n"},
                    {kPs + "BAT0/voltage_min_design", "11000000\n"}},
                   2000,
                   4000,
                   -454,
                   11000,
                   264,
                   true,
                   false,
                   reading(50, true, false, 11000.0 * 454 / 1e6, std::nullopt),
                   false});
  cases.push_back({"USB-C charger through UCSI, no Mains supply",
                   {{kPs + "ucsi-source-psy-USBC000:001/type", "USB\n"},
                    {kPs + "ucsi-source-psy-USBC000:001/online", "1\n"},
                    {kPs + "ucsi-source-psy-USBC000:001/scope", "Unknown\n"},
                    {kPs + "BAT0/type", "Battery\n"},
                    {kPs + "BAT0/status", "Charging\n"},
                    {kPs + "BAT0/charge_now", "1000000\n"},
                    {kPs + "BAT0/charge_full", "4000000\n"},
                    {kPs + "BAT0/current_now", "2000000\n"},
                    {kPs + "BAT0/voltage_now", "15000000\n"}},
                   1000,
                   4000,
                   2000,
                   15000,
                   90,
                   true,
                   true,
                   reading(25, true, true, 0.0, std::nullopt),
                   true});
  cases.push_back({"two packs discharging, a third bay empty",
                   {{kPs + "BAT0/type", "Battery\n"},
                    {kPs + "BAT0/status", "Discharging\n"},
                    {kPs + "BAT0/energy_now", "10000000\n"},
                    {kPs + "BAT0/energy_full", "20000000\n"},
                    {kPs + "BAT0/power_now", "3000000\n"},
                    {kPs + "BAT0/voltage_now", "11000000\n"},
                    {kPs + "BAT0/voltage_min_design", "11000000\n"},
                    {kPs + "BAT1/type", "Battery\n"},
                    {kPs + "BAT1/status", "Discharging\n"},
                    {kPs + "BAT1/energy_now", "30000000\n"},
                    {kPs + "BAT1/energy_full", "60000000\n"},
                    {kPs + "BAT1/power_now", "6000000\n"},
                    {kPs + "BAT1/voltage_now", "12000000\n"},
                    {kPs + "BAT1/voltage_min_design", "11000000\n"},
                    {kPs + "BAT2/type", "Battery\n"},
                    {kPs + "BAT2/present", "0\n"}},
                   3637,
                   7273,
                   -772,
                   11648,
                   282,
                   false,
                   false,
                   reading(50, false, false, 11648.0 * 772 / 1e6, 282),
                   false});
  return cases;
}

TEST_F(LinuxTreeTest, BatteryFromRealDriversFormats) {
  for (const BatteryCase& c : batteryCases()) {
    SCOPED_TRACE(c.name);
    removeFromTree("/sys");
    putAll(c.files);
    auto props = platform()->registry().battery();
    ASSERT_TRUE(props.has_value());
    EXPECT_EQ(props->currentCapacity, c.current);
    EXPECT_EQ(props->maxCapacity, c.max);
    EXPECT_EQ(props->amperage, c.amperage);
    EXPECT_EQ(props->voltage, c.voltage);
    EXPECT_EQ(props->timeRemaining, c.timeRemaining);
    EXPECT_EQ(props->externalConnected, c.external);
    EXPECT_EQ(props->isCharging, c.charging);

    auto r = readingFrom(props);
    ASSERT_TRUE(r.has_value());
    EXPECT_EQ(r->percent, c.reading->percent);
    EXPECT_EQ(r->onAC, c.reading->onAC);
    EXPECT_EQ(r->charging, c.reading->charging);
    EXPECT_NEAR(r->watts, c.reading->watts, 1e-9);
    EXPECT_EQ(r->minutesLeft, c.reading->minutesLeft);
    EXPECT_EQ(r->onPower(), c.onPower);
  }
}

TEST_F(LinuxTreeTest, BatteryAbsentPeripheralOrUnreadableGivesNoReading) {
  // Given only a wireless mouse's battery: the machine has none.
  putAll({{kPs + "hid-34:88:5d:aa:bb:cc-battery/type", "Battery\n"},
          {kPs + "hid-34:88:5d:aa:bb:cc-battery/scope", "Device\n"},
          {kPs + "hid-34:88:5d:aa:bb:cc-battery/status", "Discharging\n"},
          {kPs + "hid-34:88:5d:aa:bb:cc-battery/capacity", "60\n"}});
  auto p = platform();
  EXPECT_FALSE(p->registry().battery().has_value());
  auto caps = p->capabilities();
  auto battery = std::find_if(caps.begin(), caps.end(), [](const Capability& c) { return c.name == "battery"; });
  ASSERT_NE(battery, caps.end());
  EXPECT_FALSE(battery->available);
  EXPECT_EQ(battery->detail,
            "No battery found under /sys/class/power_supply, so the battery limit and only-on-power guards are off.");

  // Given a pack whose driver shows nonsense: a pack, but no reading, and
  // the capability says why.
  putAll({{kPs + "BAT0/type", "Battery\n"},
          {kPs + "BAT0/status", "Discharging\n"},
          {kPs + "BAT0/energy_now", "garbage\n"},
          {kPs + "BAT0/energy_full", ""},
          {kPs + "BAT0/voltage_now", "-\n"}});
  auto props = p->registry().battery();
  ASSERT_TRUE(props.has_value());
  EXPECT_FALSE(readingFrom(props).has_value());
  caps = p->capabilities();
  battery = std::find_if(caps.begin(), caps.end(), [](const Capability& c) { return c.name == "battery"; });
  EXPECT_FALSE(battery->available);
  EXPECT_NE(battery->detail.find("BAT0 doesn't show its charge"), std::string::npos) << battery->detail;
}

TEST(LinuxSysfsText, IntegersAndWordsToleratePaddingAndRefuseJunk) {
  EXPECT_EQ(sysfsInteger("12345\n"), 12345);
  EXPECT_EQ(sysfsInteger("  -870000 \n"), -870000);
  for (const char* junk : {"", "\n", "12ab", "1.5", "N/A", "99999999999999999999999"}) {
    EXPECT_FALSE(sysfsInteger(junk).has_value()) << junk;
  }
  EXPECT_EQ(sysfsWord("Not charging\nsecond line"), "Not charging");
}

// Given one zone with a passive and a critical trip, a CPU package zone
// with its unset trips, and a Wi-Fi sensor without trips that reads hot.
TEST_F(LinuxTreeTest, ThermalFollowsTripPointsWithHysteresis) {
  const std::string tz = "/sys/class/thermal/";
  putAll({{tz + "thermal_zone0/type", "x86_pkg_temp\n"},
          {tz + "thermal_zone0/temp", "99000\n"},
          {tz + "thermal_zone0/trip_point_0_type", "passive\n"},
          {tz + "thermal_zone0/trip_point_0_temp", "0\n"},
          {tz + "thermal_zone0/trip_point_1_type", "passive\n"},
          {tz + "thermal_zone0/trip_point_1_temp", "0\n"},
          {tz + "thermal_zone1/type", "acpitz\n"},
          {tz + "thermal_zone1/trip_point_0_type", "critical\n"},
          {tz + "thermal_zone1/trip_point_0_temp", "105000\n"},
          {tz + "thermal_zone1/trip_point_1_type", "passive\n"},
          {tz + "thermal_zone1/trip_point_1_temp", "90000\n"},
          {tz + "thermal_zone1/trip_point_2_type", "active\n"},
          {tz + "thermal_zone1/trip_point_2_temp", "60000\n"},
          {tz + "thermal_zone2/type", "iwlwifi_1\n"},
          {tz + "thermal_zone2/temp", "120000\n"},
          {tz + "cooling_device0/type", "Processor\n"}});
  auto p = platform();
  // Each step: the zone's temperature, then the state it must give.
  const std::vector<std::pair<int, int>> steps{
      {45000, 0}, {80500, 1},  {77000, 1},  {75900, 0},  {90000, 2},  {86500, 2}, {85500, 1},
      {60000, 0}, {104000, 2}, {105000, 3}, {101500, 3}, {100500, 2}, {50000, 0},
  };
  for (const auto& [milli, state] : steps) {
    put(tz + "thermal_zone1/temp", std::to_string(milli) + "\n");
    EXPECT_EQ(p->registry().thermalState(), state) << milli;
  }

  // An unreadable temperature counts as no information, not as cool or hot.
  put(tz + "thermal_zone1/temp", "N/A\n");
  EXPECT_EQ(p->registry().thermalState(), 0);
}

TEST_F(LinuxTreeTest, ThermalHotTripIsCriticalAndZonesWithoutTripsAreNotGuessed) {
  const std::string tz = "/sys/class/thermal/";
  putAll({{tz + "thermal_zone0/type", "INT3400 Thermal\n"},
          {tz + "thermal_zone0/temp", "20000\n"},
          {tz + "thermal_zone1/type", "iwlwifi_1\n"},
          {tz + "thermal_zone1/temp", "120000\n"}});
  auto p = platform();
  EXPECT_EQ(p->registry().thermalState(), 0);
  auto caps = p->capabilities();
  auto thermal = std::find_if(caps.begin(), caps.end(), [](const Capability& c) { return c.name == "thermal"; });
  ASSERT_NE(thermal, caps.end());
  EXPECT_FALSE(thermal->available);
  EXPECT_NE(thermal->detail.find("INT3400 Thermal and iwlwifi_1"), std::string::npos) << thermal->detail;

  // A zone with only a hot trip: critical there, serious 10 °C below.
  putAll({{tz + "thermal_zone2/type", "pch_skylake\n"},
          {tz + "thermal_zone2/trip_point_0_type", "hot\n"},
          {tz + "thermal_zone2/trip_point_0_temp", "95000\n"}});
  for (const auto& [milli, state] : std::vector<std::pair<int, int>>{{70000, 0}, {76000, 1}, {85000, 2}, {95000, 3}}) {
    put(tz + "thermal_zone2/temp", std::to_string(milli) + "\n");
    EXPECT_EQ(p->registry().thermalState(), state) << milli;
  }
  caps = p->capabilities();
  thermal = std::find_if(caps.begin(), caps.end(), [](const Capability& c) { return c.name == "thermal"; });
  EXPECT_TRUE(thermal->available);
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
      {"", std::nullopt},
  };
  for (const auto& [text, closed] : states) {
    put("/proc/acpi/button/lid/LID0/state", text);
    EXPECT_EQ(p->registry().lidClosed(), closed) << text;
  }
}

TEST(LinuxSysfsText, LidSwitchBit) {
  EXPECT_TRUE(hasLidSwitchBit("1\n"));
  EXPECT_TRUE(hasLidSwitchBit("10 1\n"));
  EXPECT_FALSE(hasLidSwitchBit("10 0\n"));  // another switch, not the lid
  EXPECT_FALSE(hasLidSwitchBit("zz\n"));
}

}  // namespace
}  // namespace vigilo::test
