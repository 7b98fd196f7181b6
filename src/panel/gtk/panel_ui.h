#pragma once

// The small pieces the panel's pages are made of: reading the app's JSON
// replies and making the GTK widgets every page uses. Main thread only, as
// all of GTK.

#include <gtk/gtk.h>

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

namespace vigilo::gtkpanel {

using json = nlohmann::json;

// The text at `key`, empty when it is missing or not text.
std::string str(const json& j, const char* key);
// Whether `key` is there and not null.
bool has(const json& j, const char* key);
// `v` with `digits` decimals.
std::string fixed(double v, int digits);
// "battery_floor" → "Battery floor".
std::string title(const std::string& key);

// Removes every child of a box.
void clear(GtkWidget* box);
// A left-aligned, wrapping label.
GtkWidget* label(const std::string& text, const char* cssClass = nullptr);
GtkWidget* heading(const std::string& text);
GtkWidget* vbox(int spacing);
GtkWidget* hbox(int spacing);
// A button that runs `fn` on every click; `fn` lives as long as the button.
GtkWidget* button(const std::string& text, std::function<void()> fn);
// `content` in a vertically scrolling page with margins.
GtkWidget* scrolled(GtkWidget* content);

}  // namespace vigilo::gtkpanel
