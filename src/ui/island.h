#pragma once

#include <nlohmann/json_fwd.hpp>

namespace vigilo {

class Engine;
class Notifier;

// The product's name, the title of announcements that give none.
inline constexpr const char* kIslandTitle = "Vigilo";

// The `island` request: `title` (text, "Vigilo" when absent or empty) and
// `subtitle` (text) shown as one desktop notification. Fails with a
// sentence when arguments aren't text or when notifications can't reach a
// desktop (no session bus, no notification daemon). Never blocks: the
// notification goes out on the notifier's own thread.
nlohmann::json islandRequest(Engine& engine, Notifier& notifier, const nlohmann::json& args);

}  // namespace vigilo
