#include "savings/savings_stats.h"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace vigilo {
namespace {

using nlohmann::json;

double figure(const json& o, const char* key) {
  auto it = o.find(key);
  if (it == o.end() || !it->is_number()) return 0;
  const double v = it->get<double>();
  return std::isfinite(v) && v > 0 ? v : 0;
}

std::optional<int> percent(const json& o, const char* key) {
  auto it = o.find(key);
  if (it == o.end() || !it->is_number()) return std::nullopt;
  const double v = it->get<double>();
  if (!std::isfinite(v) || v < 0 || v > 100) return std::nullopt;
  return static_cast<int>(std::lround(v));
}

}  // namespace

std::optional<SessionTimes> sessionTimes(Time closedAt, Time openedAt, std::optional<Time> sleptAt) {
  if (!std::isfinite(closedAt) || !std::isfinite(openedAt) || openedAt < closedAt) return std::nullopt;
  SessionTimes t;
  t.closedMinutes = (openedAt - closedAt) / 60.0;
  // A sleep stamped outside the session (the clock moved) counts as none.
  if (sleptAt && *sleptAt >= closedAt && *sleptAt <= openedAt) t.sleptMinutes = (openedAt - *sleptAt) / 60.0;
  return t;
}

void SavingsStats::add(const Session& session) {
  sessions.push_back(session);
  allTimeWhSaved += session.whSaved;
  allTimeWhAvoided += session.whAvoided;
  if (sessions.size() > kMaxSessions) sessions.erase(sessions.begin(), sessions.end() - kMaxSessions);
}

SavingsStats::Week SavingsStats::week(Time now) const {
  Week w;
  const Time since = now - kWeekSeconds;
  for (const Session& s : sessions) {
    if (!(s.date > since)) continue;
    w.wh += s.whSaved;
    w.whAvoided += s.whAvoided;
    w.sleptMinutes += s.sleptMinutes;
    w.closedMinutes += s.closedMinutes;
    ++w.count;
  }
  return w;
}

json SavingsStats::toJson() const {
  json list = json::array();
  for (const Session& s : sessions) {
    json o = {{"date", isoTime(s.date)},
              {"closedMinutes", s.closedMinutes},
              {"whSaved", s.whSaved},
              {"sleptMinutes", s.sleptMinutes},
              {"whAvoided", s.whAvoided}};
    if (s.startPercent) o["startPercent"] = *s.startPercent;
    if (s.endPercent) o["endPercent"] = *s.endPercent;
    if (s.agent) o["agent"] = *s.agent;
    list.push_back(std::move(o));
  }
  return {{"sessions", std::move(list)}, {"allTimeWhSaved", allTimeWhSaved}, {"allTimeWhAvoided", allTimeWhAvoided}};
}

SavingsStats SavingsStats::fromJson(const json& j) {
  SavingsStats stats;
  if (!j.is_object()) return stats;
  stats.allTimeWhSaved = figure(j, "allTimeWhSaved");
  stats.allTimeWhAvoided = figure(j, "allTimeWhAvoided");
  auto list = j.find("sessions");
  if (list == j.end() || !list->is_array()) return stats;
  for (const json& o : *list) {
    if (!o.is_object()) continue;
    auto date = o.find("date");
    if (date == o.end() || !date->is_string()) continue;
    auto when = parseIsoTime(date->get_ref<const std::string&>());
    if (!when) continue;
    Session s;
    s.date = *when;
    s.closedMinutes = figure(o, "closedMinutes");
    s.whSaved = figure(o, "whSaved");
    s.sleptMinutes = figure(o, "sleptMinutes");
    s.whAvoided = figure(o, "whAvoided");
    s.startPercent = percent(o, "startPercent");
    s.endPercent = percent(o, "endPercent");
    if (auto a = o.find("agent"); a != o.end() && a->is_string()) s.agent = a->get<std::string>();
    stats.sessions.push_back(std::move(s));
  }
  if (stats.sessions.size() > kMaxSessions) {
    stats.sessions.erase(stats.sessions.begin(), stats.sessions.end() - kMaxSessions);
  }
  return stats;
}

SavingsStats StatsStore::load() const {
  auto text = files_.read(kStatsFile);
  if (!text) return {};
  return SavingsStats::fromJson(json::parse(*text, nullptr, false));
}

bool StatsStore::save(const SavingsStats& stats) const {
  if (!files_.ensureDir()) return false;
  return files_.writeDurably(kStatsFile, dumpJson(stats.toJson(), 2) + "\n");
}

std::string isoTime(Time t) {
  if (!std::isfinite(t)) t = 0;
  const std::time_t secs = static_cast<std::time_t>(std::floor(t));
  std::tm tm{};
  gmtime_r(&secs, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::optional<Time> parseIsoTime(std::string_view text) {
  if (text.size() != 20) return std::nullopt;
  std::tm tm{};
  const std::string s(text);
  const char* end = strptime(s.c_str(), "%Y-%m-%dT%H:%M:%SZ", &tm);
  if (end == nullptr || *end != '\0') return std::nullopt;
  return static_cast<Time>(timegm(&tm));
}

}  // namespace vigilo
