#pragma once

// The panel window: Now, Power and Settings tabs and the first-run screen,
// drawn with GTK 4 in its own process. It reads everything from the running
// app through the request channel and changes nothing itself: every click
// becomes a request. Made and used on the main thread; the requests run on
// worker threads and come back to it.

#include <gtk/gtk.h>

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "panel/gtk/panel_ui.h"

struct VigiloPanelHost;

namespace vigilo::gtkpanel {

// Lends the panel the executable's request channel; set once, before the
// first request.
void setHost(const VigiloPanelHost* host);
// One request to the app, whole: a reply object, or {"ok": false, "error"}
// when the app didn't answer or answered nonsense. Any thread.
json call(const std::string& cmd, const json& args = json::object());

// Gives the windows the "vigilo" icon: installed by name, or from the
// data/icons folder of a checkout the executable runs from. Once, after
// GTK is initialised.
void useVigiloIcon();

// Follows the `appearance` setting ("system", "light" or "dark"): GTK's
// dark variant on or off, or the desktop's own choice for "system".
void followAppearance(const std::string& appearance);

class Panel {
 public:
  // `snapshotOnly`: drawn once for a picture, never shown; `page` is the
  // tab to show first.
  Panel(bool snapshotOnly, std::string page);
  Panel(const Panel&) = delete;
  Panel& operator=(const Panel&) = delete;

  GtkWidget* window() const { return window_; }
  GtkWidget* root() const { return root_; }

  // The app's key for loosening, handed over on the control descriptor.
  void setKey(std::string key) { key_ = std::move(key); }

  void showPage(const std::string& page);

  // Fetches the app's state now, on this thread (the snapshot).
  void refreshNow();
  // Fetches on a worker thread and redraws on the main one, so an app that
  // is slow to answer never freezes the window.
  void refreshSoon();
  // Runs a request off the main thread, then shows its outcome and redraws.
  void send(const std::string& cmd, json args);

  // Draws the panel into a PNG at `path` without showing a window; false
  // with `error` in plain words when it can't.
  bool saveSnapshot(const std::string& path, std::string& error);

 private:
  // panel_window.cpp: the window's frame and the redraw from a reply.
  void build();
  void apply(const json& panel, const json& schema);
  void say(const std::string& text, bool bad = false);

  // panel_pages.cpp: the pages that show the app's state.
  void buildNow(const json& p);
  void addBattery(GtkBox* box, const json& p);
  void buildPower(const json& p);
  void buildSetup(const json& p);

  // panel_settings.cpp: the settings and what a change of one asks first.
  void buildSettings(const json& schema, const json& p);
  void settingRow(GtkWidget* box, const json& s);
  GtkWidget* settingSwitch(const std::string& key, const json& value);
  GtkWidget* settingChoice(const std::string& key, const json& value, const json& s);
  void change(const std::string& key, const json& value, const json& current);
  void confirm(const std::string& question, const std::string& detail, const std::string& yes,
               std::function<void()> then);
  void runSetup(const std::vector<std::string>& words);
  void runScript();

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

}  // namespace vigilo::gtkpanel
