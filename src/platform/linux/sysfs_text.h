#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/registry.h"

// Pure readers of the text the kernel shows under /sys and /proc/acpi. The
// Linux backend reads the files; these functions only interpret them, so
// each is tested with text captured from real machines.

namespace vigilo {

// ---------------------------------------------------------------- values

// A sysfs integer attribute ("12345\n", "-870000\n"); nothing for anything
// else (empty, words, trailing junk, out of range).
std::optional<std::int64_t> sysfsInteger(std::string_view text);
// The first line without surrounding blanks ("Battery\n" gives "Battery").
std::string sysfsWord(std::string_view text);

// ---------------------------------------------------------------- power supplies

// One folder of /sys/class/power_supply: its name and the text of every
// attribute file of `powerSupplyAttributeNames()` that could be read.
struct PowerSupplyText {
  std::string name;
  std::map<std::string, std::string, std::less<>> attributes;
};

// The attribute files the functions below look at.
const std::vector<std::string>& powerSupplyAttributeNames();

// The packs that power the machine: type "Battery", scope not "Device" (a
// mouse or headset reports its own battery here too), and not marked absent.
std::vector<std::string> systemBatteryNames(const std::vector<PowerSupplyText>& supplies);

// Whether an adapter (Mains, USB, USB-C, wireless charger) is online;
// nothing when the machine shows no adapter at all.
std::optional<bool> adapterOnline(const std::vector<PowerSupplyText>& supplies);

// The system packs as the battery controller's raw properties, summed over
// several packs: capacities in mAh (energy-based packs converted with their
// design minimum voltage, else the present voltage), current in mA with the
// sign taken from each pack's status (drivers disagree on the sign of
// current_now), voltage in mV, the time to empty or to full in minutes
// (65535 when unknown). Nothing when there is no system pack. A pack whose
// charge cannot be read leaves the capacities out, so no reading is made of
// it.
std::optional<BatteryProperties> batteryFromSupplies(const std::vector<PowerSupplyText>& supplies);

// ---------------------------------------------------------------- thermal zones

// One /sys/class/thermal/thermal_zone*: the text of `type` and `temp`, and
// of each trip point's `trip_point_N_type` and `trip_point_N_temp`.
struct ThermalZoneText {
  std::string name;
  std::string type;
  std::string temp;
  std::vector<std::pair<std::string, std::string>> trips;  // {type, temp}
};

// A zone in degrees Celsius. Trip points that are not set (0 or below, as
// x86_pkg_temp shows its unused passive trips) are left out; of each kind
// the lowest counts.
struct ThermalZone {
  std::string name;
  std::string type;
  std::optional<double> celsius;  // nothing when unreadable or absurd
  std::optional<double> passive;
  std::optional<double> hot;
  std::optional<double> critical;
  bool hasTrips() const { return passive || hot || critical; }
};

ThermalZone parseThermalZone(const ThermalZoneText& text);

// How far below a level's threshold a zone must cool before the state drops
// from that level.
inline constexpr double kThermalHysteresis = 4.0;

// The machine's thermal state, 0 nominal ... 3 critical, from the zones that
// have trip points; `previous` is the state last returned (for hysteresis).
// Per zone: critical at its hot or critical trip (hot is where ACPI firmware
// asks the system to hibernate); serious at its passive trip (where the
// firmware starts throttling) or, without one, 10 °C below critical; fair
// 10 °C below serious.
int thermalLevel(const std::vector<ThermalZone>& zones, int previous);

// ---------------------------------------------------------------- lid, input, backlight

// /proc/acpi/button/lid/*/state ("state:      open" or "state:      closed");
// nothing for anything else.
std::optional<bool> lidClosedFromAcpiState(std::string_view text);

// Whether /sys/class/input/input*/capabilities/sw (hexadecimal words, most
// significant first) includes SW_LID, bit 0.
bool hasLidSwitchBit(std::string_view swCapabilities);

// The backlight to use among {name, type} of /sys/class/backlight: the
// kernel's advice is firmware, then platform, then raw. Nothing when empty.
std::optional<std::string> chooseBacklight(const std::vector<std::pair<std::string, std::string>>& backlights);

}  // namespace vigilo
