#include "platform/linux/desktop_entries.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

namespace vigilo {
namespace {

constexpr std::array<std::string_view, 22> kRunners = {
    "sh",   "bash",    "dash",  "zsh",      "fish",   "env",   "python", "python3", "perl",     "ruby",  "node",
    "java", "flatpak", "snap",  "gjs",      "sudo",   "pkexec", "xdg-open", "gio",   "systemctl", "dbus-send", "exo-open"};

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r')) s.remove_suffix(1);
  return s;
}

// The words of an Exec= line, with its double quotes taken off.
std::vector<std::string> words(std::string_view exec) {
  std::vector<std::string> out;
  std::string cur;
  bool quoted = false, any = false;
  for (std::size_t i = 0; i < exec.size(); ++i) {
    const char c = exec[i];
    if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if (c == '\\' && quoted && i + 1 < exec.size()) {
      cur += exec[++i];
    } else if ((c == ' ' || c == '\t') && !quoted) {
      if (any || !cur.empty()) out.push_back(cur);
      cur.clear();
      any = false;
    } else {
      cur += c;
    }
  }
  if (any || !cur.empty()) out.push_back(cur);
  return out;
}

std::string baseName(std::string_view path) {
  const auto slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string resolve(const std::string& program) {
  std::error_code ec;
  if (program.find('/') != std::string::npos) {
    auto real = std::filesystem::canonical(program, ec);
    return ec ? program : real.string();
  }
  const char* env = std::getenv("PATH");
  std::string dirs = std::string(env != nullptr ? env : "") + ":/usr/local/bin:/usr/bin:/bin";
  std::stringstream ss(dirs);
  std::string dir;
  while (std::getline(ss, dir, ':')) {
    if (dir.empty()) continue;
    auto real = std::filesystem::canonical(dir + "/" + program, ec);
    if (!ec) return real.string();
  }
  return program;
}

}  // namespace

std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, const std::string& id, const std::string& path) {
  DesktopEntry e;
  e.id = id;
  e.path = path;
  bool inEntry = false, application = false;
  std::string exec;
  std::size_t at = 0;
  while (at <= text.size()) {
    std::size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    std::string_view line = trim(text.substr(at, end - at));
    at = end + 1;
    if (line.empty() || line.front() == '#') continue;
    if (line.front() == '[') {
      inEntry = line == "[Desktop Entry]";
      continue;
    }
    if (!inEntry) continue;
    const auto eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    const std::string_view key = trim(line.substr(0, eq));
    const std::string_view value = trim(line.substr(eq + 1));
    if (key == "Type") application = value == "Application";
    if (key == "Name") e.name = value;
    if (key == "Exec") exec = value;
    if ((key == "NoDisplay" || key == "Hidden") && value == "true") return std::nullopt;
  }
  if (!application || exec.empty()) return std::nullopt;
  std::vector<std::string> w = words(exec);
  std::size_t first = 0;
  // "env NAME=value program ...": the program comes after the assignments.
  if (!w.empty() && baseName(w[0]) == "env") {
    first = 1;
    while (first < w.size() && w[first].find('=') != std::string::npos) ++first;
  }
  if (first >= w.size()) return std::nullopt;
  e.program = w[first];
  if (std::find(kRunners.begin(), kRunners.end(), baseName(e.program)) != kRunners.end()) return std::nullopt;
  if (e.name.empty()) e.name = id;
  return e;
}

std::vector<std::string> xdgDataDirs() {
  std::vector<std::string> out;
  const char* home = std::getenv("HOME");
  const char* dataHome = std::getenv("XDG_DATA_HOME");
  if (dataHome != nullptr && dataHome[0] == '/') {
    out.emplace_back(dataHome);
  } else if (home != nullptr) {
    out.push_back(std::string(home) + "/.local/share");
  }
  const char* dirs = std::getenv("XDG_DATA_DIRS");
  std::stringstream ss(dirs != nullptr && dirs[0] != '\0' ? dirs : "/usr/local/share:/usr/share");
  std::string d;
  while (std::getline(ss, d, ':')) {
    if (!d.empty() && d[0] == '/') out.push_back(d);
  }
  return out;
}

std::vector<DesktopEntry> readDesktopEntries(const std::vector<std::string>& dataDirs) {
  std::vector<DesktopEntry> out;
  std::set<std::string> seen;
  for (const std::string& dir : dataDirs) {
    std::error_code ec;
    std::filesystem::directory_iterator it(dir + "/applications", ec), end;
    for (; !ec && it != end; it.increment(ec)) {
      const auto& file = it->path();
      if (file.extension() != ".desktop") continue;
      const std::string id = file.stem().string();
      if (!seen.insert(id).second) continue;
      std::ifstream in(file, std::ios::binary);
      std::string text;
      text.resize(64 * 1024);
      in.read(text.data(), static_cast<std::streamsize>(text.size()));
      text.resize(static_cast<std::size_t>(in.gcount()));
      if (auto e = parseDesktopEntry(text, id, file.string())) {
        e->program = resolve(e->program);
        out.push_back(std::move(*e));
      }
    }
  }
  return out;
}

const DesktopEntry* entryFor(const std::vector<DesktopEntry>& entries, const ProcessInfo& p) {
  if (p.path.empty()) return nullptr;
  for (const DesktopEntry& e : entries) {
    if (e.program == p.path) return &e;
  }
  const std::string name = baseName(p.path);
  for (const DesktopEntry& e : entries) {
    if (baseName(e.program) == name) return &e;
  }
  return nullptr;
}

}  // namespace vigilo
