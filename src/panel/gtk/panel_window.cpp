// The window's frame (status line, message line, tabs), its redraw from the
// app's reply, and the snapshot drawn without showing it.

#include "panel/gtk/panel_window.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>

namespace vigilo::gtkpanel {
namespace {

// The size the window opens at; a snapshot has its width, and its height
// or more.
constexpr int kWidth = 640;
constexpr int kHeight = 620;

// What the desktop chose before the setting changed anything, to go back
// to for "system".
struct DesktopLook {
  bool preferDark = false;
  std::string theme;
};

DesktopLook desktopLook() {
  static const DesktopLook look = [] {
    DesktopLook l;
    gboolean dark = FALSE;
    gchar* theme = nullptr;
    g_object_get(gtk_settings_get_default(), "gtk-application-prefer-dark-theme", &dark, "gtk-theme-name", &theme,
                 nullptr);
    l.preferDark = dark != FALSE;
    l.theme = theme != nullptr ? theme : "";
    g_free(theme);
    // GNOME keeps its light/dark choice in the desktop's interface settings,
    // which GTK 4 itself doesn't read.
    GSettingsSchemaSource* source = g_settings_schema_source_get_default();
    GSettingsSchema* schema =
        source != nullptr ? g_settings_schema_source_lookup(source, "org.gnome.desktop.interface", TRUE) : nullptr;
    if (schema != nullptr && g_settings_schema_has_key(schema, "color-scheme")) {
      GSettings* settings = g_settings_new("org.gnome.desktop.interface");
      gchar* scheme = g_settings_get_string(settings, "color-scheme");
      if (scheme != nullptr && std::string(scheme) == "prefer-dark") l.preferDark = true;
      g_free(scheme);
      g_object_unref(settings);
    }
    if (schema != nullptr) g_settings_schema_unref(schema);
    return l;
  }();
  return look;
}

}  // namespace

void useVigiloIcon() {
  // A checkout: build/vigilo beside data/icons.
  if (gchar* exe = g_file_read_link("/proc/self/exe", nullptr)) {
    gchar* bin = g_path_get_dirname(exe);
    gchar* icons = g_build_filename(bin, "..", "data", "icons", nullptr);
    if (g_file_test(icons, G_FILE_TEST_IS_DIR)) {
      gtk_icon_theme_add_search_path(gtk_icon_theme_get_for_display(gdk_display_get_default()), icons);
    }
    g_free(icons);
    g_free(bin);
    g_free(exe);
  }
  gtk_window_set_default_icon_name("vigilo");
}

void followAppearance(const std::string& appearance) {
  const DesktopLook look = desktopLook();
  bool dark = look.preferDark;
  std::string theme = look.theme;
  if (appearance == "dark" || appearance == "light") {
    dark = appearance == "dark";
    // A theme that is dark by name stays dark whatever GTK prefers: light
    // takes its plain variant.
    constexpr std::string_view kDark = "-dark";
    if (!dark && theme.size() > kDark.size() && theme.compare(theme.size() - kDark.size(), kDark.size(), kDark) == 0) {
      theme.resize(theme.size() - kDark.size());
    }
  }
  GtkSettings* settings = gtk_settings_get_default();
  gboolean nowDark = FALSE;
  gchar* nowTheme = nullptr;
  g_object_get(settings, "gtk-application-prefer-dark-theme", &nowDark, "gtk-theme-name", &nowTheme, nullptr);
  // Setting either property restyles every widget: only on a change.
  if ((nowDark != FALSE) != dark) g_object_set(settings, "gtk-application-prefer-dark-theme", dark, nullptr);
  if (!theme.empty() && (nowTheme == nullptr || theme != nowTheme)) {
    g_object_set(settings, "gtk-theme-name", theme.c_str(), nullptr);
  }
  g_free(nowTheme);
}

Panel::Panel(bool snapshotOnly, std::string page) : snapshotOnly_(snapshotOnly), page_(std::move(page)) {
  if (const char* script = std::getenv("VIGILO_PANEL_SCRIPT"); script && *script) script_ = script;
  build();
}

void Panel::showPage(const std::string& page) {
  page_ = page;
  if (page == "setup" || gtk_stack_get_child_by_name(GTK_STACK(stack_), page.c_str()) != nullptr) {
    gtk_stack_set_visible_child_name(GTK_STACK(stack_), page.c_str());
  }
}

void Panel::say(const std::string& text, bool bad) {
  gtk_label_set_text(GTK_LABEL(message_), text.c_str());
  if (bad) {
    gtk_widget_add_css_class(message_, "error");
  } else {
    gtk_widget_remove_css_class(message_, "error");
  }
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
  for (const json& setting : schema.value("settings", json::array())) {
    if (setting.is_object() && setting.value("key", "") == "appearance") followAppearance(str(setting, "value"));
  }
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

}  // namespace vigilo::gtkpanel
