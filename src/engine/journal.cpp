#include "engine/journal.h"

#include <nlohmann/json.hpp>

#include "platform/text.h"

namespace vigilo {

bool Journal::save(const std::vector<Touched>& touched) {
  if (touched.empty()) {
    // The watchdog's file goes first: a stale "resume-pids" would make it
    // signal processes that are already back.
    return files_.remove(kResumePidsFile) && files_.remove(kTouchedFile);
  }
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  std::string lines;
  for (const Touched& t : touched) {
    list.push_back({{"pid", t.pid}, {"start", t.start}, {"path", t.path}, {"paused", t.paused}});
    if (t.paused) lines += std::to_string(t.pid) + "\t" + t.path + "\n";
  }
  bool ok = files_.writeDurably(kTouchedFile, dumpJson(list, 2) + "\n");
  ok = (lines.empty() ? files_.remove(kResumePidsFile) : files_.writeDurably(kResumePidsFile, lines)) && ok;
  return ok;
}

std::vector<Touched> Journal::load() const {
  std::vector<Touched> out;
  auto bytes = files_.read(kTouchedFile);
  if (!bytes) return out;
  auto j = nlohmann::json::parse(*bytes, nullptr, false);
  if (!j.is_array()) return out;
  for (const auto& e : j) {
    if (!e.is_object()) continue;
    auto pid = e.find("pid");
    auto start = e.find("start");
    if (pid == e.end() || !pid->is_number_integer() || start == e.end() || !start->is_number_unsigned()) continue;
    const auto pidValue = pid->get<std::int64_t>();
    if (pidValue <= 0 || pidValue > INT32_MAX) continue;
    Touched t;
    t.pid = static_cast<std::int32_t>(pidValue);
    t.start = start->get<std::uint64_t>();
    if (auto p = e.find("path"); p != e.end() && p->is_string()) t.path = p->get<std::string>();
    if (auto p = e.find("paused"); p != e.end() && p->is_boolean()) t.paused = p->get<bool>();
    out.push_back(std::move(t));
  }
  return out;
}

std::vector<Touched> Journal::undo(const std::vector<Touched>& touched) {
  std::vector<Touched> left;
  for (const Touched& t : touched) {
    auto info = processes_.info(t.pid);
    if (!info || info->startMicros != t.start) continue;
    Result r = t.paused ? processes_.resume(t.pid) : processes_.unslow(t.pid);
    if (!r) left.push_back(t);
  }
  return left;
}

}  // namespace vigilo
