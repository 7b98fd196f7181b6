#include "ui/island.h"

#include <string>

#include "engine/engine.h"
#include "remote/notifier.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

// A notification is a few lines on screen; longer texts aren't meant.
constexpr std::size_t kMaxText = 1024;

json fail(const std::string& error) { return {{"ok", false}, {"error", error}}; }

}  // namespace

json islandRequest(Engine& engine, Notifier& notifier, const json& args) {
  std::string title, subtitle;
  for (auto [key, out] : {std::pair<const char*, std::string*>{"title", &title}, {"subtitle", &subtitle}}) {
    auto it = args.find(key);
    if (it == args.end() || it->is_null()) continue;
    if (!it->is_string()) return fail(std::string(key) + " must be text");
    *out = it->get<std::string>();
    if (out->size() > kMaxText) return fail(std::string(key) + " is too long (at most 1024 characters)");
  }
  if (title.empty()) title = kIslandTitle;
  const auto why = notifier.notesUnavailable();
  // Sent even so: it is also how the notifier learns that a desktop came.
  notifier.note(title, subtitle);
  if (why) return fail("Couldn't show the announcement: " + *why);
  return {{"ok", true}, {"status", engine.statusLine()}, {"shown", true}};
}

}  // namespace vigilo
