#include "platform/macos/ps_text.h"

#include <array>
#include <charconv>
#include <ctime>

#include "platform/text.h"

namespace vigilo {
namespace {

std::string_view nextWord(std::string_view& rest) {
  std::size_t i = 0;
  while (i < rest.size() && (rest[i] == ' ' || rest[i] == '\t')) ++i;
  std::size_t j = i;
  while (j < rest.size() && rest[j] != ' ' && rest[j] != '\t') ++j;
  std::string_view word = rest.substr(i, j - i);
  rest.remove_prefix(j);
  return word;
}

template <typename T>
std::optional<T> number(std::string_view s) {
  T v{};
  if (s.empty()) return std::nullopt;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size()) return std::nullopt;
  return v;
}

int monthOf(std::string_view name) {
  static constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
  for (std::size_t i = 0; i < kMonths.size(); ++i) {
    if (kMonths[i] == name) return static_cast<int>(i) + 1;
  }
  return 0;
}

bool isWeekday(std::string_view name) {
  for (std::string_view d : {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"}) {
    if (d == name) return true;
  }
  return false;
}

// "14:23:09" into its three parts.
bool clock(std::string_view s, PsStart& out) {
  if (s.size() != 8 || s[2] != ':' || s[5] != ':') return false;
  auto h = number<int>(s.substr(0, 2));
  auto m = number<int>(s.substr(3, 2));
  auto sec = number<int>(s.substr(6, 2));
  if (!h || !m || !sec || *h > 23 || *m > 59 || *sec > 60) return false;
  out.hour = *h;
  out.minute = *m;
  out.second = *sec;
  return true;
}

}  // namespace

std::optional<std::uint64_t> parsePsCpuTime(std::string_view text) {
  std::uint64_t days = 0;
  if (auto dash = text.find('-'); dash != std::string_view::npos) {
    auto d = number<std::uint64_t>(text.substr(0, dash));
    if (!d || *d > 100000) return std::nullopt;
    days = *d;
    text.remove_prefix(dash + 1);
  }
  std::uint64_t centis = 0;
  if (auto dot = text.find('.'); dot != std::string_view::npos) {
    auto c = number<std::uint64_t>(text.substr(dot + 1));
    if (!c || text.size() - dot - 1 != 2) return std::nullopt;
    centis = *c;
    text = text.substr(0, dot);
  }
  // Up to three fields, most significant first: hours, minutes, seconds.
  std::array<std::uint64_t, 3> parts{};
  std::size_t count = 0;
  while (true) {
    auto colon = text.find(':');
    auto v = number<std::uint64_t>(text.substr(0, colon));
    if (!v || count == parts.size() || *v > 10'000'000) return std::nullopt;
    parts[count++] = *v;
    if (colon == std::string_view::npos) break;
    text.remove_prefix(colon + 1);
  }
  if (count < 2) return std::nullopt;
  std::uint64_t seconds = count == 3 ? parts[0] * 3600 + parts[1] * 60 + parts[2] : parts[0] * 60 + parts[1];
  seconds += days * 86400;
  return seconds * 1'000'000 + centis * 10'000;
}

std::vector<PsRow> parsePsListing(std::string_view text) {
  std::vector<PsRow> rows;
  for (std::string_view line : linesOf(text)) {
    std::string_view rest = line;
    PsRow row;
    auto pid = number<std::int32_t>(nextWord(rest));
    auto ppid = number<std::int32_t>(nextWord(rest));
    if (!pid || !ppid || *pid < 0 || *ppid < 0) continue;
    row.pid = *pid;
    row.ppid = *ppid;
    if (!isWeekday(nextWord(rest))) continue;
    row.started.month = monthOf(nextWord(rest));
    auto day = number<int>(nextWord(rest));
    if (row.started.month == 0 || !day || *day < 1 || *day > 31) continue;
    row.started.day = *day;
    if (!clock(nextWord(rest), row.started)) continue;
    auto year = number<int>(nextWord(rest));
    if (!year || *year < 1970 || *year > 9999) continue;
    row.started.year = *year;
    auto cpu = parsePsCpuTime(nextWord(rest));
    std::string_view stat = nextWord(rest);
    if (!cpu || stat.empty()) continue;
    row.cpuMicros = *cpu;
    row.stopped = stat.front() == 'T';
    // ps pads the state column with blanks; inside the command they are the
    // command's own.
    while (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
    while (!rest.empty() && (rest.back() == '\r' || rest.back() == ' ')) rest.remove_suffix(1);
    row.command = std::string(rest);
    rows.push_back(std::move(row));
  }
  return rows;
}

std::map<std::int32_t, std::string> parsePsPaths(std::string_view text) {
  std::map<std::int32_t, std::string> paths;
  for (std::string_view line : linesOf(text)) {
    std::string_view rest = line;
    auto pid = number<std::int32_t>(nextWord(rest));
    if (!pid || *pid < 0) continue;
    if (!rest.empty() && rest.front() == ' ') rest.remove_prefix(1);
    while (!rest.empty() && (rest.back() == '\r' || rest.back() == ' ')) rest.remove_suffix(1);
    if (rest.empty() || rest.front() != '/') continue;
    paths[*pid] = std::string(rest);
  }
  return paths;
}

std::vector<std::string> splitPsCommand(std::string_view command, std::string_view path) {
  std::vector<std::string> args;
  if (!path.empty() && command.substr(0, path.size()) == path &&
      (command.size() == path.size() || command[path.size()] == ' ')) {
    args.emplace_back(path);
    command.remove_prefix(path.size());
  }
  while (true) {
    std::string_view word = nextWord(command);
    if (word.empty()) break;
    args.emplace_back(word);
  }
  return args;
}

std::optional<std::uint64_t> startMicros(const PsStart& start) {
  std::tm tm{};
  tm.tm_year = start.year - 1900;
  tm.tm_mon = start.month - 1;
  tm.tm_mday = start.day;
  tm.tm_hour = start.hour;
  tm.tm_min = start.minute;
  tm.tm_sec = start.second;
  tm.tm_isdst = -1;
  const std::time_t t = std::mktime(&tm);
  if (t < 0) return std::nullopt;
  return static_cast<std::uint64_t>(t) * 1'000'000;
}

}  // namespace vigilo
