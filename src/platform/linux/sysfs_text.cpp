#include "platform/linux/sysfs_text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>

#include "platform/text.h"

namespace vigilo {
namespace {

const std::string* attribute(const PowerSupplyText& s, std::string_view name) {
  auto it = s.attributes.find(name);
  return it == s.attributes.end() ? nullptr : &it->second;
}

std::string word(const PowerSupplyText& s, std::string_view name) {
  const std::string* text = attribute(s, name);
  return text ? sysfsWord(*text) : std::string();
}

std::optional<std::int64_t> number(const PowerSupplyText& s, std::string_view name) {
  const std::string* text = attribute(s, name);
  return text ? sysfsInteger(*text) : std::nullopt;
}

std::optional<std::int64_t> positive(const PowerSupplyText& s, std::string_view name) {
  auto v = number(s, name);
  if (v && *v > 0) return v;
  return std::nullopt;
}

bool isSystemBattery(const PowerSupplyText& s) {
  if (word(s, "type") != "Battery") return false;
  // Peripherals (a wireless mouse, a headset) report scope "Device"; the
  // machine's own packs report "System" or leave scope out.
  if (word(s, "scope") == "Device") return false;
  auto present = number(s, "present");
  return !present || *present != 0;
}

bool isAdapter(const PowerSupplyText& s) {
  const std::string type = word(s, "type");
  if (type == "Mains" || type == "Wireless" || type == "BrickID") return true;
  // USB, USB_C, USB_PD, USB_PD_DRP, USB_DCP, USB_CDP, USB_ACA, USB_TYPE_C...
  return type.rfind("USB", 0) == 0;
}

// One system pack in the controller's units.
struct Pack {
  std::optional<double> nowMah;  // unrounded
  std::optional<double> fullMah;
  std::int64_t milliamps = 0;  // signed: negative drains
  std::int64_t millivolts = 0;
  std::string status;
  std::optional<std::int64_t> percent;  // "capacity", for packs without charge values
};

Pack readPack(const PowerSupplyText& s, std::optional<bool> adapter) {
  Pack p;
  p.status = word(s, "status");
  const auto vNow = positive(s, "voltage_now");            // µV
  const auto vDesign = positive(s, "voltage_min_design");  // µV
  const std::int64_t mvNow = vNow ? *vNow / 1000 : 0;
  // Capacities convert at one fixed voltage so that now/full gives the
  // kernel's own percentage; the present voltage moves with the charge.
  const std::int64_t mvConvert = vDesign ? *vDesign / 1000 : mvNow;
  p.millivolts = mvNow > 0 ? mvNow : mvConvert;

  std::optional<std::int64_t> rawMilliamps;        // as the driver signs it
  const auto energyNow = number(s, "energy_now");  // µWh
  const auto energyFull = number(s, "energy_full");
  const auto chargeNow = number(s, "charge_now");  // µAh
  const auto chargeFull = number(s, "charge_full");
  const auto currentNow = number(s, "current_now");  // µA
  const auto powerNow = number(s, "power_now");      // µW
  if (energyNow && energyFull && mvConvert > 0) {
    // µWh / mV = mAh.
    p.nowMah = static_cast<double>(std::max<std::int64_t>(0, *energyNow)) / static_cast<double>(mvConvert);
    p.fullMah = static_cast<double>(std::max<std::int64_t>(0, *energyFull)) / static_cast<double>(mvConvert);
  } else if (chargeNow && chargeFull) {
    p.nowMah = static_cast<double>(std::max<std::int64_t>(0, *chargeNow)) / 1000.0;
    p.fullMah = static_cast<double>(std::max<std::int64_t>(0, *chargeFull)) / 1000.0;
  }
  if (currentNow) {
    rawMilliamps = *currentNow / 1000;
  } else if (powerNow && p.millivolts > 0) {
    rawMilliamps = *powerNow / p.millivolts;  // µW / mV = mA
  }
  p.percent = number(s, "capacity");

  const std::int64_t magnitude = rawMilliamps ? std::llabs(*rawMilliamps) : 0;
  if (p.status == "Discharging") {
    p.milliamps = -magnitude;
  } else if (p.status == "Charging") {
    p.milliamps = magnitude;
  } else if (rawMilliamps && *rawMilliamps < 0) {
    // "Full", "Not charging", "Unknown": a driver that signs its current
    // says plainly that the pack drains.
    p.milliamps = *rawMilliamps;
  } else if (adapter && !*adapter) {
    // Nothing else powers the machine, whatever the status says.
    p.milliamps = -magnitude;
  }
  return p;
}

bool chargingStatus(const std::string& status) { return status == "Charging"; }

// Whole mAh whose whole-number percentage is the one of the exact values:
// rounding each on its own can cost a point at a low charge (450.45 of
// 4504.5 mAh is 10 %, 450 of 4505 is 9 %), and the battery limit is
// compared point by point.
std::pair<std::int64_t, std::int64_t> wholeMah(double now, double full) {
  const std::int64_t fullMah = std::llround(full);
  std::int64_t nowMah = std::llround(now);
  if (fullMah >= 100 && now >= 0 && now <= full) {
    const auto percent = static_cast<std::int64_t>(std::floor(now * 100.0 / full + 1e-9));
    const std::int64_t lowest = (percent * fullMah + 99) / 100;
    const std::int64_t highest = ((percent + 1) * fullMah + 99) / 100 - 1;
    nowMah = std::clamp(nowMah, lowest, std::max(lowest, highest));
  }
  return {nowMah, fullMah};
}

bool onExternalStatus(const std::string& status) {
  return status == "Charging" || status == "Full" || status == "Not charging";
}

}  // namespace

std::optional<std::int64_t> sysfsInteger(std::string_view text) {
  text = trimmed(text);
  if (text.empty()) return std::nullopt;
  std::int64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

std::string sysfsWord(std::string_view text) {
  const auto eol = text.find('\n');
  return std::string(trimmed(text.substr(0, eol)));
}

const std::vector<std::string>& powerSupplyAttributeNames() {
  static const std::vector<std::string> names{
      "type",        "scope",      "present",     "online",    "status",      "capacity",    "energy_now",
      "energy_full", "charge_now", "charge_full", "power_now", "current_now", "voltage_now", "voltage_min_design",
  };
  return names;
}

std::vector<std::string> systemBatteryNames(const std::vector<PowerSupplyText>& supplies) {
  std::vector<std::string> out;
  for (const auto& s : supplies) {
    if (isSystemBattery(s)) out.push_back(s.name);
  }
  return out;
}

std::optional<bool> adapterOnline(const std::vector<PowerSupplyText>& supplies) {
  std::optional<bool> online;
  for (const auto& s : supplies) {
    if (!isAdapter(s) || word(s, "scope") == "Device") continue;
    const auto value = number(s, "online");
    if (!value) continue;
    online = online.value_or(false) || *value != 0;
  }
  return online;
}

std::optional<BatteryProperties> batteryFromSupplies(const std::vector<PowerSupplyText>& supplies) {
  const std::optional<bool> adapter = adapterOnline(supplies);
  std::vector<Pack> packs;
  for (const auto& s : supplies) {
    if (isSystemBattery(s)) packs.push_back(readPack(s, adapter));
  }
  if (packs.empty()) return std::nullopt;

  BatteryProperties props;
  double nowExact = 0.0, fullExact = 0.0;
  std::int64_t milliamps = 0, maxMillivolts = 0;
  double milliwatts = 0.0;
  bool capacities = false;
  bool charging = false, external = false;
  for (const Pack& p : packs) {
    if (p.nowMah && p.fullMah && *p.fullMah >= 1.0) {
      nowExact += *p.nowMah;
      fullExact += *p.fullMah;
      capacities = true;
    }
    milliamps += p.milliamps;
    milliwatts += static_cast<double>(p.millivolts) * static_cast<double>(p.milliamps) / 1000.0;
    maxMillivolts = std::max(maxMillivolts, p.millivolts);
    charging = charging || chargingStatus(p.status);
    external = external || onExternalStatus(p.status);
  }
  const auto [nowMah, fullMah] = wholeMah(nowExact, fullExact);
  if (capacities) {
    props.currentCapacity = nowMah;
    props.maxCapacity = fullMah;
  } else {
    // A pack that gives only a percentage is read on a scale of 100.
    for (const Pack& p : packs) {
      if (p.percent && *p.percent >= 0) {
        props.currentCapacity = std::min<std::int64_t>(*p.percent, 100);
        props.maxCapacity = 100;
        break;
      }
    }
  }
  props.amperage = milliamps;
  props.instantAmperage = milliamps;
  // One voltage for several packs: the one that gives their summed power.
  if (milliamps != 0) {
    props.voltage = static_cast<std::int64_t>(std::llround(std::fabs(milliwatts * 1000.0 / milliamps)));
  } else if (maxMillivolts > 0) {
    props.voltage = maxMillivolts;
  }
  props.isCharging = charging;
  props.externalConnected = adapter.value_or(external);

  std::int64_t minutes = 65535;
  if (capacities && milliamps < 0) {
    minutes = nowMah * 60 / -milliamps;
  } else if (capacities && milliamps > 0) {
    minutes = std::max<std::int64_t>(0, fullMah - nowMah) * 60 / milliamps;
  }
  props.timeRemaining = std::min<std::int64_t>(minutes, 65535);
  return props;
}

// ---------------------------------------------------------------- thermal

ThermalZone parseThermalZone(const ThermalZoneText& text) {
  ThermalZone z;
  z.name = text.name;
  z.type = sysfsWord(text.type);
  // Millidegrees Celsius. Sensors that are not wired up show values like
  // -274000 or far above anything silicon survives.
  if (auto t = sysfsInteger(text.temp); t && *t > -50'000 && *t < 200'000) z.celsius = *t / 1000.0;
  auto lowest = [](std::optional<double>& slot, double v) {
    if (!slot || v < *slot) slot = v;
  };
  for (const auto& [type, temp] : text.trips) {
    auto t = sysfsInteger(temp);
    if (!t || *t <= 0) continue;  // not set
    const double c = *t / 1000.0;
    const std::string kind = sysfsWord(type);
    if (kind == "passive") lowest(z.passive, c);
    if (kind == "hot") lowest(z.hot, c);
    if (kind == "critical") lowest(z.critical, c);
  }
  return z;
}

int thermalLevel(const std::vector<ThermalZone>& zones, int previous) {
  int level = 0;
  for (const ThermalZone& z : zones) {
    if (!z.celsius || !z.hasTrips()) continue;
    std::optional<double> threshold[4];
    if (z.hot && z.critical) {
      threshold[3] = std::min(*z.hot, *z.critical);
    } else {
      threshold[3] = z.hot ? z.hot : z.critical;
    }
    threshold[2] = z.passive ? z.passive : (threshold[3] ? std::optional<double>(*threshold[3] - 10.0) : std::nullopt);
    if (threshold[2]) threshold[1] = *threshold[2] - 10.0;
    for (int l = 3; l > level; --l) {
      if (!threshold[l]) continue;
      const double margin = previous >= l ? kThermalHysteresis : 0.0;
      if (*z.celsius >= *threshold[l] - margin) {
        level = l;
        break;
      }
    }
  }
  return level;
}

// ---------------------------------------------------------------- lid, input, backlight

std::optional<bool> lidClosedFromAcpiState(std::string_view text) {
  text = trimmed(text);
  if (text.rfind("state:", 0) != 0) return std::nullopt;
  const std::string_view value = trimmed(text.substr(6));
  if (value == "open") return false;
  if (value == "closed") return true;
  return std::nullopt;
}

bool hasLidSwitchBit(std::string_view swCapabilities) {
  std::string_view words = trimmed(swCapabilities);
  if (words.empty()) return false;
  const auto space = words.find_last_of(kBlanks);
  const std::string_view last = space == std::string_view::npos ? words : words.substr(space + 1);
  unsigned long long bits = 0;
  auto [ptr, ec] = std::from_chars(last.data(), last.data() + last.size(), bits, 16);
  if (ec != std::errc() || ptr != last.data() + last.size()) return false;
  return (bits & 1ULL) != 0;
}

std::optional<std::string> chooseBacklight(const std::vector<std::pair<std::string, std::string>>& backlights) {
  for (std::string_view preferred : {"firmware", "platform", "raw"}) {
    std::optional<std::string> best;
    for (const auto& [name, type] : backlights) {
      if (sysfsWord(type) == preferred && (!best || name < *best)) best = name;
    }
    if (best) return best;
  }
  if (backlights.empty()) return std::nullopt;
  return std::min_element(backlights.begin(), backlights.end())->first;
}

}  // namespace vigilo
