#include "integrations/agent_files.h"

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>

#include <openssl/evp.h>

#include "agents/careful_file.h"
#include "platform/platform.h"
#include "platform/files.h"

namespace vigilo {
namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : "";
}

}  // namespace

AgentPlaces AgentPlaces::fromEnvironment() {
  AgentPlaces p;
  p.home = env("HOME");
  p.codexHome = env("CODEX_HOME");
  p.searchPath = env("PATH");
  p.configHome = env("XDG_CONFIG_HOME");
  // An agent starts the server with only HOME, PATH and a few more; a
  // folder other than the one HOME leads to must be passed along.
  // The same holds for a folder moved by XDG_DATA_HOME.
#ifdef __APPLE__
  const std::string plain = p.home + "/Library/Application Support/Vigilo";
  const std::string found = plain;
#else
  const std::string plain = p.home + "/.local/share/vigilo";
  const std::string found = xdgAppFolder();
#endif
  const std::string vh = env("VIGILO_HOME");
  const std::string folder = vh.empty() ? found : vh;
  if (folder != plain) p.vigiloHome = folder;
  return p;
}

std::string AgentPlaces::codexConfig() const {
  return (codexHome.empty() ? home + "/.codex" : codexHome) + "/config.toml";
}

std::string AgentPlaces::codexHooks() const {
  return (codexHome.empty() ? home + "/.codex" : codexHome) + "/hooks.json";
}

std::vector<std::string> AgentPlaces::claudeAppConfigs() const {
  const std::string config = !configHome.empty() && configHome[0] == '/' ? configHome : home + "/.config";
  return {home + "/Library/Application Support/Claude/claude_desktop_config.json",
          config + "/Claude/claude_desktop_config.json"};
}

std::string AgentPlaces::claudeAppConfig() const {
  const auto all = claudeAppConfigs();
  for (const auto& path : all) {
    if (isFolder(std::filesystem::path(path).parent_path().string())) return path;
  }
#ifdef __APPLE__
  return all[0];
#else
  return all[1];
#endif
}

std::string AgentPlaces::shown(const std::string& path) const {
  if (!home.empty() && home != "/" && path.size() > home.size() && path.compare(0, home.size(), home) == 0 &&
      path[home.size()] == '/') {
    return "~" + path.substr(home.size());
  }
  return path;
}

std::string editJSON(const std::string& path, const std::string& shownPath, const std::string& done,
                     const std::function<bool(nlohmann::ordered_json&)>& edit, bool* ok,
                     const std::function<void()>& beforeWrite,
                     const std::function<bool(const nlohmann::ordered_json&)>& backupFits) {
  if (ok) *ok = false;
  std::string problem;
  auto file = CarefulFile::read(path, &problem);
  if (!file) return "Couldn't read " + shownPath + ": " + problem;
  auto object = parseJsonObject(file->bytes());
  if (!object) return shownPath + " isn't valid JSON, so I left it alone.";
  nlohmann::ordered_json edited = *object;
  try {
    if (!edit(edited)) {
      if (ok) *ok = true;
      return done;
    }
  } catch (const std::exception& e) {
    return "Couldn't change " + shownPath + " (" + e.what() + "), so I left it alone.";
  }
  if (!(backupFits && backupFits(*object)) && !file->backUp()) {
    return "Couldn't save a backup of " + shownPath + ", so I left it alone.";
  }
  const auto written = file->replace(jsonEdited(file->bytes(), edited), beforeWrite);
  switch (written.outcome) {
    case CarefulFile::Outcome::Written:
      if (ok) *ok = true;
      return done;
    case CarefulFile::Outcome::Changed:
      return shownPath + " changed while Vigilo was editing it; try again.";
    case CarefulFile::Outcome::Failed:
      break;
  }
  return "Couldn't write " + shownPath + ": " + written.message;
}


}  // namespace vigilo
