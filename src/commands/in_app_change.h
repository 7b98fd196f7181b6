#pragma once

#include <optional>
#include <string>

#include <nlohmann/json_fwd.hpp>

#include "commands/settings_schema.h"

namespace vigilo {

// A change made with the panel's own controls, after the person confirmed
// it: the same keys, values and refusals as `set` from outside, except that
// a safety setting may be loosened (a lower battery floor, the heat guard
// or only-on-power off), the ntfy topic may be set, and going below the
// battery limit may be allowed (`allowBelowFloor`).
struct InAppChange {
  SettingsSchema::Change change;
  bool allowBelowFloor = false;
};
InAppChange changeInApp(const Config& current, const std::string& key, const std::optional<nlohmann::json>& value);

}  // namespace vigilo
