#include "platform/linux/procfs_text.h"

#include <charconv>
#include <limits>

#include "platform/text.h"

namespace vigilo {
namespace {

// Splits `text` at runs of blanks.
std::vector<std::string_view> fields(std::string_view text) {
  std::vector<std::string_view> out;
  std::size_t i = 0;
  while (i < text.size()) {
    i = text.find_first_not_of(kBlanks, i);
    if (i == std::string_view::npos) break;
    std::size_t end = text.find_first_of(kBlanks, i);
    if (end == std::string_view::npos) end = text.size();
    out.push_back(text.substr(i, end - i));
    i = end;
  }
  return out;
}

template <class T>
std::optional<T> integer(std::string_view s, int base = 10) {
  T value{};
  auto [ptr, ec] = std::from_chars(s.data(), s.data() + s.size(), value, base);
  if (ec != std::errc() || ptr != s.data() + s.size()) return std::nullopt;
  return value;
}

// The line of `text` that starts with `key`, without the key.
std::optional<std::string_view> lineAfter(std::string_view text, std::string_view key) {
  std::size_t pos = 0;
  while (pos < text.size()) {
    std::size_t end = text.find('\n', pos);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = text.substr(pos, end - pos);
    if (line.substr(0, key.size()) == key) return line.substr(key.size());
    pos = end + 1;
  }
  return std::nullopt;
}

}  // namespace

std::optional<ProcStat> parseProcStat(std::string_view text) {
  // "pid (comm) state ppid ...": comm may itself hold ") ", so the last ')'
  // ends it.
  const auto open = text.find('(');
  const auto close = text.rfind(')');
  if (open == std::string_view::npos || close == std::string_view::npos || close < open) return std::nullopt;
  ProcStat s;
  const auto pidFields = fields(text.substr(0, open));
  if (pidFields.size() != 1) return std::nullopt;
  auto pid = integer<std::int32_t>(pidFields[0]);
  if (!pid) return std::nullopt;
  s.pid = *pid;
  s.comm = std::string(text.substr(open + 1, close - open - 1));
  const auto rest = fields(text.substr(close + 1));
  // Fields from "state" (field 3 of proc(5)) on; starttime is field 22.
  if (rest.size() < 20 || rest[0].size() != 1) return std::nullopt;
  s.state = rest[0][0];
  auto ppid = integer<std::int32_t>(rest[1]);
  auto utime = integer<std::uint64_t>(rest[11]);
  auto stime = integer<std::uint64_t>(rest[12]);
  auto nice = integer<std::int64_t>(rest[16]);
  auto start = integer<std::uint64_t>(rest[19]);
  if (!ppid || !utime || !stime || !nice || !start) return std::nullopt;
  s.ppid = *ppid;
  s.utime = *utime;
  s.stime = *stime;
  s.nice = *nice;
  s.starttime = *start;
  // Fields 26 and 28, since Linux 2.6: absent only from a cut-down line.
  if (rest.size() > 25) {
    s.startcode = integer<std::uint64_t>(rest[23]).value_or(0);
    s.startstack = integer<std::uint64_t>(rest[25]).value_or(0);
  }
  return s;
}

std::optional<std::int64_t> bootTimeFromProcStat(std::string_view text) {
  auto rest = lineAfter(text, "btime ");
  if (!rest) return std::nullopt;
  auto f = fields(*rest);
  if (f.size() != 1) return std::nullopt;
  return integer<std::int64_t>(f[0]);
}

std::optional<std::uint64_t> busyTicksFromProcStat(std::string_view text) {
  auto rest = lineAfter(text, "cpu ");
  if (!rest) return std::nullopt;
  auto f = fields(*rest);
  // user nice system idle iowait irq softirq steal guest guest_nice
  if (f.size() < 4) return std::nullopt;
  std::uint64_t busy = 0;
  for (std::size_t i : {0u, 1u, 2u, 5u, 6u, 7u}) {
    if (i >= f.size()) continue;
    auto v = integer<std::uint64_t>(f[i]);
    if (!v) return std::nullopt;
    busy += *v;
  }
  return busy;
}

std::optional<TaskStamp> taskStampFromLoadavg(std::string_view text) {
  auto f = fields(text);
  if (f.size() != 5) return std::nullopt;
  const auto slash = f[3].find('/');
  if (slash == std::string_view::npos) return std::nullopt;
  auto tasks = integer<std::uint64_t>(f[3].substr(slash + 1));
  auto last = integer<std::uint64_t>(f[4]);
  if (!tasks || !last) return std::nullopt;
  return TaskStamp{*tasks, *last};
}

std::vector<std::string> splitCmdline(std::string_view text) {
  std::vector<std::string> out;
  while (!text.empty()) {
    const auto nul = text.find('\0');
    if (nul == std::string_view::npos) {
      out.emplace_back(text);
      break;
    }
    out.emplace_back(text.substr(0, nul));
    text.remove_prefix(nul + 1);
  }
  return out;
}

std::string exePathFromLink(std::string_view link) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (link.size() > kDeleted.size() && link.substr(link.size() - kDeleted.size()) == kDeleted) {
    link.remove_suffix(kDeleted.size());
  }
  return std::string(link);
}

std::uint64_t startMicros(std::int64_t bootTime, std::uint64_t startTicks, long ticksPerSecond) {
  const std::uint64_t boot = bootTime > 0 ? static_cast<std::uint64_t>(bootTime) : 0;
  return boot * 1'000'000ULL + ticksToMicros(startTicks, ticksPerSecond);
}

std::uint64_t ticksToMicros(std::uint64_t ticks, long ticksPerSecond) {
  if (ticksPerSecond <= 0) ticksPerSecond = 100;
  const auto hz = static_cast<std::uint64_t>(ticksPerSecond);
  return ticks / hz * 1'000'000ULL + ticks % hz * 1'000'000ULL / hz;
}

std::optional<std::uint64_t> niceLimitFromLimits(std::string_view text) {
  // "Max nice priority         0                    0"
  auto rest = lineAfter(text, "Max nice priority");
  if (!rest) return std::nullopt;
  auto f = fields(*rest);
  if (f.empty()) return std::nullopt;
  if (f[0] == "unlimited") return std::numeric_limits<std::uint64_t>::max();
  return integer<std::uint64_t>(f[0]);
}

std::optional<std::uint64_t> effectiveCapabilities(std::string_view status) {
  auto rest = lineAfter(status, "CapEff:");
  if (!rest) return std::nullopt;
  auto f = fields(*rest);
  if (f.size() != 1) return std::nullopt;
  return integer<std::uint64_t>(f[0], 16);
}

bool isInitialUserNamespace(std::string_view uidMap) {
  auto f = fields(uidMap);
  return f.size() == 3 && f[0] == "0" && f[1] == "0" && f[2] == "4294967295";
}

bool hasDefaultRoute(std::string_view route, std::string_view ipv6Route) {
  constexpr unsigned long kUp = 0x0001, kReject = 0x0200;  // RTF_UP, RTF_REJECT of <linux/route.h>
  auto flagsOf = [](std::string_view hex) {
    unsigned long v = 0;
    std::from_chars(hex.data(), hex.data() + hex.size(), v, 16);
    return v;
  };
  auto lines = [](std::string_view text, auto&& each) {
    while (!text.empty()) {
      const std::size_t end = text.find('\n');
      each(fields(text.substr(0, end)));
      if (end == std::string_view::npos) break;
      text.remove_prefix(end + 1);
    }
  };
  bool found = false;
  // Iface Destination Gateway Flags RefCnt Use Metric Mask ...
  lines(route, [&](const std::vector<std::string_view>& f) {
    if (f.size() < 8 || f[0] == "lo" || f[1] != "00000000" || f[7] != "00000000") return;
    const unsigned long flags = flagsOf(f[3]);
    if ((flags & kUp) != 0 && (flags & kReject) == 0) found = true;
  });
  // Destination PrefixLength Source SourcePrefix NextHop Metric RefCnt Use Flags Iface
  lines(ipv6Route, [&](const std::vector<std::string_view>& f) {
    if (f.size() < 10 || f[9] == "lo" || f[1] != "00" || f[0] != std::string_view("00000000000000000000000000000000")) {
      return;
    }
    const unsigned long flags = flagsOf(f[8]);
    if ((flags & kUp) != 0 && (flags & kReject) == 0) found = true;
  });
  return found;
}

bool canRestoreNice(int nice, std::uint64_t niceLimit, bool capSysNice) {
  if (capSysNice) return true;
  // RLIMIT_NICE's ceiling: a nice value may be lowered to 20 - limit.
  const long long needed = 20LL - nice;
  if (needed <= 0) return true;
  return static_cast<std::uint64_t>(needed) <= niceLimit;
}

}  // namespace vigilo
