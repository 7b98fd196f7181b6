#include "engine/hold.h"

#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <random>
#include <sys/random.h>

#include "platform/text.h"

namespace vigilo {

nlohmann::ordered_json Hold::toJson() const {
  nlohmann::ordered_json j;
  j["id"] = id;
  j["reason"] = reason;
  if (until) j["until"] = *until;
  if (pid) j["pid"] = *pid;
  j["created"] = created;
  if (owner) j["owner"] = *owner;
  if (pidStart) j["pidStart"] = *pidStart;
  return j;
}

namespace {

std::optional<std::int32_t> int32Of(const nlohmann::json& v) {
  if (!v.is_number_integer()) return std::nullopt;
  if (v.is_number_unsigned()) {
    auto u = v.get<std::uint64_t>();
    if (u > static_cast<std::uint64_t>(INT32_MAX)) return std::nullopt;
    return static_cast<std::int32_t>(u);
  }
  auto s = v.get<std::int64_t>();
  if (s < INT32_MIN || s > INT32_MAX) return std::nullopt;
  return static_cast<std::int32_t>(s);
}

std::optional<Time> timeOf(const nlohmann::json& v) {
  if (!v.is_number()) return std::nullopt;
  double t = v.get<double>();
  if (!std::isfinite(t)) return std::nullopt;
  return t;
}

}  // namespace

std::optional<Hold> Hold::fromJson(const nlohmann::json& j) {
  if (!j.is_object()) return std::nullopt;
  Hold h;
  auto id = j.find("id");
  auto reason = j.find("reason");
  if (id == j.end() || !id->is_string() || reason == j.end() || !reason->is_string()) return std::nullopt;
  h.id = id->get<std::string>();
  h.reason = reason->get<std::string>();
  if (h.id.empty()) return std::nullopt;
  if (auto c = j.find("created"); c != j.end()) {
    auto t = timeOf(*c);
    if (!t) return std::nullopt;
    h.created = *t;
  }
  if (auto u = j.find("until"); u != j.end() && !u->is_null()) {
    h.until = timeOf(*u);
    if (!h.until) return std::nullopt;
  }
  if (auto p = j.find("pid"); p != j.end() && !p->is_null()) {
    h.pid = int32Of(*p);
    if (!h.pid) return std::nullopt;
  }
  if (auto o = j.find("owner"); o != j.end() && !o->is_null()) {
    h.owner = int32Of(*o);
    if (!h.owner) return std::nullopt;
  }
  if (auto s = j.find("pidStart"); s != j.end() && !s->is_null()) {
    if (!s->is_number_unsigned()) return std::nullopt;
    h.pidStart = s->get<std::uint64_t>();
  }
  return h;
}

std::string encodeRuntime(const std::vector<Hold>& holds) {
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (const Hold& h : holds) list.push_back(h.toJson());
  nlohmann::ordered_json root;
  root["holds"] = std::move(list);
  return dumpJson(root, 2) + "\n";
}

std::vector<Hold> decodeRuntime(std::string_view bytes) {
  std::vector<Hold> out;
  auto j = nlohmann::json::parse(bytes.begin(), bytes.end(), nullptr, false);
  if (!j.is_object()) return out;
  auto holds = j.find("holds");
  if (holds == j.end() || !holds->is_array()) return out;
  for (const auto& e : *holds) {
    if (auto h = Hold::fromJson(e)) out.push_back(std::move(*h));
  }
  return out;
}

std::string newUuid() {
  unsigned char b[16];
  // The kernel's generator: no library to load for a short-lived tool.
  if (::getrandom(b, sizeof b, 0) != static_cast<ssize_t>(sizeof b)) {
    std::random_device rd;
    for (auto& c : b) c = static_cast<unsigned char>(rd());
  }
  b[6] = static_cast<unsigned char>((b[6] & 0x0F) | 0x40);  // version 4
  b[8] = static_cast<unsigned char>((b[8] & 0x3F) | 0x80);  // RFC 4122 variant
  char out[37];
  std::snprintf(out, sizeof out, "%02X%02X%02X%02X-%02X%02X-%02X%02X-%02X%02X-%02X%02X%02X%02X%02X%02X", b[0], b[1],
                b[2], b[3], b[4], b[5], b[6], b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
  return out;
}

}  // namespace vigilo
