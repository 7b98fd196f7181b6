#include "agents/claude_hooks.h"

#include "platform/own_program.h"

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "agents/careful_file.h"
#include "platform/files.h"

namespace vigilo {
namespace {

using ordered_json = nlohmann::ordered_json;

// Gemini CLI gives a hook's timeout in milliseconds, the others in seconds.
constexpr int kGeminiTimeoutMs = 10'000;
// The name a handler carries where the agent shows hooks by name.
constexpr const char* kHandlerName = "vigilo";

std::string hookArguments(std::string_view agent) { return "event " + std::string(agent); }

std::string notJson(std::string_view shown) {
  return "Couldn't read " + std::string(shown) + " (it isn't plain JSON), so nothing was changed.";
}

bool isRunnableFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}


// Vigilo's entry for `agent`, from this or any earlier installation (the
// path may have moved, so only the arguments and the name are looked for).
// The arguments must end there or at a blank, ";" or quote, so that one
// agent's name that begins another's never takes the other's entries.
bool isOurs(const ordered_json& entry, std::string_view agent) {
  if (!entry.is_object()) return false;
  auto command = entry.find("command");
  if (command == entry.end() || !command->is_string()) return false;
  std::string text = command->get<std::string>();
  const std::string args = hookArguments(agent);
  bool found = false;
  for (std::size_t at = text.find(args); at != std::string::npos && !found; at = text.find(args, at + 1)) {
    const std::size_t end = at + args.size();
    found = end == text.size() || std::string_view(" ;'\"").find(text[end]) != std::string_view::npos;
  }
  if (!found) return false;
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text.find("vigilo") != std::string::npos;
}

std::optional<std::string> writeBack(const CarefulFile& file, const ordered_json& settings, std::string_view shownPath,
                                     const std::function<void()>& beforeWrite) {
  const std::string shown(shownPath);
  if (Result r = file.backUp(); !r) {
    return "Couldn't back up " + shown + " (" + r.message() + "), so nothing was changed.";
  }
  const auto written = file.replace(jsonEdited(file.bytes(), settings), beforeWrite);
  switch (written.outcome) {
    case CarefulFile::Outcome::Written:
      return std::nullopt;
    case CarefulFile::Outcome::Changed:
      return shown + " changed while Vigilo was editing it; try again.";
    case CarefulFile::Outcome::Failed:
      break;
  }
  return "Couldn't write " + shown + " (" + written.message + "), so nothing was changed.";
}

}  // namespace

const HookFormat& HookFormat::claudeCode() {
  static const HookFormat format{"claude-code", "Claude Code", "~/.claude/settings.json",
                                 {ClaudeHooks::kEvents.begin(), ClaudeHooks::kEvents.end()}, ClaudeHooks::kTimeout,
                                 false};
  return format;
}

HookFormat HookFormat::codex(std::string_view shown) {
  // PostToolUse tells that a permission asked for was granted and the agent
  // went on; Codex has no notification of its own for an idle prompt.
  return HookFormat{"codex", "Codex", shown, {"SessionStart", "UserPromptSubmit", "PermissionRequest", "PostToolUse", "Stop"},
                    10, false};
}

const HookFormat& HookFormat::gemini() {
  static const HookFormat format{
      "gemini", "Gemini CLI", "~/.gemini/settings.json",
      {"SessionStart", "BeforeAgent", "Notification", "AfterTool", "AfterAgent", "SessionEnd"}, kGeminiTimeoutMs, true};
  return format;
}

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

std::string AgentHooks::commandFor(std::string_view tool, std::string_view agent, std::string_view appFolder) {
  const std::string q = ClaudeHooks::shellQuote(tool);
  const std::string env = appFolder.empty() ? std::string() : "VIGILO_HOME=" + ClaudeHooks::shellQuote(appFolder) + " ";
  return "[ -x " + q + " ] && " + env + q + " " + hookArguments(agent) + "; exit 0";
}

std::string AgentHooks::currentCommand(std::string_view agent, std::string_view appFolder) {
  const std::string installed(ClaudeHooks::kInstalledTool);
  if (isRunnableFile(installed)) return commandFor(installed, agent, appFolder);
  // Here the app and the tool are one executable that runs the app only for
  // `vigilo app`, so the hook calls it directly, with no "cli" in between as
  // an app bundle's executable would need.
  if (auto self = ownExecutable()) return commandFor(*self, agent, appFolder);
  if (auto found = findExecutable("vigilo")) return commandFor(*found, agent, appFolder);
  return commandFor(installed, agent, appFolder);
}

std::pair<ordered_json, bool> AgentHooks::without(ordered_json settings, const HookFormat& format) {
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
        if (isOurs((*list)[i], format.agent)) {
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

std::optional<ordered_json> AgentHooks::with(ordered_json settings, const std::string& command,
                                            const HookFormat& format) {
  ordered_json s = without(std::move(settings), format).first;
  if (s.is_null()) s = ordered_json::object();
  if (!s.is_object()) return std::nullopt;
  ordered_json& hooks = s["hooks"];
  if (hooks.is_null()) hooks = ordered_json::object();
  if (!hooks.is_object()) return std::nullopt;
  for (std::string_view name : format.events) {
    ordered_json& groups = hooks[std::string(name)];
    if (groups.is_null()) groups = ordered_json::array();
    if (!groups.is_array()) return std::nullopt;
    ordered_json entry = ordered_json::object();
    if (format.named) entry["name"] = kHandlerName;
    entry["type"] = "command";
    entry["command"] = command;
    entry["timeout"] = format.timeout;
    ordered_json group = ordered_json::object();
    group["hooks"] = ordered_json::array({entry});
    groups.push_back(std::move(group));
  }
  return s;
}

bool AgentHooks::installed(const ordered_json& settings, const std::string& command) {
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

std::optional<std::string> AgentHooks::install(const std::string& path, const std::string& command,
                                               const HookFormat& format, const std::function<void()>& beforeWrite) {
  const std::string shown(format.shown);
  try {
    std::string problem;
    auto file = CarefulFile::read(path, &problem);
    if (!file) return std::string("Couldn't read ") + shown + " (" + problem + "), so nothing was changed.";
    auto settings = parseJsonObject(file->bytes());
    if (!settings) return notJson(shown);
    auto updated = with(*settings, command, format);
    if (!updated) {
      return "Couldn't add Vigilo's hooks: \"hooks\" in " + shown + " isn't in the form " + std::string(format.name) +
             " uses, so nothing was changed.";
    }
    // Already in place: the person's formatting is left alone.
    if (file->existed() && *updated == *settings) return std::nullopt;
    return writeBack(*file, *updated, shown, beforeWrite);
  } catch (const std::exception& e) {
    return std::string("Couldn't change ") + shown + " (" + e.what() + ").";
  }
}

std::optional<std::string> AgentHooks::uninstall(const std::string& path, const HookFormat& format,
                                                 const std::function<void()>& beforeWrite) {
  const std::string shown(format.shown);
  try {
    std::string problem;
    auto file = CarefulFile::read(path, &problem);
    if (!file) return std::string("Couldn't read ") + shown + " (" + problem + "), so nothing was changed.";
    if (!file->existed()) return std::nullopt;
    auto settings = parseJsonObject(file->bytes());
    if (!settings) return notJson(shown);
    auto [updated, removed] = without(std::move(*settings), format);
    if (!removed) return std::nullopt;
    // Without a backup, or with one that held only Vigilo's hooks (saved
    // when it installed them again), the file is one Vigilo made: it goes,
    // with that backup, when nothing else is in it.
    const auto backup = readWholeFile(file->backupPath());
    const auto before = backup ? parseJsonObject(*backup) : std::nullopt;
    const bool ours = !backup || (before && [&] {
                        auto [rest, had] = without(*before, format);
                        return had && rest.empty();
                      }());
    if (updated.empty() && ours && file->remove().outcome == CarefulFile::Outcome::Written) {
      std::error_code ec;
      if (backup) std::filesystem::remove(file->backupPath(), ec);
      return std::nullopt;
    }
    return writeBack(*file, updated, shown, beforeWrite);
  } catch (const std::exception& e) {
    return std::string("Couldn't change ") + shown + " (" + e.what() + ").";
  }
}

bool AgentHooks::installedAt(const std::string& path, const std::string& command) {
  auto file = CarefulFile::read(path);
  if (!file) return false;
  auto settings = parseJsonObject(file->bytes());
  return settings && installed(*settings, command);
}

}  // namespace vigilo

namespace vigilo {

std::string ClaudeHooks::currentCommand(std::string_view appFolder) {
  return AgentHooks::currentCommand("claude-code", appFolder);
}
std::string ClaudeHooks::commandFor(std::string_view tool, std::string_view appFolder) {
  return AgentHooks::commandFor(tool, "claude-code", appFolder);
}
std::optional<ordered_json> ClaudeHooks::with(ordered_json settings, const std::string& command) {
  return AgentHooks::with(std::move(settings), command, HookFormat::claudeCode());
}
std::pair<ordered_json, bool> ClaudeHooks::without(ordered_json settings) {
  return AgentHooks::without(std::move(settings), HookFormat::claudeCode());
}
bool ClaudeHooks::installed(const ordered_json& settings, const std::string& command) {
  return AgentHooks::installed(settings, command);
}
std::optional<std::string> ClaudeHooks::install(const std::string& path, const std::string& command,
                                                const std::function<void()>& beforeWrite) {
  return AgentHooks::install(path, command, HookFormat::claudeCode(), beforeWrite);
}
std::optional<std::string> ClaudeHooks::uninstall(const std::string& path, const std::function<void()>& beforeWrite) {
  return AgentHooks::uninstall(path, HookFormat::claudeCode(), beforeWrite);
}
bool ClaudeHooks::installedAt(const std::string& path, const std::string& command) {
  return AgentHooks::installedAt(path, command);
}

}  // namespace vigilo
