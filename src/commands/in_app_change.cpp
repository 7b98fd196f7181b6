#include "commands/in_app_change.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>

namespace vigilo {

namespace {

std::string normalised(std::string key) {
  for (char& c : key) c = c == '-' ? '_' : static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return key;
}

}  // namespace

InAppChange changeInApp(const Config& current, const std::string& key, const std::optional<nlohmann::json>& value) {
  InAppChange out;
  const std::string k = normalised(key);
  if (k == "below_floor_allowed" && value) {
    const nlohmann::json& v = *value;
    const bool on = (v.is_boolean() && v.get<bool>()) || (v.is_number() && v.get<double>() != 0) ||
                    (v.is_string() && (v == "true" || v == "on"));
    if (on) {
      out.change.ok = true;
      out.change.config = current;
      out.allowBelowFloor = true;
      return out;
    }
  }
  if (k == "ntfy_topic" && value && value->is_string()) {
    std::string topic = value->get<std::string>();
    topic.erase(0, topic.find_first_not_of(" \t\r\n"));
    topic.erase(topic.find_last_not_of(" \t\r\n") + 1);
    const bool fits = topic.size() <= 64 && std::all_of(topic.begin(), topic.end(), [](unsigned char c) {
      return std::isalnum(c) || c == '-' || c == '_';
    });
    out.change.config = current;
    if (!fits) {
      out.change.error = "ntfy_topic needs letters, digits, - and _ only (at most 64)";
      return out;
    }
    out.change.ok = true;
    out.change.config.ntfyTopic = topic;
    return out;
  }
  // The schema's writers refuse only what loosens the current value: write
  // over a record whose safety field is at its loosest, so the value asked
  // for is taken as it is (still checked for range and type).
  Config base = current;
  if (k == "battery_floor") base.batteryFloor = 0;
  if (k == "heat_guard") base.heatGuard = false;
  if (k == "only_on_power") base.onlyOnPower = false;
  out.change = SettingsSchema::change(base, key, value);
  if (!out.change.ok) out.change.config = current;
  return out;
}

}  // namespace vigilo
