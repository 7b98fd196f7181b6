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
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "platform/result.h"
#include "platform/desktop.h"
#include "platform/linux/dbus_menu.h"
#include "platform/linux/linux_desktop.h"
#include "platform/linux/session_bus.h"

// From the libsystemd loader.
extern "C" const unsigned* vigilo_sd_bus_vtable_format();

namespace vigilo {
namespace {

constexpr const char* kItemPath = "/StatusNotifierItem";
constexpr const char* kItemInterface = "org.kde.StatusNotifierItem";
constexpr const char* kWatcher = "org.kde.StatusNotifierWatcher";
constexpr const char* kWatcherPath = "/StatusNotifierWatcher";
constexpr std::uint64_t kTrayCallTimeoutMicros = 2'000'000;
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

// Whether the tray host paints "-symbolic" icons in its own foreground
// colour. GNOME Shell (St) and Plasma (Kirigami) do; most other hosts draw a
// symbolic file as it is, dark grey, which vanishes on a dark panel, so they
// get the full-colour icons (Xfce's panel asks for symbolic ones itself when
// its own option is on). `program` is the host's process name.
bool hostRecoloursSymbolicIcons(const std::string& program) {
  return program == "gnome-shell" || program == "plasmashell";
}

// The process name of a pid, without the line end; empty when gone.
std::string programOf(std::uint32_t pid) {
  std::ifstream in("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(in, name);
  return name;
}

std::uint64_t monotonicMicros() {
  timespec ts{};
  ::clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<std::uint64_t>(ts.tv_sec) * 1'000'000u + static_cast<std::uint64_t>(ts.tv_nsec) / 1000u;
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
    sd_bus_set_method_call_timeout(raw, kTrayCallTimeoutMicros);
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
    hostSlot_.reset();
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
    if (sd_bus_call_async(bus_.get(), &slot, call.get(), &SessionTray::onRegistered, this, kTrayCallTimeoutMicros) < 0) {
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
    self->askWhoHosts();
    return 0;
  }

  // Finds out which program hosts the tray, for the icon style it draws.
  void askWhoHosts() {
    sd_bus_message* raw = nullptr;
    if (sd_bus_message_new_method_call(bus_.get(), &raw, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                       "org.freedesktop.DBus", "GetConnectionUnixProcessID") < 0) {
      return;
    }
    Message call(raw);
    sd_bus_slot* slot = nullptr;
    if (sd_bus_message_append(call.get(), "s", kWatcher) >= 0 &&
        sd_bus_call_async(bus_.get(), &slot, call.get(), &SessionTray::onHost, this, kTrayCallTimeoutMicros) >= 0) {
      hostSlot_.reset(slot);
    }
  }

  static int onHost(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    std::uint32_t pid = 0;
    if (sd_bus_message_is_method_error(m, nullptr) || sd_bus_message_read(m, "u", &pid) < 0) return 0;
    const bool symbolic = hostRecoloursSymbolicIcons(programOf(pid));
    if (symbolic != self->symbolic_) {
      self->symbolic_ = symbolic;
      self->emit(kItemPath, kItemInterface, "NewIcon");
      self->emit(kItemPath, kItemInterface, "NewAttentionIcon");
      self->emit(kItemPath, kItemInterface, "NewToolTip");
    }
    return 0;
  }

  std::string shownIcon(const TrayView& v) const {
    return std::string(iconName(v.icon)) + (symbolic_ ? "-symbolic" : "");
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
    if (p == "IconName") return sd_bus_message_append(reply, "s", self->shownIcon(v).c_str());
    if (p == "IconThemePath") return sd_bus_message_append(reply, "s", self->iconThemePath_.c_str());
    // Hosts show the attention icon while the status asks for attention.
    if (p == "AttentionIconName") return sd_bus_message_append(reply, "s", self->shownIcon(v).c_str());
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
      if (r >= 0) r = sd_bus_message_append(reply, "s", self->shownIcon(v).c_str());
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

  // Tells the host what changed: the whole layout when the shape changed,
  // else only the items whose properties did.
  void updateMenu(bool first) {
    const DBusMenuModel::Change change = menu_.update(view_now_.menu, first);
    if (change.reshaped) {
      sendLayoutUpdated(bus_.get(), menu_.revision());
    } else if (!change.changed.empty()) {
      sendItemsPropertiesUpdated(bus_.get(), menu_, change.changed);
    }
  }

  // The tray as a method's userdata, its view made once the host asks.
  static SessionTray& shownTray(void* userdata) {
    auto* self = static_cast<SessionTray*>(userdata);
    if (!self->shown_) self->refresh();
    return *self;
  }

  static int getLayout(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return replyLayout(m, shownTray(userdata).menu_, error);
  }

  static int getGroupProperties(sd_bus_message* m, void* userdata, sd_bus_error*) {
    return replyGroupProperties(m, shownTray(userdata).menu_);
  }

  static int getProperty(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    return replyProperty(m, static_cast<SessionTray*>(userdata)->menu_, error);
  }

  // Runs a click later, from the loop: the engine then changes outside any
  // bus callback, and the signals it causes go out at once.
  void clicked(std::int32_t id) {
    const TrayMenuItem* item = menu_.item(id);
    if (item == nullptr || !item->enabled || !item->action) return;
    TrayAction action = *item->action;
    std::weak_ptr<bool> alive = alive_;
    loop_.post([this, alive, action] {
      if (auto a = alive.lock(); a && *a) act_(action);
    });
  }

  static int event(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    return replyEvent(m, [self](int id) { self->clicked(id); });
  }

  static int eventGroup(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<SessionTray*>(userdata);
    return replyEventGroup(m, self->menu_, [self](int id) { self->clicked(id); });
  }

  static int aboutToShow(sd_bus_message* m, void*, sd_bus_error*) { return replyAboutToShow(m); }
  static int aboutToShowGroup(sd_bus_message* m, void*, sd_bus_error*) { return replyAboutToShowGroup(m); }

  static int menuProperty(sd_bus*, const char*, const char*, const char* property, sd_bus_message* reply,
                          void* userdata, sd_bus_error*) {
    return appendMenuObjectProperty(reply, property, static_cast<SessionTray*>(userdata)->iconThemePath_);
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
  Slot hostSlot_;
  std::optional<WatchId> watch_;
  std::optional<TimerId> pumpTimer_;
  std::optional<TimerId> reconnectTimer_;
  bool pumping_ = false;
  std::string name_;
  std::string problem_;
  bool registered_ = false;
  // The host recolours "-symbolic" icons: name those.
  bool symbolic_ = false;

  bool shown_ = false;
  TrayView view_now_;
  DBusMenuModel menu_;
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
