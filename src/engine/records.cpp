#include "engine/records.h"

#include <cmath>

#include <algorithm>

#include <cstdio>
#include <cstdlib>
#include <sys/stat.h>

#include "engine/journal.h"

namespace vigilo {

RecordRead readRecord(const StateFiles& files, std::string_view name, std::size_t limit) {
  RecordRead r;
  struct stat st {};
  // Missing, or a folder on the way that isn't one: nothing to read, and
  // nothing here to set aside either.
  if (::lstat(files.path(name).c_str(), &st) != 0) return r;
  if (S_ISREG(st.st_mode)) r.bytes = readWholeFile(files.path(name), limit);
  r.damaged = !r.bytes;
  return r;
}

std::optional<std::string> setRecordAside(const StateFiles& files, std::string_view name, Time now) {
  const std::string whole(name);
  const auto dot = whole.rfind('.');
  const bool hasExt = dot != std::string::npos && dot != 0;
  const std::string stem = hasExt ? whole.substr(0, dot) : whole;
  const std::string ext = hasExt ? whole.substr(dot) : std::string();
  const std::string seconds = std::to_string(static_cast<long long>(now));
  for (int n = 1; n <= 100; ++n) {
    const std::string aside = stem + ".broken-" + seconds + (n == 1 ? "" : "-" + std::to_string(n)) + ext;
    struct stat st {};
    if (::lstat(files.path(aside).c_str(), &st) == 0) continue;
    // rename moves a link or a folder itself, never what it points to.
    if (::rename(files.path(name).c_str(), files.path(aside).c_str()) == 0) return aside;
    return std::nullopt;
  }
  return std::nullopt;
}

std::string setAsideDamaged(const StateFiles& files, std::string_view name, std::string_view what,
                            std::string_view outcome, Time now) {
  const std::string head = std::string(what) + " (" + std::string(name) + ") was damaged and ";
  if (auto aside = setRecordAside(files, name, now)) {
    return head + "was set aside as " + *aside + "; " + std::string(outcome) + ".";
  }
  return head + "couldn't be set aside; " + std::string(outcome) + ". Move " + files.path(name) + " away by hand.";
}

std::optional<std::pair<std::string, int>> powerModeRecord(std::string_view text) {
  // The watchdog script accepts exactly these; anything else was never
  // written by Vigilo.
  if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  for (std::string_view line : {"powermode 0", "powermode 1", "powermode 2", "lowpowermode 0", "lowpowermode 1"}) {
    if (text == line) return std::make_pair(std::string(line.substr(0, line.find(' '))), line.back() - '0');
  }
  return std::nullopt;
}

std::string powerModeRecordText(const std::string& key, int value) {
  return key + " " + std::to_string(value) + "\n";
}

std::string brightnessRecordText(double level) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.4f", level);
  return buf;
}

std::optional<double> brightnessRecord(std::string_view text) {
  const std::string copy(text);
  char* end = nullptr;
  const double level = std::strtod(copy.c_str(), &end);
  if (end == copy.c_str() || !std::isfinite(level)) return std::nullopt;
  if (level <= 0.02) return 0.5;
  return std::clamp(level, 0.0, 1.0);
}

std::vector<std::string> undoResumePids(const StateFiles& files, Processes& processes) {
  std::vector<std::string> left;
  const auto text = files.read(kResumePidsFile, 4 * 1024 * 1024);
  if (!text) return left;
  const auto lastPart = [](std::string_view path) {
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
  };
  std::string_view rest = *text;
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    const std::string_view line = rest.substr(0, end);
    rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
    const auto tab = line.find('\t');
    const std::string_view pidText = line.substr(0, tab);
    if (pidText.empty() || pidText.size() > 9 || pidText.find_first_not_of("0123456789") != std::string_view::npos) {
      continue;
    }
    const auto pid = static_cast<std::int32_t>(std::strtol(std::string(pidText).c_str(), nullptr, 10));
    const std::string_view path = tab == std::string_view::npos ? std::string_view() : line.substr(tab + 1);
    auto info = processes.info(pid);
    if (pid <= 0 || !info || path.empty() || lastPart(info->path) != lastPart(path)) continue;
    if (!processes.resume(pid)) left.emplace_back(line);
  }
  return left;
}

}  // namespace vigilo
