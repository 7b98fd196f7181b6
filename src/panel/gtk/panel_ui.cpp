#include "panel/gtk/panel_ui.h"

#include <cctype>
#include <cstdio>

namespace vigilo::gtkpanel {

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

GtkWidget* label(const std::string& text, const char* cssClass) {
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

namespace {

// A click's work, kept alive by GTK until the widget goes.
struct Click {
  std::function<void()> fn;
};

void onClicked(GtkButton*, gpointer data) { static_cast<Click*>(data)->fn(); }
void freeClick(gpointer data, GClosure*) { delete static_cast<Click*>(data); }

}  // namespace

GtkWidget* button(const std::string& text, std::function<void()> fn) {
  GtkWidget* b = gtk_button_new_with_label(text.c_str());
  g_signal_connect_data(b, "clicked", G_CALLBACK(onClicked), new Click{std::move(fn)}, freeClick, GConnectFlags(0));
  return b;
}

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

}  // namespace vigilo::gtkpanel
