// The request plumbing: every request to the app runs on a worker thread,
// and its reply is handed back to GTK's main thread to be drawn.

#include <thread>
#include <utility>

#include "panel/gtk/panel_window.h"
#include "panel/panel_abi.h"
#include "platform/text.h"

namespace vigilo::gtkpanel {
namespace {

constexpr double kRequestTimeout = 3.0;

const VigiloPanelHost* gHost = nullptr;

}  // namespace

void setHost(const VigiloPanelHost* host) { gHost = host; }

json call(const std::string& cmd, const json& args) {
  char* text = gHost->request(gHost->context, cmd.c_str(), vigilo::dumpJson(args).c_str(), kRequestTimeout);
  if (text == nullptr) return {{"ok", false}, {"error", "Vigilo didn't answer"}};
  json reply = json::parse(text, nullptr, false);
  gHost->release(text);
  if (!reply.is_object()) return {{"ok", false}, {"error", "Vigilo answered something unreadable"}};
  return reply;
}

void Panel::refreshNow() { apply(call("panel"), call("schema")); }

void Panel::refreshSoon() {
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

void Panel::send(const std::string& cmd, json args) {
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

}  // namespace vigilo::gtkpanel
