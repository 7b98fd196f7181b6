#include "platform/macos/ioreg_text.h"

#include <plist/plist.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

namespace vigilo {
namespace {

// The registry's answers are a few kilobytes; anything far larger isn't one.
constexpr std::size_t kMaxPlist = 16u << 20;

struct PlistFree {
  void operator()(void* p) const { plist_free(static_cast<plist_t>(p)); }
};
using PlistPtr = std::unique_ptr<void, PlistFree>;

// The registry nests a few levels deep; libplist parses nesting by
// recursion, and a million levels overflow its stack.
constexpr int kMaxNesting = 64;

// Whether no array or dictionary in `xml` opens deeper than kMaxNesting.
bool shallow(std::string_view xml) {
  int depth = 0;
  for (std::size_t at = xml.find('<'); at != std::string_view::npos; at = xml.find('<', at + 1)) {
    const std::string_view tag = xml.substr(at + 1, 7);
    if (tag.starts_with("array>") || tag.starts_with("dict>")) {
      if (++depth > kMaxNesting) return false;
    } else if (tag.starts_with("/array>") || tag.starts_with("/dict>")) {
      --depth;
    }
  }
  return true;
}

PlistPtr parse(std::string_view xml) {
  if (xml.empty() || xml.size() > kMaxPlist || !shallow(xml)) return nullptr;
  plist_t root = nullptr;
  plist_from_xml(xml.data(), static_cast<uint32_t>(xml.size()), &root);
  return PlistPtr(root);
}

bool isA(plist_t node, plist_type type) { return node != nullptr && plist_get_node_type(node) == type; }

// The first dictionary: the root itself or the first entry of a root array.
plist_t firstDict(plist_t root) {
  if (isA(root, PLIST_DICT)) return root;
  if (!isA(root, PLIST_ARRAY) || plist_array_get_size(root) == 0) return nullptr;
  plist_t first = plist_array_get_item(root, 0);
  return isA(first, PLIST_DICT) ? first : nullptr;
}

// libplist keeps every integer in 64 bits without its sign: the two's
// complement reads back the negative ones.
std::optional<std::int64_t> integer(plist_t dict, const char* key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  if (!isA(node, PLIST_UINT)) return std::nullopt;
  std::uint64_t raw = 0;
  plist_get_uint_val(node, &raw);
  return static_cast<std::int64_t>(raw);
}

std::optional<bool> boolean(plist_t dict, const char* key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  if (!isA(node, PLIST_BOOLEAN)) return std::nullopt;
  std::uint8_t value = 0;
  plist_get_bool_val(node, &value);
  return value != 0;
}

plist_t dictAt(plist_t dict, const char* key) {
  plist_t node = dict != nullptr ? plist_dict_get_item(dict, key) : nullptr;
  return isA(node, PLIST_DICT) ? node : nullptr;
}

// A charge and a full charge from one source, or neither.
bool takePair(plist_t dict, const char* now, const char* full, BatteryProperties& out) {
  auto n = integer(dict, now);
  auto f = integer(dict, full);
  if (!n || !f || *n < 0 || *f <= 0) return false;
  out.currentCapacity = n;
  out.maxCapacity = f;
  return true;
}

}  // namespace

std::optional<BatteryProperties> parseSmartBattery(std::string_view plistXml) {
  PlistPtr root = parse(plistXml);
  plist_t battery = firstDict(static_cast<plist_t>(root.get()));
  if (battery == nullptr) return std::nullopt;

  BatteryProperties p;
  if (!takePair(battery, "CurrentCapacity", "MaxCapacity", p) &&
      !takePair(battery, "AppleRawCurrentCapacity", "AppleRawMaxCapacity", p)) {
    takePair(dictAt(battery, "BatteryData"), "RemainingCapacity", "FullChargeCapacity", p);
  }
  p.amperage = integer(battery, "Amperage");
  p.instantAmperage = integer(battery, "InstantAmperage");
  if (p.instantAmperage && *p.instantAmperage > std::numeric_limits<std::int16_t>::max() &&
      *p.instantAmperage <= std::numeric_limits<std::uint16_t>::max()) {
    *p.instantAmperage -= 65536;
  }
  p.voltage = integer(battery, "Voltage");
  if (!p.voltage) p.voltage = integer(battery, "AppleRawBatteryVoltage");
  p.timeRemaining = integer(battery, "TimeRemaining");
  p.externalConnected = boolean(battery, "ExternalConnected");
  p.isCharging = boolean(battery, "IsCharging");
  if (plist_t telemetry = dictAt(battery, "PowerTelemetryData")) {
    p.systemLoad = integer(telemetry, "SystemLoad");
    p.accumulatedSystemLoad = integer(telemetry, "AccumulatedSystemLoad");
    p.accumulatorCount = integer(telemetry, "SystemLoadAccumulatorCount");
  }
  // A dictionary that names none of the battery's properties isn't one.
  const bool any = p.currentCapacity || p.amperage || p.instantAmperage || p.voltage || p.timeRemaining ||
                   p.externalConnected || p.isCharging || p.systemLoad;
  if (!any) return std::nullopt;
  return p;
}

std::optional<bool> clamshellFromIoreg(std::string_view text) {
  static constexpr std::string_view kKey = "\"AppleClamshellState\"";
  std::size_t at = 0;
  while ((at = text.find(kKey, at)) != std::string_view::npos) {
    std::size_t i = at + kKey.size();
    at = i;
    while (i < text.size() && text[i] == ' ') ++i;
    if (i >= text.size() || text[i] != '=') continue;
    ++i;
    while (i < text.size() && text[i] == ' ') ++i;
    std::string_view rest = text.substr(i);
    auto word = [&](std::string_view w) {
      return rest.substr(0, w.size()) == w &&
             (rest.size() == w.size() || rest[w.size()] == '\n' || rest[w.size()] == '\r' || rest[w.size()] == ' ');
    };
    if (word("Yes")) return true;
    if (word("No")) return false;
  }
  return std::nullopt;
}

std::optional<bool> screenLockedFromIoreg(std::string_view plistXml, long uid) {
  PlistPtr root = parse(plistXml);
  plist_t rootDict = firstDict(static_cast<plist_t>(root.get()));
  plist_t users = rootDict != nullptr ? plist_dict_get_item(rootDict, "IOConsoleUsers") : nullptr;
  if (!isA(users, PLIST_ARRAY)) return std::nullopt;
  const uint32_t n = plist_array_get_size(users);
  for (uint32_t i = 0; i < n; ++i) {
    plist_t session = plist_array_get_item(users, i);
    if (!isA(session, PLIST_DICT)) continue;
    auto id = integer(session, "kCGSSessionUserIDKey");
    if (!id || *id != uid) continue;
    return boolean(session, "CGSSessionScreenIsLocked").value_or(false);
  }
  return std::nullopt;
}

}  // namespace vigilo
