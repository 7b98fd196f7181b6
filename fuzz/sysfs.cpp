// The readers of sysfs and /proc/acpi text. The input is split at NUL bytes
// into the files of one power supply, one thermal zone and the lid and
// backlight files, so the fuzzer can vary each file on its own.
#include <vector>

#include "fuzz_target.h"
#include "platform/linux/sysfs_text.h"

VIGILO_FUZZ_TARGET(sysfs) {
  using namespace vigilo;
  std::vector<std::string_view> parts;
  for (std::size_t start = 0;;) {
    const std::size_t nul = input.find('\0', start);
    parts.push_back(input.substr(start, nul == std::string_view::npos ? std::string_view::npos : nul - start));
    if (nul == std::string_view::npos) break;
    start = nul + 1;
  }
  auto part = [&](std::size_t i) { return i < parts.size() ? std::string(parts[i]) : std::string(); };

  (void)sysfsInteger(input);
  (void)sysfsWord(input);
  (void)lidClosedFromAcpiState(input);
  (void)hasLidSwitchBit(input);

  // Two supplies (a pack and an adapter) take the first parts as their
  // attribute files, in the order the backend reads them.
  const auto& names = powerSupplyAttributeNames();
  std::vector<PowerSupplyText> supplies(2);
  std::size_t next = 0;
  for (auto& supply : supplies) {
    supply.name = "BAT" + std::to_string(&supply - supplies.data());
    for (const auto& name : names) {
      if (next < parts.size()) supply.attributes[name] = part(next);
      ++next;
    }
  }
  (void)systemBatteryNames(supplies);
  (void)adapterOnline(supplies);
  (void)batteryFromSupplies(supplies);

  ThermalZoneText zoneText{"thermal_zone0", part(0), part(1), {}};
  for (std::size_t i = 2; i + 1 < parts.size() && i < 12; i += 2) zoneText.trips.emplace_back(part(i), part(i + 1));
  const ThermalZone zone = parseThermalZone(zoneText);
  (void)thermalLevel({zone, zone}, 0);
  (void)thermalLevel({zone}, 3);

  std::vector<std::pair<std::string, std::string>> backlights;
  for (std::size_t i = 0; i + 1 < parts.size() && i < 8; i += 2) backlights.emplace_back(part(i), part(i + 1));
  (void)chooseBacklight(backlights);
}
