// The tray item over the session bus: org.kde.StatusNotifierItem for the
// icon, tooltip and label, com.canonical.dbusmenu for the quick menu. Both
// are plain D-Bus interfaces, so no toolkit is needed; every call is
// asynchronous and the bus is driven from the app's run loop.

#include <poll.h>
#include <systemd/sd-bus.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/desktop.h"
#include "platform/linux/linux_desktop.h"
#include "platform/linux/session_bus.h"

// From the libsystemd loader.
extern "C" const unsigned* vigilo_sd_bus_vtable_format();

namespace vigilo {
namespace {

constexpr const char* kItemPath = "/StatusNotifierItem";
constexpr const char* kItemInterface = "org.kde.StatusNotifierItem";
constexpr const char* kMenuPath = "/MenuBar";
constexpr const char* kMenuInterface = "com.canonical.dbusmenu";
constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
constexpr const char* kWatcherPath = "/StatusNotifierWatcher";
constexpr std::uint64_t kCallTimeoutMicros = 2'000'000;
// A lost session bus is tried again this often.
constexpr double kReconnectSeconds = 30.0;

const std::string kNoWatcher =
    "the tray icon isn't shown: nothing on the session bus shows tray items (no StatusNotifierWatcher; "
    "GNOME needs the AppIndicator extension)";


// The start entry names the library's format marker, which only exists once
// libsystemd is loaded, so it is filled in at run time.
const sd_bus_vtable* withStart(sd_bus_vtable* table) {
  if (table[0].type != _SD_BUS_VTABLE_START) {
    std::memset(static_cast<void*>(&table[0]), 0, sizeof table[0]);
    table[0].type = _SD_BUS_VTABLE_START;
    table[0].x.start.element_size = sizeof(sd_bus_vtable);
    table[0].x.start.features = _SD_BUS_VTABLE_PARAM_NAMES;
    table[0].x.start.vtable_format_reference = vigilo_sd_bus_vtable_format();
  }
  return table;
}

// Why the session bus can't be reached, in words: sd-bus says "No medium
// found" when neither variable tells it where the bus is.
std::string noSessionBus(int r) {
  if (!sessionBusNamed()) {
    return "no D-Bus session bus to show it on (neither DBUS_SESSION_BUS_ADDRESS nor XDG_RUNTIME_DIR is set, as "
           "over SSH or in a container)";
  }
  return "no D-Bus session bus to show it on (" + errnoMessage("connecting to the session bus", -r) + ")";
}

std::uint64_t monotonicMicros() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
}

// DBusMenu reads "_" as the mark of an access key.
std::string menuLabel(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c;
    if (c == '_') out += '_';
  }
  return out;
}

// What a host sees of one item; compared to tell a property change from a
// change of the menu's shape.
struct ItemState {
  bool separator = false;
  std::string label;
  bool enabled = true;
  bool radio = false;
  bool checked = false;
  bool submenu = false;
  bool operator==(const ItemState&) const = default;
};

ItemState stateOf(const TrayMenuItem& i) {
  ItemState s;
  s.separator = i.kind == TrayMenuItem::Kind::Separator;
  s.label = menuLabel(i.label);
  s.enabled = i.enabled;
  s.radio = i.toggle == TrayMenuItem::Toggle::Radio;
  s.checked = i.checked;
  s.submenu = !i.children.empty();
  return s;
}

class SessionTray final : public Tray {
 public:
  SessionTray(RunLoop& loop, std::function<TrayView()> view, std::function<void(const TrayAction&)> act,
              std::string iconThemePath)
      : loop_(loop), view_(std::move(view)), act_(std::move(act)), iconThemePath_(std::move(iconThemePath)) {
    connect();
  }

  ~SessionTray() override {
    *alive_ = false;
    if (reconnectTimer_) loop_.cancel(*reconnectTimer_);
    disconnect();
  }

  void refresh() override {
    if (!bus_) return;
    TrayView next = view_();
    const bool first = !shown_;
    shown_ = true;
    if (!first) {
      if (next.icon != view_now_.icon) {
        emit(kItemPath, kItemInterface, "NewIcon");
        emit(kItemPath, kItemInterface, "NewAttentionIcon");
      }
      if (next.tooltip != view_now_.tooltip) emit(kItemPath, kItemInterface, "NewToolTip");
      if (next.title != view_now_.title) emitLabel(next.title);
      if (statusOf(next) != statusOf(view_now_)) emitStatus(statusOf(next));
    }
    view_now_ = std::move(next);
    updateMenu(first);
    pump();
  }

  std::string problem() const override { return problem_; }

 private:
  // --- Connection.

  void connect() {
    sd_bus* raw = nullptr;
    // The session bus of DBUS_SESSION_BUS_ADDRESS, else the user's bus in
    // $XDG_RUNTIME_DIR: where the desktop's tray host listens.
    const int r = sd_bus_open_user(&raw);
    if (r < 0 || raw == nullptr) {
      problem_ = "the tray icon isn't shown: " + noSessionBus(r);
      // The desktop session may come later (a user service started before
      // login); trying costs one failed connect. Where no bus is named at
      // all, no later try can find one.
      if (sessionBusNamed()) reconnectLater();
      return;
    }
    bus_.reset(raw);
    sd_bus_set_method_call_timeout(raw, kCallTimeoutMicros);
    name_ = "org.kde.StatusNotifierItem-" + std::to_string(::getpid()) + "-1";
    sd_bus_slot* slot = nullptr;
    if (sd_bus_add_object_vtable(raw, &slot, kItemPath, kItemInterface, itemVtable(), this) < 0) {
      return fail("couldn't offer the tray item on the session bus");
    }
    slots_.emplace_back(slot);
    if (sd_bus_add_object_vtable(raw, &slot, kMenuPath, kMenuInterface, menuVtable(), this) < 0) {
      return fail("couldn't offer the tray menu on the session bus");
    }
    slots_.emplace_back(slot);
    // A tray host that starts later (the desktop came up after the app,
    // or was restarted) owns the watcher's name anew: register again then.
    if (sd_bus_match_signal_async(raw, &slot, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                  "org.freedesktop.DBus", "NameOwnerChanged", &SessionTray::onOwnerChanged, nullptr,
                                  this) < 0) {
      return fail("couldn't follow the tray host on the session bus");
    }
    slots_.emplace_back(slot);
    if (sd_bus_request_name_async(raw, &slot, name_.c_str(), 0, &SessionTray::onNameAcquired, this) < 0) {
      return fail("couldn't name the tray item on the session bus");
    }
    slots_.emplace_back(slot);
    const int fd = sd_bus_get_fd(raw);
    if (fd >= 0) {
      std::weak_ptr<bool> alive = alive_;
      watch_ = loop_.watchReadable(fd, [this, alive] {
        if (auto a = alive.lock(); a && *a) pump();
      });
    }
    pump();
  }

  void fail(const std::string& what) {
    problem_ = "the tray icon isn't shown: " + what;
    disconnect();
  }

  void disconnect() {
    if (watch_) loop_.unwatch(*watch_);
    watch_.reset();
    if (pumpTimer_) loop_.cancel(*pumpTimer_);
    pumpTimer_.reset();
    registerSlot_.reset();
    slots_.clear();
    bus_.reset();
    shown_ = false;
  }

  // Processes what the bus has for us and writes what is queued, then asks
  // the loop to come back when sd-bus has a deadline or unsent bytes.
  void pump() {
    if (!bus_ || pumping_) return;
    pumping_ = true;
    int r = 0;
    for (int i = 0; i < 256; ++i) {
      r = sd_bus_process(bus_.get(), nullptr);
      if (r <= 0) break;
    }
    pumping_ = false;
    if (r < 0 && r != -EBUSY) {
      problem_ = "the tray icon isn't shown: lost the session bus (" + errnoMessage("reading the session bus", -r) +
                 "); trying again every 30 s";
      disconnect();
      reconnectLater();
      return;
    }
    scheduleWakeup();
  }

  void reconnectLater() {
    if (reconnectTimer_) return;
    std::weak_ptr<bool> alive = alive_;
    reconnectTimer_ = loop_.after(kReconnectSeconds, [this, alive] {
      if (auto a = alive.lock(); a && *a) {
        reconnectTimer_.reset();
        connect();
      }
    });
  }

  void scheduleWakeup() {
    if (pumpTimer_) loop_.cancel(*pumpTimer_);
    pumpTimer_.reset();
    double delay = -1;
    const int events = sd_bus_get_events(bus_.get());
    if (events > 0 && (events & POLLOUT) != 0) delay = 0.01;
    std::uint64_t until = 0;
    if (sd_bus_get_timeout(bus_.get(), &until) >= 0 && until != UINT64_MAX) {
      const std::uint64_t now = monotonicMicros();
      const double d = until > now ? static_cast<double>(until - now) / 1e6 : 0.0;
      delay = delay < 0 ? d : std::min(delay, d);
    }
    if (delay < 0) return;
    std::weak_ptr<bool> alive = alive_;
    pumpTimer_ = loop_.after(delay, [this, alive] {
      if (auto a = alive.lock(); a && *a) {
        pumpTimer_.reset();
        pump();
      }
    });
  }

  // --- Registration with the watcher.

  static int onNameAcquired(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    if (sd_bus_message_is_method_error(m, nullptr)) {
      const sd_bus_error* e = sd_bus_message_get_error(m);
      self->problem_ = "the tray icon isn't shown: the session bus refused its name (" +
                       std::string(e != nullptr && e->message != nullptr ? e->message : "no reason given") + ")";
      return 0;
    }
    self->registerItem();
    return 0;
  }

  static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    const char *name = nullptr, *before = nullptr, *after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0 || name == nullptr) return 0;
    if (std::string(name) != kWatcher) return 0;
    if (after != nullptr && *after != '\0') {
      self->registerItem();
    } else {
      self->registered_ = false;
      self->problem_ = kNoWatcher;
    }
    return 0;
  }

  void registerItem() {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus_.get(), &raw, kWatcher, kWatcherPath, kWatcher,
                                       "RegisterStatusNotifierItem") < 0) {
      return;
    }
    Message call(raw);
    if (sd_bus_message_append(call.get(), "s", name_.c_str()) < 0) return;
    sd_bus_slot* slot = nullptr;
    if (sd_bus_call_async(bus_.get(), &slot, call.get(), &SessionTray::onRegistered, this, kCallTimeoutMicros) < 0) {
      return;
    }
    registerSlot_.reset(slot);
  }

  static int onRegistered(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    if (sd_bus_message_is_method_error(m, nullptr)) {
      const sd_bus_error* e = sd_bus_message_get_error(m);
      self->registered_ = false;
      if (sd_bus_error_has_names(e, SD_BUS_ERROR_SERVICE_UNKNOWN, SD_BUS_ERROR_NAME_HAS_NO_OWNER)) {
        self->problem_ = kNoWatcher;
      } else {
        self->problem_ = "the tray icon isn't shown: the tray host refused it (" +
                         std::string(e != nullptr && e->message != nullptr ? e->message : "no reason given") + ")";
      }
      return 0;
    }
    self->registered_ = true;
    self->problem_.clear();
    return 0;
  }

  // --- The item.

  static std::string statusOf(const TrayView& v) {
    return v.icon == TrayIcon::NeedsSetup ? "NeedsAttention" : "Active";
  }

  void emit(const char* path, const char* interface, const char* member) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(bus_.get(), &raw, path, interface, member) < 0) return;
    Message m(raw);
    sd_bus_send(bus_.get(), m.get(), nullptr);
  }

  void emitStatus(const std::string& status) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(bus_.get(), &raw, kItemPath, kItemInterface, "NewStatus") < 0) return;
    Message m(raw);
    if (sd_bus_message_append(m.get(), "s", status.c_str()) >= 0) sd_bus_send(bus_.get(), m.get(), nullptr);
  }

  void emitLabel(const std::string& title) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(bus_.get(), &raw, kItemPath, kItemInterface, "XAyatanaNewLabel") < 0) return;
    Message m(raw);
    if (sd_bus_message_append(m.get(), "ss", title.c_str(), "") >= 0) sd_bus_send(bus_.get(), m.get(), nullptr);
  }

  static int itemProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                          void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    if (!self->shown_) self->refresh();
    const TrayView& v = self->view_now_;
    const std::string p = property;
    if (p == "Category") return sd_bus_message_append(reply, "s", "ApplicationStatus");
    if (p == "Id") return sd_bus_message_append(reply, "s", "vigilo");
    if (p == "Title") return sd_bus_message_append(reply, "s", "Vigilo");
    if (p == "Status") return sd_bus_message_append(reply, "s", statusOf(v).c_str());
    if (p == "IconName") return sd_bus_message_append(reply, "s", std::string(iconName(v.icon)).c_str());
    if (p == "IconThemePath") return sd_bus_message_append(reply, "s", self->iconThemePath_.c_str());
    // Hosts show the attention icon while the status asks for attention.
    if (p == "AttentionIconName") return sd_bus_message_append(reply, "s", std::string(iconName(v.icon)).c_str());
    if (p == "OverlayIconName" || p == "XAyatanaLabelGuide") {
      return sd_bus_message_append(reply, "s", "");
    }
    if (p == "XAyatanaLabel") return sd_bus_message_append(reply, "s", v.title.c_str());
    if (p == "ItemIsMenu") return sd_bus_message_append(reply, "b", 1);
    if (p == "Menu") return sd_bus_message_append(reply, "o", kMenuPath);
    if (p == "IconPixmap" || p == "OverlayIconPixmap" || p == "AttentionIconPixmap") {
      int r = sd_bus_message_open_container(reply, 'a', "(iiay)");
      return r < 0 ? r : sd_bus_message_close_container(reply);
    }
    if (p == "ToolTip") {
      // (icon name, icon pixmaps, title, text)
      int r = sd_bus_message_open_container(reply, 'r', "sa(iiay)ss");
      if (r >= 0) r = sd_bus_message_append(reply, "s", std::string(iconName(v.icon)).c_str());
      if (r >= 0) r = sd_bus_message_open_container(reply, 'a', "(iiay)");
      if (r >= 0) r = sd_bus_message_close_container(reply);
      if (r >= 0) r = sd_bus_message_append(reply, "ss", "Vigilo", v.tooltip.c_str());
      if (r >= 0) r = sd_bus_message_close_container(reply);
      return r;
    }
    return -ENOENT;
  }

  // Clicks on the icon itself: the menu is the item (ItemIsMenu), and there
  // is no panel to open yet, so they are acknowledged and do nothing.
  static int ignoreCall(sd_bus_message* m, void*, sd_bus_error*) { return replyEmpty(m); }

  static int replyEmpty(sd_bus_message* m) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(m, &raw);
    if (r < 0) return r;
    Message reply(raw);
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  static const sd_bus_vtable* itemVtable() {
    static sd_bus_vtable table[] = {
        {},  // the start entry, filled in by withStart
        SD_BUS_PROPERTY("Category", "s", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Id", "s", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Title", "s", itemProperty, 0, 0),
        SD_BUS_PROPERTY("Status", "s", itemProperty, 0, 0),
        SD_BUS_PROPERTY("IconName", "s", itemProperty, 0, 0),
        SD_BUS_PROPERTY("IconPixmap", "a(iiay)", itemProperty, 0, 0),
        SD_BUS_PROPERTY("IconThemePath", "s", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("OverlayIconName", "s", itemProperty, 0, 0),
        SD_BUS_PROPERTY("OverlayIconPixmap", "a(iiay)", itemProperty, 0, 0),
        SD_BUS_PROPERTY("AttentionIconName", "s", itemProperty, 0, 0),
        SD_BUS_PROPERTY("AttentionIconPixmap", "a(iiay)", itemProperty, 0, 0),
        SD_BUS_PROPERTY("ToolTip", "(sa(iiay)ss)", itemProperty, 0, 0),
        SD_BUS_PROPERTY("ItemIsMenu", "b", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Menu", "o", itemProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("XAyatanaLabel", "s", itemProperty, 0, 0),
        SD_BUS_PROPERTY("XAyatanaLabelGuide", "s", itemProperty, 0, 0),
        SD_BUS_METHOD("ContextMenu", "ii", "", ignoreCall, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Activate", "ii", "", ignoreCall, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("SecondaryActivate", "ii", "", ignoreCall, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Scroll", "is", "", ignoreCall, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("NewTitle", "", 0),
        SD_BUS_SIGNAL("NewIcon", "", 0),
        SD_BUS_SIGNAL("NewAttentionIcon", "", 0),
        SD_BUS_SIGNAL("NewOverlayIcon", "", 0),
        SD_BUS_SIGNAL("NewToolTip", "", 0),
        SD_BUS_SIGNAL("NewStatus", "s", 0),
        SD_BUS_SIGNAL("XAyatanaNewLabel", "ss", 0),
        SD_BUS_VTABLE_END,
    };
    return withStart(table);
  }

  // --- The menu.

  // Gives each item a number that stays its own while its key lives, and
  // tells the host what changed: the whole layout when the shape changed,
  // else only the items whose properties did.
  void updateMenu(bool first) {
    std::map<int, const TrayMenuItem*> items;
    std::map<int, ItemState> states;
    std::string shape;
    number(view_now_.menu, items, states, shape);
    const bool reshaped = !first && shape != shape_;
    std::vector<int> changed;
    if (!first && !reshaped) {
      for (const auto& [id, s] : states) {
        auto old = states_.find(id);
        if (old == states_.end() || !(old->second == s)) changed.push_back(id);
      }
    }
    items_ = std::move(items);
    states_ = std::move(states);
    shape_ = std::move(shape);
    // Numbers are never reused, so a gone item's number can be forgotten.
    for (auto it = ids_.begin(); it != ids_.end();) {
      it = items_.count(it->second) == 0 ? ids_.erase(it) : std::next(it);
    }
    if (reshaped) {
      ++revision_;
      emitLayoutUpdated();
    } else if (!changed.empty()) {
      emitPropertiesUpdated(changed);
    }
  }

  void number(const std::vector<TrayMenuItem>& menu, std::map<int, const TrayMenuItem*>& items,
              std::map<int, ItemState>& states, std::string& shape) {
    shape += '(';
    for (const TrayMenuItem& i : menu) {
      auto [it, fresh] = ids_.try_emplace(i.key, nextId_);
      if (fresh) ++nextId_;
      items[it->second] = &i;
      states[it->second] = stateOf(i);
      shape += std::to_string(it->second) + ',';
      if (!i.children.empty()) number(i.children, items, states, shape);
    }
    shape += ')';
  }

  const std::vector<TrayMenuItem>* childrenOf(int id) const {
    if (id == 0) return &view_now_.menu;
    auto it = items_.find(id);
    return it == items_.end() ? nullptr : &it->second->children;
  }

  static bool wanted(const std::vector<std::string>& names, const char* name) {
    if (names.empty()) return true;
    for (const auto& n : names) {
      if (n == name) return true;
    }
    return false;
  }

  // a{sv} of one item, the root (null) included.
  static int appendProperties(sd_bus_message* m, const TrayMenuItem* item, const std::vector<std::string>& names) {
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    auto add = [&](const char* key, const char* type, auto value) {
      if (r < 0 || !wanted(names, key)) return;
      r = sd_bus_message_append(m, "{sv}", key, type, value);
    };
    if (item == nullptr) {
      add("children-display", "s", "submenu");
    } else if (item->kind == TrayMenuItem::Kind::Separator) {
      add("type", "s", "separator");
    } else {
      const std::string text = menuLabel(item->label);
      add("label", "s", text.c_str());
      add("enabled", "b", static_cast<int>(item->enabled));
      add("visible", "b", 1);
      if (item->toggle == TrayMenuItem::Toggle::Radio) {
        add("toggle-type", "s", "radio");
        add("toggle-state", "i", item->checked ? 1 : 0);
      }
      if (!item->children.empty()) add("children-display", "s", "submenu");
    }
    if (r < 0) return r;
    return sd_bus_message_close_container(m);
  }

  // (ia{sv}av) of one item and, `depth` levels down (-1: all), its children.
  int appendLayout(sd_bus_message* m, int id, const TrayMenuItem* item, int depth,
                   const std::vector<std::string>& names) {
    int r = sd_bus_message_open_container(m, 'r', "ia{sv}av");
    if (r >= 0) r = sd_bus_message_append(m, "i", id);
    if (r >= 0) r = appendProperties(m, item, names);
    if (r >= 0) r = sd_bus_message_open_container(m, 'a', "v");
    const std::vector<TrayMenuItem>* children = item == nullptr ? &view_now_.menu : &item->children;
    if (depth != 0) {
      for (const TrayMenuItem& child : *children) {
        if (r < 0) break;
        r = sd_bus_message_open_container(m, 'v', "(ia{sv}av)");
        if (r >= 0) r = appendLayout(m, ids_.at(child.key), &child, depth < 0 ? -1 : depth - 1, names);
        if (r >= 0) r = sd_bus_message_close_container(m);
      }
    }
    if (r >= 0) r = sd_bus_message_close_container(m);
    if (r >= 0) r = sd_bus_message_close_container(m);
    return r;
  }

  static int readStrings(sd_bus_message* m, std::vector<std::string>& out) {
    int r = sd_bus_message_enter_container(m, 'a', "s");
    if (r < 0) return r;
    const char* s = nullptr;
    while ((r = sd_bus_message_read(m, "s", &s)) > 0) out.emplace_back(s);
    if (r < 0) return r;
    return sd_bus_message_exit_container(m);
  }

  static int getLayout(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<SessionTray*>(userdata);
    if (!self->shown_) self->refresh();
    std::int32_t parent = 0, depth = -1;
    int r = sd_bus_message_read(m, "ii", &parent, &depth);
    std::vector<std::string> names;
    if (r >= 0) r = readStrings(m, names);
    if (r < 0) return r;
    const TrayMenuItem* item = nullptr;
    if (parent != 0) {
      auto it = self->items_.find(parent);
      if (it == self->items_.end()) return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such menu item");
      item = it->second;
    }
    sd_bus_message* raw = nullptr;
    if ((r = sd_bus_message_new_method_return(m, &raw)) < 0) return r;
    Message reply(raw);
    r = sd_bus_message_append(reply.get(), "u", self->revision_);
    if (r >= 0) r = self->appendLayout(reply.get(), parent, item, depth, names);
    if (r < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  static int getGroupProperties(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    if (!self->shown_) self->refresh();
    std::vector<std::int32_t> ids;
    int r = sd_bus_message_enter_container(m, 'a', "i");
    std::int32_t id = 0;
    while (r >= 0 && (r = sd_bus_message_read(m, "i", &id)) > 0) ids.push_back(id);
    if (r >= 0) r = sd_bus_message_exit_container(m);
    std::vector<std::string> names;
    if (r >= 0) r = readStrings(m, names);
    if (r < 0) return r;
    sd_bus_message* raw = nullptr;
    if ((r = sd_bus_message_new_method_return(m, &raw)) < 0) return r;
    Message reply(raw);
    r = sd_bus_message_open_container(reply.get(), 'a', "(ia{sv})");
    for (std::int32_t want : ids) {
      if (r < 0) break;
      const TrayMenuItem* item = nullptr;
      if (want != 0) {
        auto it = self->items_.find(want);
        if (it == self->items_.end()) continue;
        item = it->second;
      }
      r = sd_bus_message_open_container(reply.get(), 'r', "ia{sv}");
      if (r >= 0) r = sd_bus_message_append(reply.get(), "i", want);
      if (r >= 0) r = appendProperties(reply.get(), item, names);
      if (r >= 0) r = sd_bus_message_close_container(reply.get());
    }
    if (r >= 0) r = sd_bus_message_close_container(reply.get());
    if (r < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  static int getProperty(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<SessionTray*>(userdata);
    std::int32_t id = 0;
    const char* name = nullptr;
    int r = sd_bus_message_read(m, "is", &id, &name);
    if (r < 0) return r;
    auto it = self->items_.find(id);
    if (id != 0 && it == self->items_.end()) {
      return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such menu item");
    }
    const TrayMenuItem* item = id == 0 ? nullptr : it->second;
    const std::string n = name;
    sd_bus_message* raw = nullptr;
    if ((r = sd_bus_message_new_method_return(m, &raw)) < 0) return r;
    Message reply(raw);
    if (n == "label" && item != nullptr) {
      r = sd_bus_message_append(reply.get(), "v", "s", menuLabel(item->label).c_str());
    } else if (n == "enabled" && item != nullptr) {
      r = sd_bus_message_append(reply.get(), "v", "b", static_cast<int>(item->enabled));
    } else if (n == "toggle-state" && item != nullptr && item->toggle == TrayMenuItem::Toggle::Radio) {
      r = sd_bus_message_append(reply.get(), "v", "i", item->checked ? 1 : 0);
    } else {
      return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such property");
    }
    if (r < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  // Runs a click later, from the loop: the engine then changes outside any
  // bus callback, and the signals it causes go out at once.
  void clicked(std::int32_t id) {
    auto it = items_.find(id);
    if (it == items_.end() || !it->second->enabled || !it->second->action) return;
    TrayAction action = *it->second->action;
    std::weak_ptr<bool> alive = alive_;
    loop_.post([this, alive, action] {
      if (auto a = alive.lock(); a && *a) act_(action);
    });
  }

  static int event(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    std::int32_t id = 0;
    const char* kind = nullptr;
    int r = sd_bus_message_read(m, "is", &id, &kind);
    if (r < 0) return r;
    if (kind != nullptr && std::string(kind) == "clicked") self->clicked(id);
    return replyEmpty(m);
  }

  static int eventGroup(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    int r = sd_bus_message_enter_container(m, 'a', "(isvu)");
    std::vector<std::int32_t> unknown;
    while (r >= 0 && (r = sd_bus_message_enter_container(m, 'r', "isvu")) > 0) {
      std::int32_t id = 0;
      const char* kind = nullptr;
      if ((r = sd_bus_message_read(m, "is", &id, &kind)) < 0) break;
      if ((r = sd_bus_message_skip(m, "vu")) < 0) break;
      if ((r = sd_bus_message_exit_container(m)) < 0) break;
      if (self->items_.count(id) == 0) {
        unknown.push_back(id);
      } else if (std::string(kind) == "clicked") {
        self->clicked(id);
      }
    }
    if (r < 0) return r;
    sd_bus_message* raw = nullptr;
    if ((r = sd_bus_message_new_method_return(m, &raw)) < 0) return r;
    Message reply(raw);
    r = sd_bus_message_open_container(reply.get(), 'a', "i");
    for (std::int32_t id : unknown) {
      if (r >= 0) r = sd_bus_message_append(reply.get(), "i", id);
    }
    if (r >= 0) r = sd_bus_message_close_container(reply.get());
    if (r < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  // The menu is kept current as the engine changes, so a host about to show
  // it never needs to fetch it again.
  static int aboutToShow(sd_bus_message* m, void*, sd_bus_error*) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(m, &raw);
    if (r < 0) return r;
    Message reply(raw);
    if ((r = sd_bus_message_append(reply.get(), "b", 0)) < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  static int aboutToShowGroup(sd_bus_message* m, void*, sd_bus_error*) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(m, &raw);
    if (r < 0) return r;
    Message reply(raw);
    for (int i = 0; i < 2 && r >= 0; ++i) {
      r = sd_bus_message_open_container(reply.get(), 'a', "i");
      if (r >= 0) r = sd_bus_message_close_container(reply.get());
    }
    if (r < 0) return r;
    return sd_bus_send(nullptr, reply.get(), nullptr);
  }

  static int menuProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                          void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    const std::string p = property;
    if (p == "Version") return sd_bus_message_append(reply, "u", 3u);
    if (p == "TextDirection") return sd_bus_message_append(reply, "s", "ltr");
    if (p == "Status") return sd_bus_message_append(reply, "s", "normal");
    if (p == "IconThemePath") {
      int r = sd_bus_message_open_container(reply, 'a', "s");
      if (r >= 0 && !self->iconThemePath_.empty()) r = sd_bus_message_append(reply, "s", self->iconThemePath_.c_str());
      return r < 0 ? r : sd_bus_message_close_container(reply);
    }
    return -ENOENT;
  }

  void emitLayoutUpdated() {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(bus_.get(), &raw, kMenuPath, kMenuInterface, "LayoutUpdated") < 0) return;
    Message m(raw);
    if (sd_bus_message_append(m.get(), "ui", revision_, 0) >= 0) sd_bus_send(bus_.get(), m.get(), nullptr);
  }

  void emitPropertiesUpdated(const std::vector<int>& ids) {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_signal(bus_.get(), &raw, kMenuPath, kMenuInterface, "ItemsPropertiesUpdated") < 0) return;
    Message m(raw);
    int r = sd_bus_message_open_container(m.get(), 'a', "(ia{sv})");
    for (int id : ids) {
      if (r >= 0) r = sd_bus_message_open_container(m.get(), 'r', "ia{sv}");
      if (r >= 0) r = sd_bus_message_append(m.get(), "i", id);
      if (r >= 0) r = appendProperties(m.get(), items_.at(id), {});
      if (r >= 0) r = sd_bus_message_close_container(m.get());
    }
    if (r >= 0) r = sd_bus_message_close_container(m.get());
    // Nothing is ever removed from an item's properties.
    if (r >= 0) r = sd_bus_message_open_container(m.get(), 'a', "(ias)");
    if (r >= 0) r = sd_bus_message_close_container(m.get());
    if (r >= 0) sd_bus_send(bus_.get(), m.get(), nullptr);
  }

  static const sd_bus_vtable* menuVtable() {
    static sd_bus_vtable table[] = {
        {},  // the start entry, filled in by withStart
        SD_BUS_PROPERTY("Version", "u", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("TextDirection", "s", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("Status", "s", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("IconThemePath", "as", menuProperty, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_METHOD("GetLayout", "iias", "u(ia{sv}av)", getLayout, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("GetGroupProperties", "aias", "a(ia{sv})", getGroupProperties, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("GetProperty", "is", "v", getProperty, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Event", "isvu", "", event, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("EventGroup", "a(isvu)", "ai", eventGroup, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("AboutToShow", "i", "b", aboutToShow, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("AboutToShowGroup", "ai", "aiai", aboutToShowGroup, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_SIGNAL("ItemsPropertiesUpdated", "a(ia{sv})a(ias)", 0),
        SD_BUS_SIGNAL("LayoutUpdated", "ui", 0),
        SD_BUS_SIGNAL("ItemActivationRequested", "iu", 0),
        SD_BUS_VTABLE_END,
    };
    return withStart(table);
  }

  RunLoop& loop_;
  std::function<TrayView()> view_;
  std::function<void(const TrayAction&)> act_;
  std::string iconThemePath_;
  Bus bus_;
  std::vector<Slot> slots_;
  Slot registerSlot_;
  std::optional<WatchId> watch_;
  std::optional<TimerId> pumpTimer_;
  std::optional<TimerId> reconnectTimer_;
  bool pumping_ = false;
  std::string name_;
  std::string problem_;
  bool registered_ = false;

  bool shown_ = false;
  TrayView view_now_;
  std::map<std::string, int> ids_;
  int nextId_ = 1;
  std::map<int, const TrayMenuItem*> items_;
  std::map<int, ItemState> states_;
  std::string shape_;
  std::uint32_t revision_ = 1;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};

}  // namespace

std::unique_ptr<Tray> makeSessionTray(RunLoop& loop, std::function<TrayView()> view,
                                      std::function<void(const TrayAction&)> act, std::string iconThemePath) {
  return std::make_unique<SessionTray>(loop, std::move(view), std::move(act), std::move(iconThemePath));
}

std::optional<std::string> sessionTrayUnavailable() {
  sd_bus* raw = nullptr;
  const int r = sd_bus_open_user(&raw);
  if (r < 0 || raw == nullptr) {
    return "tray icon: " + noSessionBus(r);
  }
  Bus bus(raw);
  sd_bus_set_method_call_timeout(raw, 1'000'000);
  sd_bus_error error = SD_BUS_ERROR_NULL;
  sd_bus_message* reply = nullptr;
  const int c = sd_bus_call_method(raw, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner", &error, &reply, "s", kWatcher);
  Message answer(reply);
  std::string why = error.message != nullptr ? error.message : errnoMessage("asking the session bus", -c);
  sd_bus_error_free(&error);
  if (c < 0) return "tray icon: the session bus didn't answer (" + why + ")";
  int owned = 0;
  if (sd_bus_message_read(answer.get(), "b", &owned) < 0 || owned == 0) {
    return "tray icon: nothing on the session bus shows tray items (no StatusNotifierWatcher; GNOME needs the "
           "AppIndicator extension)";
  }
  return std::nullopt;
}

}  // namespace vigilo
