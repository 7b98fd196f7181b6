#include "platform/linux/dbus_menu.h"

#include <cerrno>
#include <iterator>

#include "platform/linux/session_bus.h"

namespace vigilo {
namespace {

bool wanted(const std::vector<std::string>& names, const char* name) {
  if (names.empty()) return true;
  for (const auto& n : names) {
    if (n == name) return true;
  }
  return false;
}

int readStrings(sd_bus_message* m, std::vector<std::string>& out) {
  int r = sd_bus_message_enter_container(m, 'a', "s");
  if (r < 0) return r;
  const char* s = nullptr;
  while ((r = sd_bus_message_read(m, "s", &s)) > 0) out.emplace_back(s);
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

// The numbers of an "ai" argument.
int readIds(sd_bus_message* m, std::vector<std::int32_t>& out) {
  int r = sd_bus_message_enter_container(m, 'a', "i");
  std::int32_t id = 0;
  while (r >= 0 && (r = sd_bus_message_read(m, "i", &id)) > 0) out.push_back(id);
  if (r >= 0) r = sd_bus_message_exit_container(m);
  return r;
}

// (ia{sv}) of one item.
int appendIdProperties(sd_bus_message* m, int id, const TrayMenuItem* item, const std::vector<std::string>& names) {
  int r = sd_bus_message_open_container(m, 'r', "ia{sv}");
  if (r >= 0) r = sd_bus_message_append(m, "i", id);
  if (r >= 0) r = appendMenuProperties(m, item, names);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

}  // namespace

std::string menuLabel(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c;
    if (c == '_') out += '_';
  }
  return out;
}

DBusMenuModel::ItemState DBusMenuModel::stateOf(const TrayMenuItem& i) {
  ItemState s;
  s.separator = i.kind == TrayMenuItem::Kind::Separator;
  s.label = menuLabel(i.label);
  s.enabled = i.enabled;
  s.radio = i.toggle == TrayMenuItem::Toggle::Radio;
  s.checked = i.checked;
  s.submenu = !i.children.empty();
  return s;
}

DBusMenuModel::Change DBusMenuModel::update(const std::vector<TrayMenuItem>& menu, bool first) {
  root_ = &menu;
  std::map<int, const TrayMenuItem*> items;
  std::map<int, ItemState> states;
  std::string shape;
  number(menu, items, states, shape);
  Change change;
  change.reshaped = !first && shape != shape_;
  if (!first && !change.reshaped) {
    for (const auto& [id, s] : states) {
      auto old = states_.find(id);
      if (old == states_.end() || !(old->second == s)) change.changed.push_back(id);
    }
  }
  items_ = std::move(items);
  states_ = std::move(states);
  shape_ = std::move(shape);
  // Numbers are never reused, so a gone item's number can be forgotten.
  for (auto it = ids_.begin(); it != ids_.end();) {
    it = items_.count(it->second) == 0 ? ids_.erase(it) : std::next(it);
  }
  if (change.reshaped) ++revision_;
  return change;
}

void DBusMenuModel::number(const std::vector<TrayMenuItem>& menu, std::map<int, const TrayMenuItem*>& items,
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

const TrayMenuItem* DBusMenuModel::item(int id) const {
  auto it = items_.find(id);
  return it == items_.end() ? nullptr : it->second;
}

int DBusMenuModel::appendLayout(sd_bus_message* m, int id, int depth, const std::vector<std::string>& names) const {
  return appendItemLayout(m, id, item(id), depth, names);
}

int DBusMenuModel::appendItemLayout(sd_bus_message* m, int id, const TrayMenuItem* item, int depth,
                                    const std::vector<std::string>& names) const {
  int r = sd_bus_message_open_container(m, 'r', "ia{sv}av");
  if (r >= 0) r = sd_bus_message_append(m, "i", id);
  if (r >= 0) r = appendMenuProperties(m, item, names);
  if (r >= 0) r = sd_bus_message_open_container(m, 'a', "v");
  static const std::vector<TrayMenuItem> kNone;
  const std::vector<TrayMenuItem>& children = item != nullptr ? item->children : root_ != nullptr ? *root_ : kNone;
  if (depth != 0) {
    for (const TrayMenuItem& child : children) {
      if (r < 0) break;
      r = sd_bus_message_open_container(m, 'v', "(ia{sv}av)");
      if (r >= 0) r = appendItemLayout(m, ids_.at(child.key), &child, depth < 0 ? -1 : depth - 1, names);
      if (r >= 0) r = sd_bus_message_close_container(m);
    }
  }
  if (r >= 0) r = sd_bus_message_close_container(m);
  if (r >= 0) r = sd_bus_message_close_container(m);
  return r;
}

int appendMenuProperties(sd_bus_message* m, const TrayMenuItem* item, const std::vector<std::string>& names) {
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

int replyEmpty(sd_bus_message* call) {
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_return(call, &raw);
  if (r < 0) return r;
  Message reply(raw);
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int replyLayout(sd_bus_message* call, const DBusMenuModel& menu, sd_bus_error* error) {
  std::int32_t parent = 0, depth = -1;
  int r = sd_bus_message_read(call, "ii", &parent, &depth);
  std::vector<std::string> names;
  if (r >= 0) r = readStrings(call, names);
  if (r < 0) return r;
  if (parent != 0 && !menu.knows(parent)) {
    return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such menu item");
  }
  sd_bus_message* raw = nullptr;
  if ((r = sd_bus_message_new_method_return(call, &raw)) < 0) return r;
  Message reply(raw);
  r = sd_bus_message_append(reply.get(), "u", menu.revision());
  if (r >= 0) r = menu.appendLayout(reply.get(), parent, depth, names);
  if (r < 0) return r;
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int replyGroupProperties(sd_bus_message* call, const DBusMenuModel& menu) {
  std::vector<std::int32_t> ids;
  int r = readIds(call, ids);
  std::vector<std::string> names;
  if (r >= 0) r = readStrings(call, names);
  if (r < 0) return r;
  sd_bus_message* raw = nullptr;
  if ((r = sd_bus_message_new_method_return(call, &raw)) < 0) return r;
  Message reply(raw);
  r = sd_bus_message_open_container(reply.get(), 'a', "(ia{sv})");
  for (std::int32_t want : ids) {
    if (r < 0) break;
    if (want != 0 && !menu.knows(want)) continue;
    r = appendIdProperties(reply.get(), want, menu.item(want), names);
  }
  if (r >= 0) r = sd_bus_message_close_container(reply.get());
  if (r < 0) return r;
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int replyProperty(sd_bus_message* call, const DBusMenuModel& menu, sd_bus_error* error) {
  std::int32_t id = 0;
  const char* name = nullptr;
  int r = sd_bus_message_read(call, "is", &id, &name);
  if (r < 0) return r;
  if (id != 0 && !menu.knows(id)) return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "No such menu item");
  const TrayMenuItem* item = menu.item(id);
  const std::string n = name;
  sd_bus_message* raw = nullptr;
  if ((r = sd_bus_message_new_method_return(call, &raw)) < 0) return r;
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

int replyEvent(sd_bus_message* call, const std::function<void(int)>& clicked) {
  std::int32_t id = 0;
  const char* kind = nullptr;
  int r = sd_bus_message_read(call, "is", &id, &kind);
  if (r < 0) return r;
  if (kind != nullptr && std::string(kind) == "clicked") clicked(id);
  return replyEmpty(call);
}

int replyEventGroup(sd_bus_message* call, const DBusMenuModel& menu, const std::function<void(int)>& clicked) {
  int r = sd_bus_message_enter_container(call, 'a', "(isvu)");
  std::vector<std::int32_t> unknown;
  while (r >= 0 && (r = sd_bus_message_enter_container(call, 'r', "isvu")) > 0) {
    std::int32_t id = 0;
    const char* kind = nullptr;
    if ((r = sd_bus_message_read(call, "is", &id, &kind)) < 0) break;
    if ((r = sd_bus_message_skip(call, "vu")) < 0) break;
    if ((r = sd_bus_message_exit_container(call)) < 0) break;
    if (!menu.knows(id)) {
      unknown.push_back(id);
    } else if (std::string(kind) == "clicked") {
      clicked(id);
    }
  }
  if (r < 0) return r;
  sd_bus_message* raw = nullptr;
  if ((r = sd_bus_message_new_method_return(call, &raw)) < 0) return r;
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
int replyAboutToShow(sd_bus_message* call) {
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_return(call, &raw);
  if (r < 0) return r;
  Message reply(raw);
  if ((r = sd_bus_message_append(reply.get(), "b", 0)) < 0) return r;
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int replyAboutToShowGroup(sd_bus_message* call) {
  sd_bus_message* raw = nullptr;
  int r = sd_bus_message_new_method_return(call, &raw);
  if (r < 0) return r;
  Message reply(raw);
  for (int i = 0; i < 2 && r >= 0; ++i) {
    r = sd_bus_message_open_container(reply.get(), 'a', "i");
    if (r >= 0) r = sd_bus_message_close_container(reply.get());
  }
  if (r < 0) return r;
  return sd_bus_send(nullptr, reply.get(), nullptr);
}

int appendMenuObjectProperty(sd_bus_message* reply, const std::string& property, const std::string& iconThemePath) {
  if (property == "Version") return sd_bus_message_append(reply, "u", 3u);
  if (property == "TextDirection") return sd_bus_message_append(reply, "s", "ltr");
  if (property == "Status") return sd_bus_message_append(reply, "s", "normal");
  if (property == "IconThemePath") {
    int r = sd_bus_message_open_container(reply, 'a', "s");
    if (r >= 0 && !iconThemePath.empty()) r = sd_bus_message_append(reply, "s", iconThemePath.c_str());
    return r < 0 ? r : sd_bus_message_close_container(reply);
  }
  return -ENOENT;
}

void sendLayoutUpdated(sd_bus* bus, std::uint32_t revision) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_signal(bus, &raw, kMenuPath, kMenuInterface, "LayoutUpdated") < 0) return;
  Message m(raw);
  if (sd_bus_message_append(m.get(), "ui", revision, 0) >= 0) sd_bus_send(bus, m.get(), nullptr);
}

void sendItemsPropertiesUpdated(sd_bus* bus, const DBusMenuModel& menu, const std::vector<int>& ids) {
  sd_bus_message* raw = nullptr;
  if (sd_bus_message_new_signal(bus, &raw, kMenuPath, kMenuInterface, "ItemsPropertiesUpdated") < 0) return;
  Message m(raw);
  int r = sd_bus_message_open_container(m.get(), 'a', "(ia{sv})");
  for (int id : ids) {
    if (r >= 0) r = appendIdProperties(m.get(), id, menu.item(id), {});
  }
  if (r >= 0) r = sd_bus_message_close_container(m.get());
  // Nothing is ever removed from an item's properties.
  if (r >= 0) r = sd_bus_message_open_container(m.get(), 'a', "(ias)");
  if (r >= 0) r = sd_bus_message_close_container(m.get());
  if (r >= 0) sd_bus_send(bus, m.get(), nullptr);
}

}  // namespace vigilo
