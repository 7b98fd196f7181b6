#include "agents/claude_hooks.h"

#include "platform/own_program.h"

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "agents/careful_file.h"
#include "platform/files.h"

namespace vigilo {
namespace {

using ordered_json = nlohmann::ordered_json;

// The file as the person knows it, whatever path the caller passed.
constexpr const char* kShown = "~/.claude/settings.json";
constexpr std::string_view kHookArguments = "event claude-code";

std::string notJson() {
  return std::string("Couldn't read ") + kShown + " (it isn't plain JSON), so nothing was changed.";
}

bool isRunnableFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}


// Vigilo's entry, from this or any earlier installation (the path may have
// moved, so only the arguments and the name are looked for).
bool isOurs(const ordered_json& entry) {
  if (!entry.is_object()) return false;
  auto command = entry.find("command");
  if (command == entry.end() || !command->is_string()) return false;
  std::string text = command->get<std::string>();
  if (text.find(kHookArguments) == std::string::npos) return false;
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text.find("vigilo") != std::string::npos;
}

std::optional<std::string> writeBack(const CarefulFile& file, const ordered_json& settings,
                                     const std::function<void()>& beforeWrite) {
  if (Result r = file.backUp(); !r) {
    return std::string("Couldn't back up ") + kShown + " (" + r.message() + "), so nothing was changed.";
  }
  const auto written = file.replace(jsonEdited(file.bytes(), settings), beforeWrite);
  switch (written.outcome) {
    case CarefulFile::Outcome::Written:
      return std::nullopt;
    case CarefulFile::Outcome::Changed:
      return std::string(kShown) + " changed while Vigilo was editing it; try again.";
    case CarefulFile::Outcome::Failed:
      break;
  }
  return std::string("Couldn't write ") + kShown + " (" + written.message + "), so nothing was changed.";
}

}  // namespace

std::string ClaudeHooks::settingsPath() {
  const char* home = std::getenv("HOME");
  return std::string(home ? home : "") + "/.claude/settings.json";
}

std::string ClaudeHooks::shellQuote(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  out += '\'';
  return out;
}

std::string ClaudeHooks::commandFor(std::string_view tool, std::string_view appFolder) {
  const std::string q = shellQuote(tool);
  const std::string env = appFolder.empty() ? std::string() : "VIGILO_HOME=" + shellQuote(appFolder) + " ";
  return "[ -x " + q + " ] && " + env + q + " " + std::string(kHookArguments) + "; exit 0";
}

std::string ClaudeHooks::currentCommand(std::string_view appFolder) {
  const std::string installed(kInstalledTool);
  if (isRunnableFile(installed)) return commandFor(installed, appFolder);
  // Here the app and the tool are one executable that runs the app only for
  // `vigilo app`, so the hook calls it directly, with no "cli" in between as
  // an app bundle's executable would need.
  if (auto self = ownExecutable()) return commandFor(*self, appFolder);
  if (auto found = findExecutable("vigilo")) return commandFor(*found, appFolder);
  return commandFor(installed, appFolder);
}

std::pair<ordered_json, bool> ClaudeHooks::without(ordered_json settings) {
  bool removed = false;
  if (!settings.is_object()) return {std::move(settings), false};
  auto hooks = settings.find("hooks");
  if (hooks == settings.end() || !hooks->is_object()) return {std::move(settings), false};

  std::vector<std::string> emptiedEvents;
  for (auto& [event, groups] : hooks->items()) {
    if (!groups.is_array()) continue;
    bool droppedGroup = false;
    for (std::size_t g = 0; g < groups.size();) {
      ordered_json& group = groups[g];
      auto list = group.is_object() ? group.find("hooks") : group.end();
      if (!group.is_object() || list == group.end() || !list->is_array() || list->empty()) {
        ++g;
        continue;
      }
      const std::size_t before = list->size();
      for (std::size_t i = 0; i < list->size();) {
        if (isOurs((*list)[i])) {
          list->erase(i);
        } else {
          ++i;
        }
      }
      if (list->size() != before) removed = true;
      if (list->empty()) {
        groups.erase(g);
        droppedGroup = true;
      } else {
        ++g;
      }
    }
    if (droppedGroup && groups.empty()) emptiedEvents.push_back(event);
  }
  for (const std::string& event : emptiedEvents) hooks->erase(event);
  if (!emptiedEvents.empty() && hooks->empty()) settings.erase("hooks");
  return {std::move(settings), removed};
}

std::optional<ordered_json> ClaudeHooks::with(ordered_json settings, const std::string& command) {
  ordered_json s = without(std::move(settings)).first;
  if (s.is_null()) s = ordered_json::object();
  if (!s.is_object()) return std::nullopt;
  ordered_json& hooks = s["hooks"];
  if (hooks.is_null()) hooks = ordered_json::object();
  if (!hooks.is_object()) return std::nullopt;
  for (std::string_view name : kEvents) {
    ordered_json& groups = hooks[std::string(name)];
    if (groups.is_null()) groups = ordered_json::array();
    if (!groups.is_array()) return std::nullopt;
    ordered_json entry = ordered_json::object();
    entry["type"] = "command";
    entry["command"] = command;
    entry["timeout"] = kTimeout;
    ordered_json group = ordered_json::object();
    group["hooks"] = ordered_json::array({entry});
    groups.push_back(std::move(group));
  }
  return s;
}

bool ClaudeHooks::installed(const ordered_json& settings, const std::string& command) {
  if (!settings.is_object()) return false;
  auto hooks = settings.find("hooks");
  if (hooks == settings.end() || !hooks->is_object()) return false;
  for (const auto& [event, groups] : hooks->items()) {
    if (!groups.is_array()) continue;
    for (const ordered_json& group : groups) {
      if (!group.is_object()) continue;
      auto list = group.find("hooks");
      if (list == group.end() || !list->is_array()) continue;
      for (const ordered_json& entry : *list) {
        if (!entry.is_object()) continue;
        auto c = entry.find("command");
        if (c != entry.end() && c->is_string() && c->get<std::string>() == command) return true;
      }
    }
  }
  return false;
}

std::optional<std::string> ClaudeHooks::install(const std::string& path, const std::string& command,
                                                const std::function<void()>& beforeWrite) {
  try {
    std::string problem;
    auto file = CarefulFile::read(path, &problem);
    if (!file) return std::string("Couldn't read ") + kShown + " (" + problem + "), so nothing was changed.";
    auto settings = parseJsonObject(file->bytes());
    if (!settings) return notJson();
    auto updated = with(*settings, command);
    if (!updated) {
      return std::string("Couldn't add Vigilo's hooks: \"hooks\" in ") + kShown +
             " isn't in the form Claude Code uses, so nothing was changed.";
    }
    // Already in place: the person's formatting is left alone.
    if (file->existed() && *updated == *settings) return std::nullopt;
    return writeBack(*file, *updated, beforeWrite);
  } catch (const std::exception& e) {
    return std::string("Couldn't change ") + kShown + " (" + e.what() + ").";
  }
}

std::optional<std::string> ClaudeHooks::uninstall(const std::string& path, const std::function<void()>& beforeWrite) {
  try {
    std::string problem;
    auto file = CarefulFile::read(path, &problem);
    if (!file) return std::string("Couldn't read ") + kShown + " (" + problem + "), so nothing was changed.";
    if (!file->existed()) return std::nullopt;
    auto settings = parseJsonObject(file->bytes());
    if (!settings) return notJson();
    auto [updated, removed] = without(std::move(*settings));
    if (!removed) return std::nullopt;
    // Without a backup the file is one Vigilo made: it goes when nothing
    // else is in it.
    if (updated.empty() && ::access(file->backupPath().c_str(), F_OK) != 0 &&
        file->remove().outcome == CarefulFile::Outcome::Written) {
      return std::nullopt;
    }
    return writeBack(*file, updated, beforeWrite);
  } catch (const std::exception& e) {
    return std::string("Couldn't change ") + kShown + " (" + e.what() + ").";
  }
}

bool ClaudeHooks::installedAt(const std::string& path, const std::string& command) {
  auto file = CarefulFile::read(path);
  if (!file) return false;
  auto settings = parseJsonObject(file->bytes());
  return settings && installed(*settings, command);
}

}  // namespace vigilo
