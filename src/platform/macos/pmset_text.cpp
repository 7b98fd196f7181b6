#include "platform/macos/pmset_text.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <limits>

#include "platform/text.h"

namespace vigilo {
namespace {

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  for (;;) {
    const auto first = line.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) break;
    line.remove_prefix(first);
    const auto end = line.find_first_of(kBlanks);
    words.push_back(line.substr(0, end));
    if (end == std::string_view::npos) break;
    line.remove_prefix(end);
  }
  return words;
}

// A whole word of decimal digits (with an optional minus) that fits; nothing
// for anything else, so "12abc" or a number past int64 is no number.
std::optional<std::int64_t> integer(std::string_view word) {
  std::int64_t value = 0;
  const char* end = word.data() + word.size();
  auto [ptr, ec] = std::from_chars(word.data(), end, value);
  if (word.empty() || ec != std::errc() || ptr != end) return std::nullopt;
  return value;
}

std::optional<int> intIn(std::string_view word, std::int64_t low, std::int64_t high) {
  auto v = integer(word);
  if (!v || *v < low || *v > high) return std::nullopt;
  return static_cast<int>(*v);
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

// "H:MM" as minutes; the hours stay below what a battery could ever last.
std::optional<int> hoursMinutes(std::string_view word) {
  const auto colon = word.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  auto h = intIn(word.substr(0, colon), 0, 9999);
  const std::string_view mm = word.substr(colon + 1);
  auto m = mm.size() == 2 ? intIn(mm, 0, 59) : std::nullopt;
  if (!h || !m) return std::nullopt;
  return *h * 60 + *m;
}

// "HH:MM:SS" (hours may pass 24) as seconds.
std::optional<std::int64_t> elapsedSeconds(std::string_view word) {
  const auto last = word.rfind(':');
  if (last == std::string_view::npos) return std::nullopt;
  auto minutes = hoursMinutes(word.substr(0, last));
  const std::string_view ss = word.substr(last + 1);
  auto s = ss.size() == 2 ? intIn(ss, 0, 59) : std::nullopt;
  if (!minutes || !s) return std::nullopt;
  return std::int64_t{*minutes} * 60 + *s;
}

// Days since 1970-01-01 of a proleptic Gregorian date (Howard Hinnant's
// days_from_civil).
std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

// pmset's report stamp "2025-11-02 13:20:57 -0600" as seconds since 1970.
std::optional<double> reportTime(std::string_view line) {
  const auto words = wordsOf(line);
  if (words.size() < 3 || words[0].size() != 10 || words[1].size() != 8 || words[2].size() != 5) return std::nullopt;
  const std::string_view date = words[0], time = words[1], zone = words[2];
  if (date[4] != '-' || date[7] != '-' || time[2] != ':' || time[5] != ':') return std::nullopt;
  auto year = intIn(date.substr(0, 4), 1970, 9999);
  auto month = intIn(date.substr(5, 2), 1, 12);
  auto day = intIn(date.substr(8, 2), 1, 31);
  auto hour = intIn(time.substr(0, 2), 0, 23);
  auto minute = intIn(time.substr(3, 2), 0, 59);
  auto second = intIn(time.substr(6, 2), 0, 60);
  auto zh = intIn(zone.substr(1, 2), 0, 14);
  auto zm = intIn(zone.substr(3, 2), 0, 59);
  if (!year || !month || !day || !hour || !minute || !second || !zh || !zm) return std::nullopt;
  if (zone[0] != '+' && zone[0] != '-') return std::nullopt;
  const int offset = (zone[0] == '-' ? -1 : 1) * (*zh * 3600 + *zm * 60);
  const std::int64_t days = daysFromCivil(*year, static_cast<unsigned>(*month), static_cast<unsigned>(*day));
  return static_cast<double>(days * 86400 + *hour * 3600 + *minute * 60 + *second - offset);
}

std::optional<PmsetBattery> batteryLine(std::string_view line) {
  // " -InternalBattery-0 (id=4391011)\t100%; charged; 0:00 remaining present: true"
  std::vector<std::string_view> fields;
  for (;;) {
    const auto semi = line.find(';');
    fields.push_back(trimmed(line.substr(0, semi)));
    if (semi == std::string_view::npos) break;
    line.remove_prefix(semi + 1);
  }
  if (fields.size() < 2 || fields[1].empty()) return std::nullopt;
  const auto head = wordsOf(fields[0]);
  if (head.empty() || !endsWith(head.back(), "%")) return std::nullopt;
  auto percent = intIn(head.back().substr(0, head.back().size() - 1), 0, 100);
  if (!percent) return std::nullopt;
  PmsetBattery b;
  b.percent = *percent;
  b.state = std::string(fields[1]);
  if (fields.size() > 2) {
    const auto rest = wordsOf(fields[2]);
    if (rest.size() >= 2 && rest[1] == "remaining") b.minutesLeft = hoursMinutes(rest[0]);
  }
  return b;
}

// The body lines (indented) of the section whose heading `wanted` accepts.
// Headings stand at the start of a line and end with a colon.
template <class Wanted>
std::optional<std::vector<std::string_view>> section(std::string_view text, Wanted wanted) {
  std::optional<std::vector<std::string_view>> body;
  bool inside = false;
  for (std::string_view line : linesOf(text)) {
    if (line.empty()) continue;
    if (line[0] != ' ' && line[0] != '\t') {
      if (inside) break;
      const std::string_view heading = trimmed(line);
      if (endsWith(heading, ":") && wanted(heading)) {
        inside = true;
        body.emplace();
      }
      continue;
    }
    if (inside) body->push_back(line);
  }
  return body;
}

std::optional<PowerModeSetting> powerModeIn(const std::vector<std::string_view>& lines) {
  for (std::string_view line : lines) {
    const auto words = wordsOf(line);
    if (words.size() < 2 || (words[0] != "lowpowermode" && words[0] != "powermode")) continue;
    if (auto v = intIn(words[1], std::numeric_limits<int>::min(), std::numeric_limits<int>::max())) {
      return PowerModeSetting{std::string(words[0]), *v};
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<PmsetPowerSource> parsePmsetBatt(std::string_view text) {
  const auto lines = linesOf(text);
  std::size_t i = 0;
  while (i < lines.size() && trimmed(lines[i]).empty()) ++i;
  if (i == lines.size()) return std::nullopt;
  const std::string_view first = trimmed(lines[i]);
  constexpr std::string_view kLead = "Now drawing from '";
  if (!startsWith(first, kLead) || !endsWith(first, "'") || first.size() <= kLead.size() + 1) return std::nullopt;
  PmsetPowerSource source;
  source.drawingFrom = std::string(first.substr(kLead.size(), first.size() - kLead.size() - 1));
  for (++i; i < lines.size(); ++i) {
    if (trimmed(lines[i]).find("-InternalBattery") != 0) continue;
    source.internalBattery = batteryLine(lines[i]);
    break;
  }
  return source;
}

std::optional<BatteryProperties> batteryFromPmset(const PmsetPowerSource& source) {
  if (!source.internalBattery) return std::nullopt;
  const PmsetBattery& b = *source.internalBattery;
  BatteryProperties p;
  p.currentCapacity = b.percent;
  p.maxCapacity = 100;
  p.externalConnected = source.drawingFrom == "AC Power";
  p.isCharging = b.state == "charging" || b.state == "finishing charge";
  p.timeRemaining = b.minutesLeft.value_or(65535);
  return p;
}

std::optional<PmsetThermal> parsePmsetTherm(std::string_view text) {
  PmsetThermal thermal;
  bool recognised = false;
  for (std::string_view raw : linesOf(text)) {
    const std::string_view line = trimmed(raw);
    if (startsWith(line, "Note: No ")) {
      recognised = true;
      continue;
    }
    const auto eq = line.rfind('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view key = trimmed(line.substr(0, eq)), value = trimmed(line.substr(eq + 1));
    if (key == "CPU_Speed_Limit") {
      if (auto v = intIn(value, 0, 100)) {
        thermal.cpuSpeedLimit = *v;
        recognised = true;
      }
    } else if (key == "Thermal Warning Level" || key == "Thermal warning level") {
      if (auto v = intIn(value, 0, 1000)) {
        thermal.thermalWarningLevel = *v;
        recognised = true;
      }
    }
  }
  if (!recognised) return std::nullopt;
  return thermal;
}

int thermalStateFromPmset(const PmsetThermal& thermal) {
  int state = 0;
  // IOPMLib.h: kIOPMThermalWarningLevelDanger 5, kIOPMThermalWarningLevelCrisis 10.
  if (thermal.thermalWarningLevel) state = *thermal.thermalWarningLevel >= 10 ? 3 : *thermal.thermalWarningLevel >= 5 ? 2 : 0;
  if (thermal.cpuSpeedLimit) {
    const int limit = *thermal.cpuSpeedLimit;
    state = std::max(state, limit <= 50 ? 2 : limit < 100 ? 1 : 0);
  }
  return state;
}

std::vector<PowerAssertion> parsePmsetAssertions(std::string_view text) {
  std::vector<PowerAssertion> out;
  std::optional<double> stamp;
  bool listing = false, first = true;
  PowerAssertion* last = nullptr;  // the assertion continuation lines belong to
  for (std::string_view raw : linesOf(text)) {
    const std::string_view line = trimmed(raw);
    if (line.empty()) continue;
    if (first) {
      stamp = reportTime(line);
      first = false;
    }
    // Pasted reports often lose their indentation, so the section ends at
    // the next heading or the kernel's part, not at the first flush line.
    const bool indented = raw[0] == ' ' || raw[0] == '\t';
    if (line == "Listed by owning process:") {
      listing = true;
      last = nullptr;
      continue;
    }
    const bool pidLine = startsWith(line, "pid ");
    if (!indented && !pidLine &&
        (endsWith(line, ":") || startsWith(line, "Kernel Assertions") || startsWith(line, "No kernel assertions") ||
         startsWith(line, "Idle sleep preventers"))) {
      listing = false;
      last = nullptr;
      continue;
    }
    if (!listing) continue;
    if (!pidLine) {
      if (!last) continue;
      if (startsWith(line, "Created for PID:")) {
        std::string_view pid = trimmed(line.substr(16));
        if (endsWith(pid, ".")) pid.remove_suffix(1);
        if (auto v = intIn(pid, 1, std::numeric_limits<std::int32_t>::max())) last->onBehalfOf = *v;
      } else if (startsWith(line, "Resources:")) {
        for (std::string_view w : wordsOf(line.substr(10))) last->resources.emplace_back(w);
      }
      continue;
    }
    last = nullptr;
    // pid 98217(caffeinate): [0x00045477000194b3] 00:00:03 PreventUserIdleSystemSleep named: "caffeinate command-line tool"
    std::string_view rest = line.substr(4);
    const auto digits = rest.find_first_not_of("0123456789");
    if (digits == 0 || digits == std::string_view::npos) continue;
    auto pid = intIn(rest.substr(0, digits), 1, std::numeric_limits<std::int32_t>::max());
    if (!pid) continue;
    rest.remove_prefix(digits);
    PowerAssertion a;
    a.pid = *pid;
    if (startsWith(rest, "(")) {
      // A process name may hold brackets of its own: the name ends at "):".
      const auto close = rest.find("):");
      if (close == std::string_view::npos) continue;
      a.processName = std::string(rest.substr(1, close - 1));
      rest.remove_prefix(close + 2);
    } else if (startsWith(rest, ":")) {
      rest.remove_prefix(1);
    } else {
      continue;
    }
    const auto named = rest.find(" named: \"");
    const auto closeQuote = rest.rfind('"');
    if (named == std::string_view::npos || closeQuote < named + 9) continue;
    a.name = std::string(rest.substr(named + 9, closeQuote - named - 9));
    auto words = wordsOf(rest.substr(0, named));
    if (words.empty()) continue;
    a.type = std::string(words.back());
    words.pop_back();
    if (!words.empty() && stamp) {
      if (auto age = elapsedSeconds(words.back())) a.since = *stamp - static_cast<double>(*age);
    }
    out.push_back(std::move(a));
    last = &out.back();
  }
  return out;
}

std::optional<bool> sleepDisabledFromPmset(std::string_view text) {
  auto body = section(text, [](std::string_view h) { return h == "System-wide power settings:"; });
  if (!body) return std::nullopt;
  for (std::string_view line : *body) {
    const auto words = wordsOf(line);
    if (words.size() < 2 || words[0] != "SleepDisabled") continue;
    if (auto v = integer(words[1])) return *v != 0;
    return std::nullopt;
  }
  return false;
}

std::optional<PowerModeSetting> batteryPowerModeFromCustom(std::string_view text) {
  auto body = section(text, [](std::string_view h) { return startsWith(h, "Battery") && endsWith(h, "Power:"); });
  return body ? powerModeIn(*body) : std::nullopt;
}

std::optional<PowerModeSetting> powerModeInUse(std::string_view text) {
  auto body = section(text, [](std::string_view h) { return h == "Currently in use:"; });
  return body ? powerModeIn(*body) : std::nullopt;
}

}  // namespace vigilo
