#include "remote/phone_commands.h"

#include <array>
#include <cmath>

#include "platform/text.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

constexpr std::array<std::string_view, 12> kAllowed = {"panel", "mode",  "preset",     "watch",  "track", "sleep_now",
                                                       "set",   "power", "power_test", "schema", "wake",  "wake_at"};

// The figures a phone shows; anything else (paths, process lists, the
// person's app rules) stays on the machine.
constexpr std::array<std::string_view, 25> kPhoneKeys = {"ok",
                                                         "error",
                                                         "note",
                                                         "status",
                                                         "skipped",
                                                         "wakeAt",
                                                         "mode",
                                                         "keeping_awake",
                                                         "lid_closed",
                                                         "preset",
                                                         "system_watts",
                                                         "battery",
                                                         "blocked_by",
                                                         "warning",
                                                         "reason",
                                                         "hours_left_closed",
                                                         "saving_now_watts",
                                                         "closed_estimate_watts",
                                                         "estimated_savings_this_week",
                                                         "measured_saving_watts",
                                                         "apps",
                                                         "watch_list",
                                                         "added",
                                                         "removed",
                                                         "check_in_minutes"};

json trimmedBattery(const json& b) {
  if (!b.is_object()) return b;
  json out = json::object();
  for (const char* k : {"percent", "watts", "on_power", "charging"}) {
    if (b.contains(k)) out[k] = b[k];
  }
  return out;
}

// The apps drawing the most, by name and watts only: a phone's screen
// holds a few, and their processes and paths stay on the machine.
constexpr std::size_t kPhoneApps = 5;
json trimmedApps(const json& apps) {
  json out = json::array();
  if (!apps.is_array()) return out;
  for (const json& a : apps) {
    if (out.size() >= kPhoneApps) break;
    if (!a.is_object() || !a.contains("name") || !a.contains("watts")) continue;
    const auto estimated = a.find("estimated");
    out.push_back({{"name", a["name"]},
                   {"watts", a["watts"]},
                   {"estimated", estimated != a.end() && estimated->is_boolean() && estimated->get<bool>()}});
  }
  return out;
}

}  // namespace

bool allowedFromPhone(const std::string& cmd) {
  for (std::string_view a : kAllowed) {
    if (cmd == a) return true;
  }
  return false;
}

json phoneReply(const json& reply, const std::string& cmd) {
  json out = json::object();
  if (!reply.is_object()) return {{"ok", false}, {"error", "no answer"}};
  for (std::string_view k : kPhoneKeys) {
    auto it = reply.find(std::string(k));
    if (it == reply.end()) continue;
    out[std::string(k)] = k == "battery" ? trimmedBattery(*it) : k == "apps" ? trimmedApps(*it) : *it;
  }
  if (cmd == "panel" || cmd == "status") {
    auto holds = reply.find("holds");
    if (holds != reply.end() && holds->is_array()) {
      json list = json::array();
      for (const json& h : *holds) {
        if (!h.is_object()) continue;
        list.push_back({{"reason", h.value("reason", "")}, {"end", h.contains("end") ? h["end"] : json(nullptr)}});
      }
      out["holds"] = std::move(list);
    }
  }
  if (cmd == "schema") {
    json settings = json::array();
    auto all = reply.find("settings");
    if (all != reply.end() && all->is_array()) {
      for (const json& s : *all) {
        if (!s.is_object()) continue;
        json e = json::object();
        for (const char* k : {"key", "type", "allowed", "value", "available"}) {
          if (s.contains(k)) e[k] = s[k];
        }
        settings.push_back(std::move(e));
      }
    }
    out["settings"] = std::move(settings);
  }
  if (!out.contains("ok")) out["ok"] = false;
  return out;
}

std::optional<PhoneOutcome> PhoneCommands::handle(const std::vector<UsablePhone>& phones, const std::string& topic,
                                                  const std::string& message, Time now) {
  const UsablePhone* from = nullptr;
  std::optional<std::string> plain;
  for (const UsablePhone& p : phones) {
    if (p.commandTopic != topic) continue;
    plain = open(message, p.commandTopic, p.key);
    if (plain) {
      from = &p;
      break;
    }
  }
  if (!from) return std::nullopt;

  PhoneOutcome outcome;
  outcome.phoneId = from->id;
  outcome.replyTopic = from->replyTopic;
  // Nesting deeper than any command needs is left out as it is read, so
  // nothing that copies or writes the arguments recurses level by level
  // through a stack-sized tower of brackets; the command is refused.
  bool tooDeep = false;
  const json command = json::parse(
      *plain,
      [&](int depth, json::parse_event_t, json&) {
        if (depth <= kMaxArgsDepth) return true;
        tooDeep = true;
        return false;
      },
      false);
  std::string id;
  double t = NAN;
  json args = json::object();
  if (command.is_object()) {
    if (auto it = command.find("n"); it != command.end() && it->is_string()) id = it->get<std::string>();
    if (auto it = command.find("cmd"); it != command.end() && it->is_string()) outcome.cmd = it->get<std::string>();
    if (auto it = command.find("t"); it != command.end() && it->is_number()) t = it->get<double>();
    if (auto it = command.find("args"); it != command.end() && it->is_object()) args = *it;
    if (auto it = command.find("dev"); it != command.end() && it->is_string() && !it->get<std::string>().empty()) {
      outcome.deviceName = cutUtf8(it->get<std::string>(), kMaxDeviceName);
    }
  }

  json reply;
  const double maxAge = outcome.cmd == "wake" ? kWakeMaxAge : kCommandMaxAge;
  if (auto refusal = guard_.check(t, id, maxAge, now)) {
    reply = {{"ok", false}, {"error", *refusal}};
  } else if (!allowedFromPhone(outcome.cmd)) {
    reply = {{"ok", false},
             {"error", (outcome.cmd.empty() ? std::string("(no command)") : cutUtf8(outcome.cmd, 64)) +
                           " isn't allowed from the phone"}};
  } else if (tooDeep) {
    reply = {{"ok", false},
             {"error", "the command is nested too deeply (at most " + std::to_string(kMaxArgsDepth) + " levels)"}};
  } else {
    args["_age"] = std::max(0.0, std::floor(now - t));
    reply = phoneReply(runner_(outcome.cmd, args), outcome.cmd);
    outcome.ran = true;
  }
  reply["re"] = id;
  reply["t"] = std::floor(now);
  outcome.sealedReply = seal(dumpJson(reply), outcome.replyTopic, from->key).value_or("");
  // ntfy turns a longer body into an attachment, which the phone doesn't
  // read: say so in a reply that fits.
  if (outcome.sealedReply.size() > kMaxRelayBody) {
    reply = {{"ok", false}, {"error", "the answer is too long for the relay"}, {"re", id}, {"t", std::floor(now)}};
    outcome.sealedReply = seal(dumpJson(reply), outcome.replyTopic, from->key).value_or("");
  }
  outcome.reply = reply;
  return outcome;
}

}  // namespace vigilo
