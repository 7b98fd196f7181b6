#include "integrations/agent_files.h"

#include <cstdlib>
#include <filesystem>

#include <openssl/evp.h>

#include "agents/careful_file.h"
#include "platform/platform.h"

namespace vigilo {
namespace {

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v != nullptr ? v : "";
}

bool isFolder(const std::string& path) {
  std::error_code ec;
  return std::filesystem::is_directory(path, ec);
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
  const std::string vh = env("VIGILO_HOME");
  if (!vh.empty() && vh != xdgAppFolder()) p.vigiloHome = vh;
  return p;
}

std::string AgentPlaces::codexConfig() const {
  return (codexHome.empty() ? home + "/.codex" : codexHome) + "/config.toml";
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

std::string jsonLike(const nlohmann::ordered_json& value, std::string_view like) {
  int width = 2;
  char fill = ' ';
  // The first indented line shows the file's indentation.
  for (std::size_t nl = like.find('\n'); nl != std::string_view::npos; nl = like.find('\n', nl + 1)) {
    std::size_t i = nl + 1;
    while (i < like.size() && (like[i] == ' ' || like[i] == '\t')) ++i;
    if (i == nl + 1 || i >= like.size() || like[i] == '\n' || like[i] == '\r') continue;
    fill = like[nl + 1];
    width = fill == '\t' ? 1 : static_cast<int>(i - nl - 1);
    break;
  }
  std::string text = value.dump(width, fill, false, nlohmann::ordered_json::error_handler_t::replace);
  const bool crlf = like.find("\r\n") != std::string_view::npos;
  const bool finalBreak = like.empty() || like.back() == '\n';
  if (crlf) {
    std::string out;
    out.reserve(text.size() + text.size() / 16);
    for (char c : text) {
      if (c == '\n') out += '\r';
      out += c;
    }
    text = std::move(out);
  }
  if (finalBreak) text += crlf ? "\r\n" : "\n";
  return text;
}

std::string editJSON(const std::string& path, const std::string& shownPath, const std::string& done,
                     const std::function<bool(nlohmann::ordered_json&)>& edit, bool* ok,
                     const std::function<void()>& beforeWrite) {
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
  if (!file->backUp()) return "Couldn't save a backup of " + shownPath + ", so I left it alone.";
  const auto written = file->replace(jsonLike(edited, file->bytes()), beforeWrite);
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
