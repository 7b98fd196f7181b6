#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "engine/config.h"
#include "platform/clock.h"

namespace vigilo {

// Values as the replies to requests write them.
inline nlohmann::json timeOrNull(const std::optional<Time>& t) {
  return t ? nlohmann::json(*t) : nlohmann::json(nullptr);
}

// A mode as requests and replies name it ("off", "auto", "always").
inline std::string modeText(Mode m) {
  switch (m) {
    case Mode::Off:
      return "off";
    case Mode::Auto:
      return "auto";
    case Mode::On:
      return "always";
  }
  return "auto";
}

}  // namespace vigilo
