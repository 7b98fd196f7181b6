#pragma once

#include <array>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace vigilo {

// How one agent's settings hold lifecycle hooks. Claude Code, Codex
// (hooks.json) and Gemini CLI share one shape: "hooks" → event → matcher
// groups → handlers {"type": "command", "command": …, "timeout": …}; they
// differ in the events, the timeout's unit and a handler's name.
struct HookFormat {
  std::string_view agent;  // the name `vigilo event` is given
  std::string_view name;   // the agent as the person knows it
  std::string_view shown;  // the file as the person knows it, for messages
  std::vector<std::string_view> events;  // hooked, in the order installed
  int timeout = 10;                      // in the agent's own unit
  bool named = false;                    // handlers carry "name": "vigilo"

  static const HookFormat& claudeCode();
  // Shown as `shown`, which depends on CODEX_HOME.
  static HookFormat codex(std::string_view shown);
  static const HookFormat& gemini();
};

// Vigilo's hooks in one agent's settings file: one group per lifecycle
// event, each running `vigilo event <agent>`. Everything else in the file
// (the person's own hooks, other handler types, other settings, the order
// of keys and the bytes of what isn't changed) is left as it was.
class AgentHooks {
 public:
  AgentHooks() = delete;

  // The hook command running `tool` for `agent`; it succeeds even when
  // `tool` is gone, so that the agent is never blocked.
  static std::string commandFor(std::string_view tool, std::string_view agent, std::string_view appFolder = {});
  // The same for this installation: the installed tool when it is there and
  // runnable, else this very executable.
  static std::string currentCommand(std::string_view agent, std::string_view appFolder = {});

  // `settings` with exactly one Vigilo group per event, running `command`.
  // Nothing when "hooks", or one of the events under it, holds something
  // other than an object or array (it can't be extended without losing it).
  static std::optional<nlohmann::ordered_json> with(nlohmann::ordered_json settings, const std::string& command,
                                                    const HookFormat& format);
  // `settings` without any of Vigilo's hook entries for this agent (from
  // any installation), and whether any was there. Groups, events and
  // "hooks" left empty by the removal go too; everything else stays.
  static std::pair<nlohmann::ordered_json, bool> without(nlohmann::ordered_json settings, const HookFormat& format);
  // Whether some hook entry runs exactly `command`.
  static bool installed(const nlohmann::ordered_json& settings, const std::string& command);

  // Edits the settings file at `path` carefully (backup, compare before
  // write). Gives the failure as a sentence for the person, or nothing on
  // success. `beforeWrite` runs between the read and the write (tests).
  static std::optional<std::string> install(const std::string& path, const std::string& command,
                                            const HookFormat& format, const std::function<void()>& beforeWrite = {});
  // Removes Vigilo's hooks the same way; a file without them is not touched,
  // and a file Vigilo made that holds nothing else goes.
  static std::optional<std::string> uninstall(const std::string& path, const HookFormat& format,
                                              const std::function<void()>& beforeWrite = {});
  // Whether the settings file at `path` runs exactly `command` (false when
  // it can't be read).
  static bool installedAt(const std::string& path, const std::string& command);
};

// Vigilo's hooks in Claude Code's user settings (~/.claude/settings.json).
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

  // The hook command for this installation. `appFolder`, when not empty, is
  // passed as VIGILO_HOME: the agent runs hooks with its own environment,
  // which may lack the person's.
  static std::string currentCommand(std::string_view appFolder = {});
  static std::string commandFor(std::string_view tool, std::string_view appFolder = {});
  // `text` in single quotes for the shell, each ' inside written '\''.
  static std::string shellQuote(std::string_view text);

  static std::optional<nlohmann::ordered_json> with(nlohmann::ordered_json settings, const std::string& command);
  static std::pair<nlohmann::ordered_json, bool> without(nlohmann::ordered_json settings);
  static bool installed(const nlohmann::ordered_json& settings, const std::string& command);
  static std::optional<std::string> install(const std::string& path, const std::string& command,
                                            const std::function<void()>& beforeWrite = {});
  static std::optional<std::string> uninstall(const std::string& path, const std::function<void()>& beforeWrite = {});
  static bool installedAt(const std::string& path, const std::string& command);
};

}  // namespace vigilo
