#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "platform/desktop.h"

namespace vigilo {

// The tray's quick menu as com.canonical.dbusmenu shows it to a tray host:
// the items' numbers, their properties and layout, and the replies and
// signals that carry them. Replies go out on the call's own bus, signals
// on the bus given; nothing here keeps a bus or a message.

inline constexpr const char* kMenuPath = "/MenuBar";
inline constexpr const char* kMenuInterface = "com.canonical.dbusmenu";

// DBusMenu reads "_" as the mark of an access key.
std::string menuLabel(const std::string& text);

// The menu as numbered for the host. Each item gets a number that stays its
// own while its key lives (0 is the root); numbers are never reused.
class DBusMenuModel {
 public:
  // What the host must be told after an update: the whole layout when the
  // menu's shape changed (the revision then goes up), else the items whose
  // properties did.
  struct Change {
    bool reshaped = false;
    std::vector<int> changed;
  };

  // Numbers `menu`, which must stay as it is until the next update. The
  // first update tells nothing: the host has asked for nothing yet.
  Change update(const std::vector<TrayMenuItem>& menu, bool first);

  // Whether `id` names an item of the menu (not the root).
  bool knows(int id) const { return items_.count(id) != 0; }
  // The item numbered `id`; null for the root and for a number not known.
  const TrayMenuItem* item(int id) const;
  std::uint32_t revision() const { return revision_; }

  // (ia{sv}av) of the item `id` and, `depth` levels down (-1: all), its
  // children, with only the properties in `names` (empty: all).
  int appendLayout(sd_bus_message* m, int id, int depth, const std::vector<std::string>& names) const;

 private:
  // What a host sees of one item; compared to tell a property change from
  // a change of the menu's shape.
  struct ItemState {
    bool separator = false;
    std::string label;
    bool enabled = true;
    bool radio = false;
    bool checked = false;
    bool submenu = false;
    bool operator==(const ItemState&) const = default;
  };
  static ItemState stateOf(const TrayMenuItem& i);

  void number(const std::vector<TrayMenuItem>& menu, std::map<int, const TrayMenuItem*>& items,
              std::map<int, ItemState>& states, std::string& shape);
  int appendItemLayout(sd_bus_message* m, int id, const TrayMenuItem* item, int depth,
                       const std::vector<std::string>& names) const;

  const std::vector<TrayMenuItem>* root_ = nullptr;
  std::map<std::string, int> ids_;
  int nextId_ = 1;
  std::map<int, const TrayMenuItem*> items_;
  std::map<int, ItemState> states_;
  std::string shape_;
  std::uint32_t revision_ = 1;
};

// a{sv} of one item (null: the root), with only the properties in `names`
// (empty: all).
int appendMenuProperties(sd_bus_message* m, const TrayMenuItem* item, const std::vector<std::string>& names);

// The replies to the menu's methods, each sent on the call's own bus; a
// negative errno, or `error` set, when the call can't be answered.
int replyEmpty(sd_bus_message* call);
int replyLayout(sd_bus_message* call, const DBusMenuModel& menu, sd_bus_error* error);
int replyGroupProperties(sd_bus_message* call, const DBusMenuModel& menu);
int replyProperty(sd_bus_message* call, const DBusMenuModel& menu, sd_bus_error* error);
// Event: calls `clicked` with the number of a clicked item.
int replyEvent(sd_bus_message* call, const std::function<void(int)>& clicked);
// EventGroup: calls `clicked` for each clicked item the menu knows, and
// answers with the numbers it doesn't.
int replyEventGroup(sd_bus_message* call, const DBusMenuModel& menu, const std::function<void(int)>& clicked);
int replyAboutToShow(sd_bus_message* call);
int replyAboutToShowGroup(sd_bus_message* call);
// One of the menu object's own properties into `reply`; -ENOENT for one it
// doesn't have.
int appendMenuObjectProperty(sd_bus_message* reply, const std::string& property, const std::string& iconThemePath);

// The menu's signals.
void sendLayoutUpdated(sd_bus* bus, std::uint32_t revision);
void sendItemsPropertiesUpdated(sd_bus* bus, const DBusMenuModel& menu, const std::vector<int>& ids);

}  // namespace vigilo
