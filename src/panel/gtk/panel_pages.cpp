// The pages that show the app's state: Now (keep-awake mode, holds,
// battery, agents), Power (draw, energy users, savings) and the first-run
// screen.

#include "panel/gtk/panel_window.h"

namespace vigilo::gtkpanel {

void Panel::buildNow(const json& p) {
  clear(now_);
  GtkBox* box = GTK_BOX(now_);
  gtk_box_append(box, heading("Keep awake"));
  GtkWidget* modes = hbox(6);
  const std::string mode = str(p, "mode");
  const std::pair<const char*, const char*> choices[] = {{"off", "Off"}, {"auto", "When Busy"}, {"always", "Always"}};
  for (const auto& [value, text] : choices) {
    std::string v = value;
    GtkWidget* b = button(text, [this, v] { send("mode", {{"mode", v}}); });
    if (mode == v) gtk_widget_add_css_class(b, "suggested-action");
    gtk_box_append(GTK_BOX(modes), b);
  }
  gtk_box_append(GTK_BOX(modes), button("Let It Sleep Now", [this] { send("sleep_now", json::object()); }));
  gtk_box_append(box, modes);
  if (has(p, "reason")) gtk_box_append(box, label("Why: " + str(p, "reason")));
  if (has(p, "blocked_by")) {
    gtk_box_append(box, label("Held back: " + str(p, "blocked_by"), "warning"));
  }
  if (has(p, "warning")) gtk_box_append(box, label(str(p, "warning"), "warning"));

  gtk_box_append(box, heading("Holds"));
  const json holds = p.value("holds", json::array());
  if (holds.empty()) gtk_box_append(box, label("No one asked to keep it awake.", "dim-label"));
  for (const auto& h : holds) {
    GtkWidget* row = hbox(8);
    GtkWidget* l = label(str(h, "reason"));
    gtk_widget_set_hexpand(l, TRUE);
    gtk_box_append(GTK_BOX(row), l);
    const std::string id = str(h, "id");
    gtk_box_append(GTK_BOX(row), button("Release", [this, id] { send("release", {{"id", id}}); }));
    gtk_box_append(box, row);
  }

  addBattery(box, p);

  gtk_box_append(box, heading("Agents and apps"));
  const json watching = p.value("watching", json::array());
  if (watching.empty()) gtk_box_append(box, label("No agent or watched app is running.", "dim-label"));
  for (const auto& w : watching) {
    std::string line = str(w, "name");
    if (!str(w, "description").empty()) line += ": " + str(w, "description");
    gtk_box_append(box, label(line, w.value("working", false) ? nullptr : "dim-label"));
  }
}

// The charge, a way past the battery limit while it holds the laptop back,
// and the hours left with the lid closed.
void Panel::addBattery(GtkBox* box, const json& p) {
  gtk_box_append(box, heading("Battery"));
  const json battery = p.value("battery", json());
  if (battery.is_object()) {
    std::string line = fixed(battery.value("percent", 0.0), 0) + "%";
    line += battery.value("on_power", false) ? (battery.value("charging", false) ? " · charging" : " · on power")
                                             : " · on battery";
    if (battery.contains("watts") && battery["watts"].is_number()) line += " · " + fixed(battery["watts"].get<double>(), 1) + " W";
    gtk_box_append(box, label(line));
    if (has(p, "blocked_by") && !battery.value("on_power", false)) {
      gtk_box_append(box, button("Keep Going Below the Limit…", [this] {
        confirm("Keep going below the battery limit?",
                "Vigilo keeps the laptop awake although the battery is below its limit, until you turn this off "
                "or plug it in. A fully drained laptop shuts down and loses unsaved work.",
                "Keep Going", [this] { send("override_floor", {{"on", true}, {"panel_key", key_}}); });
      }));
    }
  } else {
    gtk_box_append(box, label("No battery on this machine.", "dim-label"));
  }
  if (has(p, "hours_left_closed")) {
    std::string line = "With the lid closed: about " + fixed(p["hours_left_closed"].get<double>(), 1) + " h left";
    if (p.contains("closed_estimate_watts") && p["closed_estimate_watts"].is_number()) {
      line += " at " + fixed(p["closed_estimate_watts"].get<double>(), 1) + " W";
    }
    gtk_box_append(box, label(line));
  }
}

void Panel::buildPower(const json& p) {
  clear(power_);
  GtkBox* box = GTK_BOX(power_);
  gtk_box_append(box, heading("Whole machine"));
  gtk_box_append(box, label(p.contains("system_watts") && p["system_watts"].is_number()
                                ? "Drawing " + fixed(p["system_watts"].get<double>(), 1) + " W"
                                : std::string("This machine doesn't report its power draw right now.")));
  gtk_box_append(box, heading("Top energy users"));
  const json apps = p.value("apps_using_energy", json::array());
  if (apps.empty()) gtk_box_append(box, label("Nothing measurable yet (it takes two readings).", "dim-label"));
  for (const auto& a : apps) {
    GtkWidget* row = hbox(8);
    GtkWidget* name = label(str(a, "name"));
    gtk_widget_set_hexpand(name, TRUE);
    gtk_box_append(GTK_BOX(row), name);
    gtk_box_append(GTK_BOX(row), label(fixed(a.value("watts", 0.0), 2) + " W"));
    gtk_box_append(box, row);
  }
  // Savings and receipts appear once the app measures them; absent keys
  // leave their lines out.
  struct Figure {
    const char* key;
    const char* text;
    const char* unit;
  };
  const Figure figures[] = {{"saving_now_watts", "Saving now", "W"},
                            {"measured_saving_watts", "Measured saving with the lid closed", "W"},
                            {"estimated_savings_this_week", "Saved this week", "Wh"},
                            {"by_slowing_apps_wh", "By slowing apps", "Wh"},
                            {"by_sleeping_when_done_wh", "By sleeping when done", "Wh"},
                            {"full_charges_equivalent", "Full charges saved", ""}};
  bool titled = false;
  for (const auto& f : figures) {
    if (!p.contains(f.key) || !p[f.key].is_number()) continue;
    if (!titled) gtk_box_append(box, heading("Savings"));
    titled = true;
    gtk_box_append(box, label(std::string(f.text) + ": " + fixed(p[f.key].get<double>(), 1) + (*f.unit ? " " : "") + f.unit));
  }
  if (p.contains("receipt") && p["receipt"].is_object() && !str(p["receipt"], "line").empty()) {
    gtk_box_append(box, heading("Last time the lid was closed"));
    gtk_box_append(box, label(str(p["receipt"], "line")));
  }
}

void Panel::buildSetup(const json& p) {
  clear(setup_);
  GtkBox* box = GTK_BOX(setup_);
  gtk_box_append(box, heading("Welcome to Vigilo"));
  gtk_box_append(box, label("Vigilo keeps this laptop awake, also with the lid shut, while your coding agents "
                            "(Claude Code, Codex, Gemini CLI and others) or the apps you chose are busy, and lets "
                            "it sleep when the work is done, when the battery reaches its limit, when it stays hot "
                            "or when it is not on power."));
  gtk_box_append(box, label("While the lid is shut it saves power: other apps are slowed or paused and the screen "
                            "goes dark. Everything is put back afterwards, also after a crash."));
  const bool done = p.value("setup_done", false);
  gtk_box_append(box, label(done ? "The one-time setup is done."
                                 : "A one-time setup lets Vigilo keep the laptop awake with the lid shut and "
                                   "installs a watchdog that puts everything back if Vigilo stops. " +
                                       str(p, "setup_problem")));
  GtkWidget* row = hbox(8);
  if (!done) {
    GtkWidget* b = button("Set Up", [this] { runSetup({"setup", "--yes"}); });
    gtk_widget_add_css_class(b, "suggested-action");
    gtk_box_append(GTK_BOX(row), b);
  }
  gtk_box_append(GTK_BOX(row), button(done ? "Continue" : "Later", [this] { showPage("now"); }));
  gtk_box_append(box, row);
}

}  // namespace vigilo::gtkpanel
