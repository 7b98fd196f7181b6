#pragma once

#include "platform/sha256.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

namespace vigilo {

// Where the agents keep the files Vigilo edits, from the person's
// environment; tests build their own.
struct AgentPlaces {
  std::string home;
  std::string codexHome;    // $CODEX_HOME, or empty
  std::string searchPath;   // $PATH, to find the claude and codex tools
  // The app folder when an agent started with only HOME wouldn't find it
  // ($VIGILO_HOME, or one under $XDG_DATA_HOME), else empty.
  std::string vigiloHome;
  // Where else the claude tool is installed, outside the home folder.
  std::vector<std::string> systemClaudePaths = {"/opt/homebrew/bin/claude", "/usr/local/bin/claude"};

  static AgentPlaces fromEnvironment();

  std::string claudeJson() const { return home + "/.claude.json"; }
  std::string claudeSettings() const { return home + "/.claude/settings.json"; }
  std::string codexConfig() const;
  // Codex's user hooks, beside its config.toml.
  std::string codexHooks() const;
  std::string geminiSettings() const { return home + "/.gemini/settings.json"; }
  // The Claude app's configuration: macOS's place when that folder exists,
  // else the Linux one ($XDG_CONFIG_HOME or ~/.config, then "Claude").
  std::string claudeAppConfig() const;
  std::vector<std::string> claudeAppConfigs() const;
  // `path` with the home folder written "~", as the person knows it.
  std::string shown(const std::string& path) const;
  std::string configHome;  // $XDG_CONFIG_HOME, or empty
};

// The careful JSON edit of another program's file: read the exact bytes,
// refuse anything but a JSON object, keep a backup, apply `edit` (which
// says whether it changed anything), and write only if the file still holds
// the bytes read. Only the bytes of what the edit changed are rewritten
// (see jsonEdited). Gives `done` on success, else a sentence saying
// what went wrong (the file then is as it was). `ok` tells which.
// `backupFits`, when given, tells from the file's current object whether
// the backup already there is still the right copy to keep.
std::string editJSON(const std::string& path, const std::string& shownPath, const std::string& done,
                     const std::function<bool(nlohmann::ordered_json&)>& edit, bool* ok = nullptr,
                     const std::function<void()>& beforeWrite = {},
                     const std::function<bool(const nlohmann::ordered_json&)>& backupFits = {});


}  // namespace vigilo
