// The module's entry point: `vigilo panel`'s words, the control descriptor
// the running app speaks on, and either one snapshot or the window's loop.

#include <glib-unix.h>
#include <gtk/gtk.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "panel/gtk/panel_window.h"
#include "panel/panel_abi.h"

namespace {

using vigilo::gtkpanel::Panel;

constexpr guint kRefreshMs = 2000;

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
  vigilo::gtkpanel::setHost(host);
  Options o;
  if (!parse(argc, argv, o)) return 2;
  if (!o.snapshot.empty() && (o.snapshot.size() < 4 || o.snapshot.compare(o.snapshot.size() - 4, 4, ".png") != 0)) {
    std::fprintf(stderr, "vigilo: snapshot name must end in .png\n");
    return 2;
  }
  // A picture needs no GPU: the software renderer draws the same on every
  // machine, Xvfb included (a renderer the person chose still wins).
  if (!o.snapshot.empty()) g_setenv("GSK_RENDERER", "cairo", FALSE);
  // The program name is the window's WM_CLASS on X11 and its app id on
  // Wayland: the desktop matches it to vigilo.desktop (StartupWMClass) for
  // the window's icon and name in the task switcher.
  g_set_prgname("vigilo");
  g_set_application_name("Vigilo");
  if (!gtk_init_check()) {
    std::fprintf(stderr,
                 "vigilo: the panel needs a graphical session, and none is reachable here (DISPLAY or "
                 "WAYLAND_DISPLAY)\n");
    return 1;
  }
  g_object_set(gtk_settings_get_default(), "gtk-enable-animations", FALSE, nullptr);
  vigilo::gtkpanel::useVigiloIcon();
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
