#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "engine/config.h"
#include "platform/platform.h"

namespace vigilo {

// One setting as seen from outside the app: a snake_case key, what kind of
// value it takes, the person's words for it, and how it reads and writes one
// field of the Config.
struct SettingSpec {
  std::string key;
  std::string topic;    // "When to stay awake", "While the lid is closed", ...
  std::string type;     // "enum", "bool", "int" or "string"
  std::vector<std::string> allowed;  // for "enum"
  std::string description;
  std::optional<std::string> note;
  std::function<nlohmann::json(const Config&)> read;
  // Changes `config` in place; gives nothing on success or the refusal text
  // R that follows "<key> needs " in the error.
  std::function<std::optional<std::string>(Config&, const nlohmann::json&)> write;
};

// The one table through which every setting is read and changed by key from
// outside the app (the command-line tool, MCP, the request channel). Safety
// settings can only be made stricter through it.
class SettingsSchema {
 public:
  // The entries, in their fixed order.
  static const std::vector<SettingSpec>& all();
  // The entry for `key` after lower-casing it and turning "-" into "_".
  static const SettingSpec* spec(std::string_view key);
  // Every key, in order.
  static std::vector<std::string> keys();
  // Every key, joined with ", ".
  static std::string keyList();

  // For the `schema` request: {"settings": [{key, topic, type, value,
  // allowed, description, note[, available]}...], "lists": [{name, what, how,
  // items}...], "how": the general line, "path": configPath}, described in
  // `words`. A setting `words` says the machine lacks has `available` false
  // (the others have no `available`) and, as its description, why.
  static nlohmann::json describe(const Config& config, const std::string& configPath,
                                 const MachineWords& words = {});

  // A change by key (the `set` request). `value` is absent when the request
  // had none. On success `config` holds the changed record and `error` is
  // empty; otherwise `error` is the exact reply text and `config` is the
  // unchanged record.
  struct Change {
    bool ok = false;
    std::string error;
    Config config;
    // Set when the request was `below_floor_allowed` with a false value:
    // going below the battery limit is engine state, not a Config field, so
    // the caller ends it (allowing it is refused here).
    bool endBelowFloor = false;
  };
  static Change change(const Config& current, const std::string& key, const std::optional<nlohmann::json>& value);
};

}  // namespace vigilo
