#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/clock.h"

namespace vigilo {

// One explicit keep-awake request.
struct Hold {
  std::string id;
  std::string reason;
  std::optional<Time> until;             // ends by itself then
  std::optional<std::int32_t> pid;       // its exit ends the hold
  Time created = 0;
  std::optional<std::int32_t> owner;     // the client that made it
  std::optional<std::uint64_t> pidStart; // start time of `pid`, microseconds
  bool operator==(const Hold&) const = default;

  nlohmann::ordered_json toJson() const;
  // Nothing when `id` or `reason` is missing or a field has the wrong type.
  static std::optional<Hold> fromJson(const nlohmann::json& j);
};

inline constexpr std::string_view kRuntimeFile = "runtime.json";

// "runtime.json": {"holds": [...]}.
std::string encodeRuntime(const std::vector<Hold>& holds);
// Holds from "runtime.json"; damaged entries are skipped, a damaged file
// gives none.
std::vector<Hold> decodeRuntime(std::string_view bytes);

// A new random UUID in its usual upper-case text form.
std::string newUuid();

}  // namespace vigilo
