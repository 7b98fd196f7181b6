#pragma once

#include "platform/sha256.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace vigilo {

// Where the agents keep the files Vigilo edits, from the person's
// environment; tests build their own.
struct AgentPlaces {
  std::string home;
  std::string codexHome;    // $CODEX_HOME, or empty
  std::string searchPath;   // $PATH, to find the claude and codex tools
  std::string vigiloHome;   // $VIGILO_HOME when it names a folder other than the default
  // Where else the claude tool is installed, outside the home folder.
  std::vector<std::string> systemClaudePaths = {"/opt/homebrew/bin/claude", "/usr/local/bin/claude"};

  static AgentPlaces fromEnvironment();

  std::string claudeJson() const { return home + "/.claude.json"; }
  std::string claudeSettings() const { return home + "/.claude/settings.json"; }
  std::string codexConfig() const;
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
// the bytes read. The text keeps the file's indentation, line breaks, key
// order and final newline. Gives `done` on success, else a sentence saying
// what went wrong (the file then is as it was). `ok` tells which.
std::string editJSON(const std::string& path, const std::string& shownPath, const std::string& done,
                     const std::function<bool(nlohmann::ordered_json&)>& edit, bool* ok = nullptr,
                     const std::function<void()>& beforeWrite = {});

// `value` as text shaped like `like` (the text it replaces): its indentation
// (spaces or tabs), its line breaks (CRLF or LF) and whether it ends in one;
// two spaces and a final newline for a new file.
std::string jsonLike(const nlohmann::ordered_json& value, std::string_view like);


}  // namespace vigilo
