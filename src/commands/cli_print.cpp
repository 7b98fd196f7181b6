#include "commands/cli_print.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "engine/engine.h"
#include "platform/text.h"

namespace vigilo::cli {
namespace {

std::string shortTime(double t) { return formatShortTime(t); }

std::string holdLine(const json& h) {
  std::string line = "  hold " + h.value("id", std::string()) + ": " + h.value("reason", std::string());
  if (h.contains("end") && h["end"].is_number()) {
    line += " until " + shortTime(h["end"].get<double>());
  } else if (h.contains("pid") && h["pid"].is_number_integer()) {
    line += " while process " + std::to_string(h["pid"].get<long long>()) + " runs";
  } else {
    line += " until released";
  }
  return line;
}

// One row of the energy list; "~" marks a draw estimated from CPU use.
std::string appLine(const json& a) {
  char buf[256];
  std::snprintf(buf, sizeof buf, "%s%5.2f W  %s (%s while closed)", a.value("estimated", false) ? "~" : " ",
                a.value("watts", 0.0), a.value("name", std::string()).c_str(),
                a.value("while_closed", std::string("leave")).c_str());
  return buf;
}

}  // namespace

void err(const std::string& message) { std::fprintf(stderr, "vigilo: %s\n", message.c_str()); }
void out(const std::string& line) { std::printf("%s\n", line.c_str()); }

std::string valueText(const json& v) {
  if (v.is_string()) return v.get<std::string>();
  if (v.is_boolean()) return v.get<bool>() ? "on" : "off";
  if (v.is_null()) return "";
  return dumpJson(v);
}

int failed(const json& reply) {
  auto e = reply.find("error");
  err(e != reply.end() && e->is_string() ? e->get<std::string>() : "failed");
  return 1;
}

bool isOk(const json& reply) {
  auto it = reply.find("ok");
  return it != reply.end() && it->is_boolean() && it->get<bool>();
}

std::string statusOf(const json& reply) { return reply.value("status", std::string()); }

std::optional<std::string> approveLine(const json& reply) {
  auto a = reply.find("approve_everything");
  if (a == reply.end() || !a->is_object() || a->value("on", false) != true) return std::nullopt;
  std::string line = "Approve everything is on: ";
  auto ends = a->find("ends_line");
  line += ends != a->end() && ends->is_string() ? ends->get<std::string>() : std::string("on");
  auto problem = a->find("problem");
  if (problem != a->end() && problem->is_string()) line += " (" + problem->get<std::string>() + ")";
  return line;
}

void printStatus(const json& r, const MachineWords& words) {
  out(statusOf(r));
  if (auto title = r.find("menu_bar_title"); title != r.end() && title->is_string() && !title->get<std::string>().empty()) {
    out(MachineWords::capitalised(words.tray) + ": " + title->get<std::string>());
  }
  if (r.contains("holds") && r["holds"].is_array()) {
    for (const auto& h : r["holds"]) {
      if (h.is_object()) out(holdLine(h));
    }
  }
  if (r.contains("battery") && r["battery"].is_object()) {
    const json& b = r["battery"];
    char buf[128];
    if (b.value("on_power", false)) {
      std::snprintf(buf, sizeof buf, "Battery: %d%% · on power%s", b.value("percent", 0),
                    b.value("charging", false) ? " (charging)" : "");
    } else {
      std::snprintf(buf, sizeof buf, "Battery: %d%% · %.1f W", b.value("percent", 0), b.value("watts", 0.0));
    }
    out(buf);
  } else {
    out("Battery: none");
  }
  if (r.contains("hours_left_closed") && r["hours_left_closed"].is_number()) {
    char buf[128];
    std::snprintf(buf, sizeof buf, "Lid closed: about %.1f h left at %.1f W", r["hours_left_closed"].get<double>(),
                  r.value("closed_estimate_watts", 0.0));
    out(buf);
  }
  if (r.contains("warning") && r["warning"].is_string()) out("note: " + r["warning"].get<std::string>());
  if (auto line = approveLine(r)) out(*line);
  if (r.contains("not_put_back_yet") && r["not_put_back_yet"].is_array() && !r["not_put_back_yet"].empty()) {
    out("not put back yet:");
    for (const auto& item : r["not_put_back_yet"]) out("  " + valueText(item));
  }
  if (r.contains("watching") && r["watching"].is_array() && !r["watching"].empty()) {
    out("agents and apps watched:");
    for (const auto& w : r["watching"]) {
      if (!w.is_object()) continue;
      std::string line = "  " + w.value("description", w.value("name", std::string()));
      if (!w.value("keeps_awake", true)) line += " (tracked only: doesn't keep it awake)";
      out(line);
    }
  }
  if (r.contains("apps_using_energy") && r["apps_using_energy"].is_array() && !r["apps_using_energy"].empty()) {
    out("using the most power:");
    for (const auto& a : r["apps_using_energy"]) {
      if (a.is_object()) out(appLine(a));
    }
  }
  if (r.contains("unavailable") && r["unavailable"].is_array()) {
    for (const auto& u : r["unavailable"]) {
      if (u.is_object()) out("unavailable: " + u.value("detail", u.value("name", std::string())));
    }
  }
}

void printSettings(const json& r) {
  std::string topic;
  if (r.contains("settings") && r["settings"].is_array()) {
    for (const auto& s : r["settings"]) {
      if (!s.is_object()) continue;
      const std::string t = s.value("topic", std::string());
      if (t != topic) {
        if (!topic.empty()) out("");
        out(t);
        topic = t;
      }
      std::string line = "  " + s.value("key", std::string()) + " = " + valueText(s.value("value", json()));
      std::vector<std::string> allowed;
      if (s.contains("allowed") && s["allowed"].is_array()) {
        for (const auto& a : s["allowed"]) allowed.push_back(valueText(a));
      }
      if (allowed.empty() && s.value("type", std::string()) == "bool") allowed = {"on", "off"};
      if (!allowed.empty()) {
        line += "  [";
        for (std::size_t i = 0; i < allowed.size(); ++i) line += (i ? ", " : "") + allowed[i];
        line += "]";
      }
      // The description of a setting this machine lacks says why.
      if (s.value("available", true) == false) line += "  (not on this machine)";
      out(line);
      out("      " + s.value("description", std::string()));
      if (s.contains("note") && s["note"].is_string()) out("      " + s["note"].get<std::string>());
    }
  }
  if (r.contains("lists") && r["lists"].is_array()) {
    out("");
    for (const auto& l : r["lists"]) {
      if (!l.is_object()) continue;
      std::string items;
      if (l.contains("items")) {
        const json& it = l["items"];
        if (it.is_array()) {
          for (const auto& x : it) items += (items.empty() ? "" : ", ") + valueText(x.is_object() ? x.value("name", json()) : x);
        } else if (it.is_object()) {
          for (auto& [k, v] : it.items()) items += (items.empty() ? "" : ", ") + k + ": " + valueText(v);
        }
      }
      out("  " + l.value("name", std::string()) + " = [" + items + "]");
      out("      " + l.value("what", std::string()));
      out("      " + l.value("how", std::string()));
    }
  }
  out("\nChange with: vigilo set <key> <value>. Per-app rules: vigilo rule <app> leave|slow|pause. File: " +
      r.value("path", std::string()));
}

void printPower(const json& r, const MachineWords& words) {
  auto number = [&](const char* key) -> std::optional<double> {
    return r.contains(key) && r[key].is_number() ? std::optional<double>(r[key].get<double>()) : std::nullopt;
  };
  char buf[160];
  if (auto w = number("system_watts")) {
    std::snprintf(buf, sizeof buf, "Whole machine: %.1f W", *w);
  } else {
    std::snprintf(buf, sizeof buf, "Whole machine: not measured (no battery reading)");
  }
  out(buf);
  if (auto e = number("closed_estimate_watts")) {
    std::snprintf(buf, sizeof buf, "Lid closed: about %.1f W expected", *e);
    std::string line = buf;
    if (auto h = number("hours_left_closed")) {
      std::snprintf(buf, sizeof buf, ", %.1f h of battery", *h);
      line += buf;
    }
    out(line);
  }
  if (r.value("external_display", false)) {
    out("External display: connected (it draws power too; a shut lid counts as open while it is)");
  }
  printApps(r);
  printMeasured(r, words);
}

// The power test's results in a `power` reply.
void printMeasured(const json& r, const MachineWords& words) {
  const std::string state = r.value("power_test", std::string());
  if (state == "running") {
    out("Power test: running (" + valueText(r.value("power_test_progress", json("starting"))) + ")");
  } else if (state == "aborted") {
    out("Power test stopped early: " + valueText(r.value("power_test_aborted", json(""))));
  }
  if (r.contains("power_test_result") && r["power_test_result"].is_string()) {
    out(r["power_test_result"].get<std::string>());
  }
  const json effects = r.value("measured_effects", json::object());
  if (!effects.is_object()) return;
  for (auto& [name, watts] : effects.items()) {
    if (name == "total" || !watts.is_number()) continue;
    char buf[120];
    const std::string title = name == "low_power" ? MachineWords::capitalised(words.lowPower) : name;
    std::snprintf(buf, sizeof buf, "  %s: saves %.1f W", title.c_str(), watts.get<double>());
    out(buf);
  }
}

void printApps(const json& r) {
  if (!r.contains("apps") || !r["apps"].is_array()) return;
  for (const auto& a : r["apps"]) {
    if (a.is_object()) out(appLine(a));
  }
}

void printTargets(const json& r, const json& targeted, const json& unrestored) {
  if (targeted.empty()) {
    out(r.value("lid_closed", false) && r.value("keeping_awake", false)
            ? "Nothing would be slowed or paused right now"
            : "Nothing is slowed or paused: that happens while the lid is shut and the machine is held awake.");
  }
  for (const auto& t : targeted) {
    if (!t.is_object()) continue;
    out("  " + t.value("rule", std::string()) + "  " + t.value("name", std::string()) + " (pid " +
        valueText(t.value("pid", json(0))) + ")");
  }
  if (!unrestored.empty()) {
    out("not put back yet:");
    for (const auto& u : unrestored) out("  " + valueText(u));
  }
}

void printMeasure(const json& r) {
  char buf[200];
  const json saving = r.value("measured_saving_watts", json(nullptr));
  std::snprintf(buf, sizeof buf, "Slowing and pausing the apps the lid-closed rules pick saves about %.1f W",
                saving.is_number() ? saving.get<double>() : 0.0);
  out(buf);
  const json apps = r.value("measured_apps", json::array());
  if (!apps.is_array() || apps.empty()) out("  (no app would be slowed or paused right now)");
  for (const auto& a : apps) {
    if (!a.is_object()) continue;
    std::snprintf(buf, sizeof buf, "  %s  (measured: saves %.1f W)", a.value("name", std::string()).c_str(),
                  a.value("saves_watts", 0.0));
    out(buf);
  }
  out("A rough, short-window estimate.");
}

}  // namespace vigilo::cli
