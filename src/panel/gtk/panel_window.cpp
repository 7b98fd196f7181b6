// The panel window: Now, Power and Settings tabs and the first-run screen,
// drawn with GTK 4 in its own process. It reads everything from the running
// app through the request channel (the host's `request`) and changes
// nothing itself: every click becomes a request.

#include <gio/gio.h>
#include <glib-unix.h>
#include <gtk/gtk.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include <nlohmann/json.hpp>

#include "panel/panel_abi.h"
#include "platform/text.h"

namespace {

using json = nlohmann::json;

constexpr double kRequestTimeout = 3.0;
constexpr guint kRefreshMs = 2000;
constexpr int kWidth = 640;
constexpr int kHeight = 620;

const VigiloPanelHost* gHost = nullptr;

// One request to the app, whole: a reply object, or {"ok": false, "error"}
// when the app didn't answer or answered nonsense.
json call(const std::string& cmd, const json& args = json::object()) {
  char* text = gHost->request(gHost->context, cmd.c_str(), vigilo::dumpJson(args).c_str(), kRequestTimeout);
  if (text == nullptr) return {{"ok", false}, {"error", "Vigilo didn't answer"}};
  json reply = json::parse(text, nullptr, false);
  gHost->release(text);
  if (!reply.is_object()) return {{"ok", false}, {"error", "Vigilo answered something unreadable"}};
  return reply;
}

std::string str(const json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && it->is_string() ? it->get<std::string>() : std::string();
}

bool has(const json& j, const char* key) {
  auto it = j.find(key);
  return it != j.end() && !it->is_null();
}

std::string fixed(double v, int digits) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.*f", digits, v);
  return buf;
}

// "battery_floor" → "Battery floor".
std::string title(const std::string& key) {
  std::string t = key;
  for (char& c : t) {
    if (c == '_') c = ' ';
  }
  if (!t.empty()) t[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(t[0])));
  return t;
}

void clear(GtkWidget* box) {
  while (GtkWidget* child = gtk_widget_get_first_child(box)) gtk_box_remove(GTK_BOX(box), child);
}

GtkWidget* label(const std::string& text, const char* cssClass = nullptr) {
  GtkWidget* l = gtk_label_new(text.c_str());
  gtk_label_set_xalign(GTK_LABEL(l), 0);
  gtk_label_set_wrap(GTK_LABEL(l), TRUE);
  gtk_label_set_selectable(GTK_LABEL(l), FALSE);
  if (cssClass) gtk_widget_add_css_class(l, cssClass);
  return l;
}

GtkWidget* heading(const std::string& text) {
  GtkWidget* l = label(text, "heading");
  gtk_widget_set_margin_top(l, 12);
  return l;
}

GtkWidget* vbox(int spacing) { return gtk_box_new(GTK_ORIENTATION_VERTICAL, spacing); }
GtkWidget* hbox(int spacing) { return gtk_box_new(GTK_ORIENTATION_HORIZONTAL, spacing); }

// A click's work, kept alive by GTK until the widget goes.
struct Click {
  std::function<void()> fn;
};

void onClicked(GtkButton*, gpointer data) { static_cast<Click*>(data)->fn(); }
void freeClick(gpointer data, GClosure*) { delete static_cast<Click*>(data); }

GtkWidget* button(const std::string& text, std::function<void()> fn) {
  GtkWidget* b = gtk_button_new_with_label(text.c_str());
  g_signal_connect_data(b, "clicked", G_CALLBACK(onClicked), new Click{std::move(fn)}, freeClick, GConnectFlags(0));
  return b;
}

class Panel {
 public:
  Panel(bool snapshotOnly, std::string page) : snapshotOnly_(snapshotOnly), page_(std::move(page)) {
    if (const char* script = std::getenv("VIGILO_PANEL_SCRIPT"); script && *script) script_ = script;
    build();
  }

  GtkWidget* window() const { return window_; }
  GtkWidget* root() const { return root_; }

  // The app's key for loosening, handed over on the control descriptor.
  void setKey(std::string key) { key_ = std::move(key); }

  void showPage(const std::string& page) {
    page_ = page;
    if (page == "setup" || gtk_stack_get_child_by_name(GTK_STACK(stack_), page.c_str()) != nullptr) {
      gtk_stack_set_visible_child_name(GTK_STACK(stack_), page.c_str());
    }
  }

  // Fetches the app's state now, on this thread (the snapshot).
  void refreshNow() { apply(call("panel"), call("schema")); }

  // Fetches on a worker thread and redraws on the main one, so an app that
  // is slow to answer never freezes the window.
  void refreshSoon() {
    if (fetching_) return;
    fetching_ = true;
    std::thread([this] {
      auto* fetched = new std::pair<json, json>(call("panel"), call("schema"));
      g_idle_add(
          [](gpointer data) -> gboolean {
            auto* pair = static_cast<std::pair<Panel*, std::pair<json, json>*>*>(data);
            pair->first->fetching_ = false;
            pair->first->apply(pair->second->first, pair->second->second);
            delete pair->second;
            delete pair;
            return G_SOURCE_REMOVE;
          },
          new std::pair<Panel*, std::pair<json, json>*>(this, fetched));
    }).detach();
  }

  // Runs a request off the main thread, then shows its outcome and redraws.
  void send(const std::string& cmd, json args) {
    std::thread([this, cmd, args] {
      auto* done = new std::pair<Panel*, json>(this, call(cmd, args));
      g_idle_add(
          [](gpointer data) -> gboolean {
            auto* d = static_cast<std::pair<Panel*, json>*>(data);
            const json& r = d->second;
            d->first->say(r.value("ok", false) ? str(r, "status") : "Couldn't do that: " + str(r, "error"),
                          !r.value("ok", false));
            d->first->refreshSoon();
            delete d;
            return G_SOURCE_REMOVE;
          },
          done);
    }).detach();
  }

  bool saveSnapshot(const std::string& path, std::string& error);

 private:
  void build();
  void apply(const json& panel, const json& schema);
  void buildNow(const json& p);
  void buildPower(const json& p);
  void buildSettings(const json& schema, const json& p);
  void buildSetup(const json& p);
  void settingRow(GtkWidget* box, const json& s);
  void change(const std::string& key, const json& value, const json& current);
  void confirm(const std::string& question, const std::string& detail, const std::string& yes,
               std::function<void()> then);
  void runSetup(const std::vector<std::string>& words);
  void runScript();

  void say(const std::string& text, bool bad = false) {
    gtk_label_set_text(GTK_LABEL(message_), text.c_str());
    if (bad) {
      gtk_widget_add_css_class(message_, "error");
    } else {
      gtk_widget_remove_css_class(message_, "error");
    }
  }

  bool snapshotOnly_;
  std::string page_;
  std::string key_;
  std::string script_;
  bool scriptRun_ = false;
  bool fetching_ = false;
  bool welcomed_ = false;
  json lastSettings_;
  GtkWidget* window_ = nullptr;
  GtkWidget* root_ = nullptr;
  GtkWidget* status_ = nullptr;
  GtkWidget* message_ = nullptr;
  GtkWidget* stack_ = nullptr;
  GtkWidget* now_ = nullptr;
  GtkWidget* power_ = nullptr;
  GtkWidget* settings_ = nullptr;
  GtkWidget* setup_ = nullptr;
  // The editable rows, by key, for the test script.
  std::map<std::string, std::pair<GtkWidget*, GtkWidget*>> rows_;
};

GtkWidget* scrolled(GtkWidget* content) {
  GtkWidget* s = gtk_scrolled_window_new();
  gtk_scrolled_window_set_policy(GTK_SCROLLED_WINDOW(s), GTK_POLICY_NEVER, GTK_POLICY_AUTOMATIC);
  gtk_widget_set_vexpand(s, TRUE);
  gtk_widget_set_margin_start(content, 16);
  gtk_widget_set_margin_end(content, 16);
  gtk_widget_set_margin_bottom(content, 16);
  gtk_scrolled_window_set_child(GTK_SCROLLED_WINDOW(s), content);
  return s;
}

void Panel::build() {
  window_ = gtk_window_new();
  gtk_window_set_title(GTK_WINDOW(window_), "Vigilo");
  gtk_window_set_default_size(GTK_WINDOW(window_), kWidth, kHeight);

  root_ = vbox(6);
  // Paints the window's background itself, so a snapshot of it has one.
  gtk_widget_add_css_class(root_, "background");
  status_ = label("Asking Vigilo…", "title-3");
  gtk_widget_set_margin_top(status_, 12);
  gtk_widget_set_margin_start(status_, 16);
  gtk_widget_set_margin_end(status_, 16);
  message_ = label("", "dim-label");
  gtk_widget_set_margin_start(message_, 16);
  gtk_widget_set_margin_end(message_, 16);

  stack_ = gtk_stack_new();
  now_ = vbox(4);
  power_ = vbox(4);
  settings_ = vbox(4);
  setup_ = vbox(10);
  gtk_stack_add_titled(GTK_STACK(stack_), scrolled(now_), "now", "Now");
  gtk_stack_add_titled(GTK_STACK(stack_), scrolled(power_), "power", "Power");
  gtk_stack_add_titled(GTK_STACK(stack_), scrolled(settings_), "settings", "Settings");
  // The first-run screen has no tab of its own.
  gtk_stack_add_named(GTK_STACK(stack_), scrolled(setup_), "setup");
  GtkWidget* switcher = gtk_stack_switcher_new();
  gtk_stack_switcher_set_stack(GTK_STACK_SWITCHER(switcher), GTK_STACK(stack_));
  gtk_widget_set_halign(switcher, GTK_ALIGN_CENTER);

  gtk_box_append(GTK_BOX(root_), status_);
  gtk_box_append(GTK_BOX(root_), message_);
  gtk_box_append(GTK_BOX(root_), switcher);
  gtk_box_append(GTK_BOX(root_), stack_);
  gtk_window_set_child(GTK_WINDOW(window_), root_);
}

void Panel::apply(const json& p, const json& schema) {
  if (!p.value("ok", false)) {
    gtk_label_set_text(GTK_LABEL(status_), "Vigilo isn't answering");
    say(str(p, "error"), true);
    return;
  }
  gtk_label_set_text(GTK_LABEL(status_), str(p, "status").c_str());
  buildNow(p);
  buildPower(p);
  if (schema.value("ok", false)) buildSettings(schema, p);
  buildSetup(p);
  // The first-run screen comes first once, until the setup is done or the
  // person chose "Later".
  if (!welcomed_) {
    welcomed_ = true;
    if (!snapshotOnly_ && !p.value("setup_done", true) && page_ == "now") page_ = "setup";
    showPage(page_);
  }
  if (!script_.empty() && !scriptRun_) {
    scriptRun_ = true;
    runScript();
  }
}

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

  gtk_box_append(box, heading("Agents and apps"));
  const json watching = p.value("watching", json::array());
  if (watching.empty()) gtk_box_append(box, label("No agent or watched app is running.", "dim-label"));
  for (const auto& w : watching) {
    std::string line = str(w, "name");
    if (!str(w, "description").empty()) line += ": " + str(w, "description");
    gtk_box_append(box, label(line, w.value("working", false) ? nullptr : "dim-label"));
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

void Panel::buildSettings(const json& schema, const json& p) {
  const json settings = schema.value("settings", json::array());
  // Rebuilt only when a value changed, so typing isn't undone every refresh.
  if (settings == lastSettings_) return;
  lastSettings_ = settings;
  rows_.clear();
  clear(settings_);
  GtkBox* box = GTK_BOX(settings_);
  std::string topic;
  for (const auto& s : settings) {
    if (str(s, "topic") != topic) {
      topic = str(s, "topic");
      gtk_box_append(box, heading(topic));
    }
    settingRow(settings_, s);
  }
  gtk_box_append(box, heading("One-time setup"));
  const bool done = p.value("setup_done", false);
  gtk_box_append(box, label(done ? "Done: Vigilo may keep the laptop awake with the lid closed."
                                 : "Not done: " + str(p, "setup_problem")));
  GtkWidget* row = hbox(6);
  gtk_box_append(GTK_BOX(row), button(done ? "Repair" : "Set Up", [this] { runSetup({"setup", "--yes"}); }));
  gtk_box_append(GTK_BOX(row), button("Remove…", [this] {
    confirm("Remove Vigilo's one-time setup?",
            "The watchdog and the permission to keep the laptop awake with the lid closed are removed.", "Remove",
            [this] { runSetup({"setup", "--remove", "--yes"}); });
  }));
  gtk_box_append(box, row);
  gtk_box_append(box, label(str(schema, "how"), "dim-label"));
}

void Panel::settingRow(GtkWidget* parent, const json& s) {
  const std::string key = str(s, "key");
  const std::string type = str(s, "type");
  const json value = s.value("value", json());
  GtkWidget* row = hbox(8);
  GtkWidget* name = label(title(key));
  gtk_widget_set_hexpand(name, TRUE);
  gtk_box_append(GTK_BOX(row), name);
  if (type == "bool") {
    GtkWidget* sw = gtk_switch_new();
    gtk_switch_set_active(GTK_SWITCH(sw), value.is_boolean() && value.get<bool>());
    gtk_widget_set_valign(sw, GTK_ALIGN_CENTER);
    // A click is only a wish: the switch follows the app's answer.
    g_signal_connect_data(sw, "state-set",
                          G_CALLBACK(+[](GtkSwitch*, gboolean state, gpointer data) -> gboolean {
                            (*static_cast<std::function<void(bool)>*>(data))(state);
                            return TRUE;
                          }),
                          new std::function<void(bool)>([this, key, value](bool on) { change(key, on, value); }),
                          [](gpointer data, GClosure*) { delete static_cast<std::function<void(bool)>*>(data); },
                          GConnectFlags(0));
    gtk_box_append(GTK_BOX(row), sw);
    rows_[key] = {sw, nullptr};
  } else if (type == "enum") {
    std::vector<std::string> allowed = s.value("allowed", std::vector<std::string>());
    std::vector<const char*> items;
    guint selected = 0;
    for (std::size_t i = 0; i < allowed.size(); ++i) {
      items.push_back(allowed[i].c_str());
      if (value.is_string() && value.get<std::string>() == allowed[i]) selected = static_cast<guint>(i);
    }
    items.push_back(nullptr);
    GtkWidget* dd = gtk_drop_down_new_from_strings(items.data());
    gtk_drop_down_set_selected(GTK_DROP_DOWN(dd), selected);
    auto* fn = new std::function<void(guint)>([this, key, value, allowed](guint i) {
      if (i < allowed.size() && json(allowed[i]) != value) change(key, allowed[i], value);
    });
    g_signal_connect_data(dd, "notify::selected",
                          G_CALLBACK(+[](GtkDropDown* d, GParamSpec*, gpointer data) {
                            (*static_cast<std::function<void(guint)>*>(data))(gtk_drop_down_get_selected(d));
                          }),
                          fn, [](gpointer data, GClosure*) { delete static_cast<std::function<void(guint)>*>(data); },
                          GConnectFlags(0));
    gtk_box_append(GTK_BOX(row), dd);
  } else {
    GtkWidget* entry = gtk_entry_new();
    gtk_editable_set_text(GTK_EDITABLE(entry),
                          value.is_string() ? value.get<std::string>().c_str() : vigilo::dumpJson(value).c_str());
    gtk_editable_set_width_chars(GTK_EDITABLE(entry), type == "int" ? 5 : 18);
    GtkWidget* set = button("Set", [this, key, entry, value] {
      std::string text = gtk_editable_get_text(GTK_EDITABLE(entry));
      change(key, text, value);
    });
    gtk_box_append(GTK_BOX(row), entry);
    gtk_box_append(GTK_BOX(row), set);
    rows_[key] = {entry, set};
  }
  gtk_box_append(GTK_BOX(parent), row);
  gtk_box_append(GTK_BOX(parent), label(str(s, "description"), "dim-label"));
  if (has(s, "note")) gtk_box_append(GTK_BOX(parent), label(str(s, "note"), "dim-label"));
}

// Sends a change; one that loosens a safety setting first asks the person,
// and only then carries the app's key.
void Panel::change(const std::string& key, const json& value, const json& current) {
  // The controls show the app's answer, not the click: whatever happens
  // (refused, cancelled, done), the next refresh redraws them from it.
  lastSettings_ = nullptr;
  json args = {{"key", key}, {"value", value}};
  auto withKey = [this, args]() mutable {
    args["panel_key"] = key_;
    send("set", args);
  };
  if (key == "battery_floor" && value.is_string()) {
    char* end = nullptr;
    const std::string text = value.get<std::string>();
    const long wanted = std::strtol(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && current.is_number_integer() && wanted < current.get<int>()) {
      confirm("Lower the battery limit to " + text + "%?",
              "Vigilo lets the laptop sleep when the battery reaches this percent; lower means it keeps working "
              "longer on battery, and closer to empty.",
              "Lower the Limit", withKey);
      return;
    }
  }
  if ((key == "heat_guard" || key == "only_on_power") && value == false && current == true) {
    confirm(key == "heat_guard" ? "Turn the heat guard off?" : "Stay awake on battery too?",
            key == "heat_guard"
                ? "With the lid shut, Vigilo no longer lets the laptop sleep when it stays hot. A hot laptop in a "
                  "bag can be damaged."
                : "Vigilo keeps the laptop awake also when the charger isn't covering the load.",
            "Turn Off", withKey);
    return;
  }
  // Only the person picks where phone alerts go.
  if (key == "ntfy_topic") {
    withKey();
    return;
  }
  send("set", args);
}

void Panel::confirm(const std::string& question, const std::string& detail, const std::string& yes,
                    std::function<void()> then) {
  GtkWidget* dialog = gtk_message_dialog_new(GTK_WINDOW(window_), GTK_DIALOG_MODAL, GTK_MESSAGE_WARNING,
                                             GTK_BUTTONS_NONE, "%s", question.c_str());
  gtk_message_dialog_format_secondary_text(GTK_MESSAGE_DIALOG(dialog), "%s", detail.c_str());
  gtk_dialog_add_button(GTK_DIALOG(dialog), "Cancel", GTK_RESPONSE_CANCEL);
  gtk_dialog_add_button(GTK_DIALOG(dialog), yes.c_str(), GTK_RESPONSE_ACCEPT);
  gtk_dialog_set_default_response(GTK_DIALOG(dialog), GTK_RESPONSE_CANCEL);
  auto* fn = new std::function<void()>(std::move(then));
  g_signal_connect_data(dialog, "response",
                        G_CALLBACK(+[](GtkDialog* d, int response, gpointer data) {
                          if (response == GTK_RESPONSE_ACCEPT) (*static_cast<std::function<void()>*>(data))();
                          gtk_window_destroy(GTK_WINDOW(d));
                        }),
                        fn, [](gpointer data, GClosure*) { delete static_cast<std::function<void()>*>(data); },
                        GConnectFlags(0));
  gtk_window_present(GTK_WINDOW(dialog));
  // The test driver answers as a person would, through the same response.
  if (script_.find("confirm") != std::string::npos) gtk_dialog_response(GTK_DIALOG(dialog), GTK_RESPONSE_ACCEPT);
}

// The one-time setup is the same `vigilo setup` a person runs in a
// terminal; the system asks for the password in its own window.
void Panel::runSetup(const std::vector<std::string>& words) {
  char* exe = g_file_read_link("/proc/self/exe", nullptr);
  if (exe == nullptr) {
    say("Couldn't find the vigilo executable to run the setup", true);
    return;
  }
  std::vector<const char*> argv{exe};
  for (const auto& w : words) argv.push_back(w.c_str());
  argv.push_back(nullptr);
  GError* error = nullptr;
  GSubprocess* proc = g_subprocess_newv(argv.data(),
                                        GSubprocessFlags(G_SUBPROCESS_FLAGS_STDOUT_PIPE | G_SUBPROCESS_FLAGS_STDERR_MERGE),
                                        &error);
  g_free(exe);
  if (proc == nullptr) {
    say(std::string("Couldn't start the setup: ") + error->message, true);
    g_error_free(error);
    return;
  }
  say("Working on the setup…");
  g_subprocess_communicate_utf8_async(
      proc, nullptr, nullptr,
      +[](GObject* source, GAsyncResult* result, gpointer data) {
        auto* self = static_cast<Panel*>(data);
        char* out = nullptr;
        GSubprocess* p = G_SUBPROCESS(source);
        g_subprocess_communicate_utf8_finish(p, result, &out, nullptr, nullptr);
        const bool ok = g_subprocess_get_successful(p);
        std::string text = out ? out : "";
        g_free(out);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        self->say(text.empty() ? (ok ? "Done" : "The setup failed") : text, !ok);
        self->lastSettings_ = nullptr;
        self->refreshSoon();
        g_object_unref(p);
      },
      this);
}

// VIGILO_PANEL_SCRIPT drives the real controls once the window is built,
// for the end-to-end tests: "set:KEY=VALUE" types VALUE into KEY's row and
// clicks its Set button; "confirm" answers confirmations with yes.
void Panel::runScript() {
  const std::string prefix = "set:";
  auto start = script_.find(prefix);
  if (start == std::string::npos) return;
  std::string rest = script_.substr(start + prefix.size());
  rest = rest.substr(0, rest.find(';'));
  const auto eq = rest.find('=');
  if (eq == std::string::npos) return;
  auto it = rows_.find(rest.substr(0, eq));
  if (it == rows_.end() || it->second.second == nullptr) return;
  gtk_editable_set_text(GTK_EDITABLE(it->second.first), rest.substr(eq + 1).c_str());
  g_signal_emit_by_name(it->second.second, "clicked");
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

// Draws the panel without showing a window: the window is realized (it has
// a renderer) but never mapped; its content is laid out and snapshot by
// hand, rendered to a texture and saved.
bool Panel::saveSnapshot(const std::string& path, std::string& error) {
  gtk_widget_realize(window_);
  GskRenderer* renderer = gtk_native_get_renderer(GTK_NATIVE(window_));
  if (renderer == nullptr) {
    error = "the display gave no renderer";
    return false;
  }
  int minimum = 0, natural = 0;
  gtk_widget_measure(root_, GTK_ORIENTATION_VERTICAL, kWidth, &minimum, &natural, nullptr, nullptr);
  const int height = std::max(kHeight, minimum);
  gtk_widget_map(root_);
  const GtkAllocation allocation{0, 0, kWidth, height};
  gtk_widget_size_allocate(root_, &allocation, -1);
  GtkSnapshot* snapshot = gtk_snapshot_new();
  gtk_widget_snapshot_child(window_, root_, snapshot);
  GskRenderNode* node = gtk_snapshot_free_to_node(snapshot);
  if (node == nullptr) {
    error = "the panel drew nothing";
    return false;
  }
  graphene_rect_t area = GRAPHENE_RECT_INIT(0, 0, static_cast<float>(kWidth), static_cast<float>(height));
  GdkTexture* texture = gsk_renderer_render_texture(renderer, node, &area);
  gsk_render_node_unref(node);
  const bool saved = texture != nullptr && gdk_texture_save_to_png(texture, path.c_str());
  if (texture) g_object_unref(texture);
  if (!saved) error = "couldn't write " + path + " (is its folder there, and yours to write in?)";
  return saved;
}

struct Options {
  std::string page = "now";
  std::string snapshot;
  int controlFd = -1;
};

bool parse(int argc, char** argv, Options& o) {
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    if ((a == "--page" || a == "--snapshot" || a == "--control-fd") && i + 1 < argc) {
      const std::string v = argv[++i];
      if (a == "--page") o.page = v;
      if (a == "--snapshot") o.snapshot = v;
      if (a == "--control-fd") o.controlFd = std::atoi(v.c_str());
    } else {
      std::fprintf(stderr, "vigilo: panel doesn't know \"%s\". Usage: vigilo panel [--page P] [--snapshot FILE.png]\n",
                   a.c_str());
      return false;
    }
  }
  return true;
}

struct Control {
  Panel* panel;
  GMainLoop* loop;
  std::string pending;
};

// Lines from the app: "key K" once, then "page P" for each later `open`.
// End of file: the app is gone, and the panel with it.
gboolean onControl(gint fd, GIOCondition, gpointer data) {
  auto* c = static_cast<Control*>(data);
  char buf[512];
  const ssize_t n = ::read(fd, buf, sizeof buf);
  if (n < 0 && (errno == EINTR || errno == EAGAIN)) return G_SOURCE_CONTINUE;
  if (n <= 0) {
    g_main_loop_quit(c->loop);
    return G_SOURCE_REMOVE;
  }
  c->pending.append(buf, static_cast<std::size_t>(n));
  std::size_t nl;
  while ((nl = c->pending.find('\n')) != std::string::npos) {
    const std::string line = c->pending.substr(0, nl);
    c->pending.erase(0, nl + 1);
    if (line.rfind("key ", 0) == 0) c->panel->setKey(line.substr(4));
    if (line.rfind("page ", 0) == 0) {
      c->panel->showPage(line.substr(5));
      gtk_window_present(GTK_WINDOW(c->panel->window()));
      c->panel->refreshSoon();
    }
  }
  return G_SOURCE_CONTINUE;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int vigilo_panel_main(const VigiloPanelHost* host, int argc,
                                                                          char** argv) {
  if (host == nullptr || host->version != kVigiloPanelAbi) {
    std::fprintf(stderr, "vigilo: the panel module doesn't match this vigilo; rebuild both\n");
    return 1;
  }
  gHost = host;
  Options o;
  if (!parse(argc, argv, o)) return 2;
  if (!o.snapshot.empty() && (o.snapshot.size() < 4 || o.snapshot.compare(o.snapshot.size() - 4, 4, ".png") != 0)) {
    std::fprintf(stderr, "vigilo: snapshot name must end in .png\n");
    return 2;
  }
  // A picture needs no GPU: the software renderer draws the same on every
  // machine, Xvfb included (a renderer the person chose still wins).
  if (!o.snapshot.empty()) g_setenv("GSK_RENDERER", "cairo", FALSE);
  if (!gtk_init_check()) {
    std::fprintf(stderr,
                 "vigilo: the panel needs a graphical session, and none is reachable here (DISPLAY or "
                 "WAYLAND_DISPLAY)\n");
    return 1;
  }
  g_object_set(gtk_settings_get_default(), "gtk-enable-animations", FALSE, nullptr);
  Panel panel(!o.snapshot.empty(), o.page);
  if (!o.snapshot.empty()) {
    panel.refreshNow();
    panel.showPage(o.page);
    std::string error;
    if (!panel.saveSnapshot(o.snapshot, error)) {
      std::fprintf(stderr, "vigilo: %s\n", error.c_str());
      return 1;
    }
    return 0;
  }
  GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
  Control control{&panel, loop, {}};
  if (o.controlFd >= 0) g_unix_fd_add(o.controlFd, GIOCondition(G_IO_IN | G_IO_HUP | G_IO_ERR), onControl, &control);
  g_signal_connect_swapped(panel.window(), "destroy", G_CALLBACK(g_main_loop_quit), loop);
  panel.refreshSoon();
  g_timeout_add(kRefreshMs, +[](gpointer data) -> gboolean {
    auto* p = static_cast<Panel*>(data);
    if (gtk_widget_get_visible(p->window())) p->refreshSoon();
    return G_SOURCE_CONTINUE;
  }, &panel);
  gtk_window_present(GTK_WINDOW(panel.window()));
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
  return 0;
}
