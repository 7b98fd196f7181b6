// The Settings page and what a change asks first, the one-time setup run
// from the panel, and the script the end-to-end tests drive it with.

#include <cstdlib>

#include "panel/gtk/panel_window.h"
#include "platform/text.h"

namespace vigilo::gtkpanel {

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
    GtkWidget* sw = settingSwitch(key, value);
    gtk_box_append(GTK_BOX(row), sw);
    rows_[key] = {sw, nullptr};
  } else if (type == "enum") {
    gtk_box_append(GTK_BOX(row), settingChoice(key, value, s));
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

// A switch for a yes-or-no setting.
GtkWidget* Panel::settingSwitch(const std::string& key, const json& value) {
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
  return sw;
}

// A drop-down of the values an enum setting allows.
GtkWidget* Panel::settingChoice(const std::string& key, const json& value, const json& s) {
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
  return dd;
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

}  // namespace vigilo::gtkpanel
