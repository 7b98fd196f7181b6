#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include <nlohmann/json_fwd.hpp>

namespace vigilo {

// Vigilo's hooks in Claude Code's user settings (~/.claude/settings.json):
// one group per lifecycle event, each running `vigilo event claude-code`.
// Everything else in the file (the user's own hooks, other handler types,
// other settings, the order of keys) is left as it was.
class ClaudeHooks {
 public:
  ClaudeHooks() = delete;

  // The events hooked, in the order they are installed.
  static constexpr std::array<std::string_view, 5> kEvents = {"SessionStart", "UserPromptSubmit", "Notification",
                                                              "Stop", "SessionEnd"};
  // Where the tool is installed for everyone when it is.
  static constexpr std::string_view kInstalledTool = "/usr/local/bin/vigilo";
  // Seconds Claude Code gives a hook.
  static constexpr int kTimeout = 10;

  // "$HOME/.claude/settings.json".
  static std::string settingsPath();

  // The hook command for this installation: the installed tool when it is
  // there and runnable, else this very executable. `appFolder`, when not
  // empty, is passed as VIGILO_HOME: the agent runs hooks with its own
  // environment, which may lack the person's.
  static std::string currentCommand(std::string_view appFolder = {});
  // The hook command running `tool`; it succeeds even when `tool` is gone,
  // so that the agent is never blocked.
  static std::string commandFor(std::string_view tool, std::string_view appFolder = {});
  // `text` in single quotes for the shell, each ' inside written '\''.
  static std::string shellQuote(std::string_view text);

  // `settings` with exactly one Vigilo group per event, running `command`.
  // Nothing when "hooks", or one of the events under it, holds something
  // other than an object or array (it can't be extended without losing it).
  static std::optional<nlohmann::ordered_json> with(nlohmann::ordered_json settings, const std::string& command);
  // `settings` without any of Vigilo's hook entries (from any installation),
  // and whether any was there. Groups, events and "hooks" left empty by the
  // removal go too; everything else stays.
  static std::pair<nlohmann::ordered_json, bool> without(nlohmann::ordered_json settings);
  // Whether some hook entry runs exactly `command`.
  static bool installed(const nlohmann::ordered_json& settings, const std::string& command);

  // Edits the settings file at `path` carefully (backup, compare before
  // write). Gives the failure as a sentence for the person, or nothing on
  // success. `beforeWrite` runs between the read and the write (tests).
  static std::optional<std::string> install(const std::string& path, const std::string& command,
                                            const std::function<void()>& beforeWrite = {});
  // Removes Vigilo's hooks the same way; a file without them is not touched.
  static std::optional<std::string> uninstall(const std::string& path, const std::function<void()>& beforeWrite = {});
  // Whether the settings file at `path` runs exactly `command` (false when
  // it can't be read).
  static bool installedAt(const std::string& path, const std::string& command);
};

}  // namespace vigilo
