#include "integrations/ai_connect.h"

#include "platform/own_program.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sys/stat.h>
#include <unistd.h>

#include "agents/careful_file.h"
#include "agents/claude_hooks.h"
#include "integrations/toml_check.h"
#include "integrations/toml_top.h"
#include "platform/files.h"
#include "platform/spawn.h"

namespace vigilo {
namespace {

using ordered_json = nlohmann::ordered_json;

constexpr const char* kCodexTable = "mcp_servers.vigilo";
// The claude tool may stop to ask something on a first run; it gets this
// long before the file is edited instead.
constexpr std::chrono::milliseconds kToolTimeout = std::chrono::seconds(30);

bool isRunnableFile(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && ::access(path.c_str(), X_OK) == 0;
}

bool reachable(const std::string& path) {
  std::error_code ec;
  return std::filesystem::exists(path, ec);
}

std::optional<std::string> onPath(const std::string& searchPath, const std::string& name) {
  std::size_t start = 0;
  while (start <= searchPath.size()) {
    std::size_t colon = searchPath.find(':', start);
    if (colon == std::string::npos) colon = searchPath.size();
    std::string dir = searchPath.substr(start, colon - start);
    if (dir.empty()) dir = ".";
    const std::string candidate = dir + "/" + name;
    if (isRunnableFile(candidate)) return candidate;
    start = colon + 1;
  }
  return std::nullopt;
}


// The "mcpServers"."vigilo" entry of Claude Code's and the Claude app's files.
ordered_json serverEntry(const ServerCommand& server, bool withType) {
  ordered_json entry = ordered_json::object();
  if (withType) entry["type"] = "stdio";
  entry["command"] = server.command;
  entry["args"] = server.args;
  if (!server.env.empty()) {
    ordered_json env = ordered_json::object();
    for (const auto& [k, v] : server.env) env[k] = v;
    entry["env"] = env;
  }
  return entry;
}

// Sets "mcpServers"."vigilo"; false when it already holds exactly that.
bool setServer(ordered_json& settings, const ordered_json& entry) {
  ordered_json& servers = settings["mcpServers"];
  if (servers.is_null()) servers = ordered_json::object();
  if (!servers.is_object()) throw std::runtime_error("\"mcpServers\" isn't an object");
  auto it = servers.find("vigilo");
  if (it != servers.end() && *it == entry) return false;
  servers["vigilo"] = entry;
  return true;
}

// Removes "mcpServers"."vigilo"; "mcpServers" goes too when it is left
// empty and `keepEmpty` is false (Vigilo added it).
bool removeServer(ordered_json& settings, bool keepEmpty) {
  auto servers = settings.find("mcpServers");
  if (servers == settings.end() || !servers->is_object() || !servers->contains("vigilo")) return false;
  servers->erase("vigilo");
  if (servers->empty() && !keepEmpty) settings.erase("mcpServers");
  return true;
}

// Whether the backup of `path` is `current` without Vigilo's entry: then
// it is the copy from before Vigilo's first change, and connecting again
// (after Vigilo moved) keeps it rather than save Vigilo's older entry.
bool backupBeforeEntry(const std::string& path, const ordered_json& current) {
  auto servers = current.find("mcpServers");
  if (servers == current.end() || !servers->is_object() || !servers->contains("vigilo")) return false;
  auto bytes = readWholeFile(path + ".vigilo-backup");
  auto backup = bytes ? parseJsonObject(*bytes) : std::nullopt;
  if (!backup || (backup->contains("mcpServers") && !(*backup)["mcpServers"].is_object())) return false;
  setServer(*backup, (*servers)["vigilo"]);
  return *backup == current;
}

bool hasServer(const std::string& path) {
  auto file = CarefulFile::read(path);
  if (!file) return false;
  auto settings = parseJsonObject(file->bytes());
  if (!settings) return false;
  auto servers = settings->find("mcpServers");
  return servers != settings->end() && servers->is_object() && servers->contains("vigilo");
}

// Where Vigilo's tables lie: "[mcp_servers.vigilo]" and its sub-tables
// ("[mcp_servers.vigilo.env]", which Codex itself writes), each from its
// header to just after its last pair, so blank lines and comments that lead
// to the next table stay. In the order of the text.
std::vector<std::pair<std::size_t, std::size_t>> codexVigiloRanges(const std::string& text) {
  const std::string sub = std::string(kCodexTable) + ".";
  std::vector<std::pair<std::size_t, std::size_t>> ranges;
  const auto scan = TOMLTop::scan(text);
  for (std::size_t i = 0; i < scan.statements.size(); ++i) {
    const auto& s = scan.statements[i];
    if (!s.header || (s.name != kCodexTable && s.name.rfind(sub, 0) != 0)) continue;
    std::size_t end = s.end;
    for (std::size_t j = i + 1; j < scan.statements.size() && !scan.statements[j].header; ++j) {
      end = scan.statements[j].end;
    }
    ranges.emplace_back(s.begin, end);
  }
  return ranges;
}

// `text` without the given ranges (in order, not overlapping).
std::string erased(std::string text, const std::vector<std::pair<std::size_t, std::size_t>>& ranges) {
  for (auto r = ranges.rbegin(); r != ranges.rend(); ++r) text.erase(r->first, r->second - r->first);
  return text;
}

// Why Vigilo leaves Codex's file alone when it doesn't parse.
std::string notToml(const std::string& shown, const std::string& problem) {
  return shown + " isn't valid TOML (" + problem + "), so I left it alone. Fix it or run: codex mcp list";
}


// The line that tells the person what the hooks give, or why they couldn't
// be added.
std::string hooksOutcome(const std::optional<std::string>& problem) {
  if (problem) return " Couldn't add its status hooks: " + *problem;
  return " It now tells Vigilo when it's working, waiting for you, or done (new sessions).";
}

// Whether Gemini CLI's settings hold anything of Vigilo's.
bool hasGeminiVigilo(const ordered_json& settings) {
  auto servers = settings.find("mcpServers");
  if (servers != settings.end() && servers->is_object() && servers->contains("vigilo")) return true;
  return AgentHooks::without(settings, HookFormat::gemini()).second;
}

// Whether Gemini CLI's settings switch all hooks off.
bool geminiHooksOff(const ordered_json& settings) {
  auto config = settings.find("hooksConfig");
  if (config == settings.end() || !config->is_object()) return false;
  auto enabled = config->find("enabled");
  return enabled != config->end() && enabled->is_boolean() && !enabled->get<bool>();
}

}  // namespace

int runTool(const std::string& program, const std::vector<std::string>& args) {
  SpawnOptions options;
  options.argv = {program};
  options.argv.insert(options.argv.end(), args.begin(), args.end());
  options.in = SpawnStream::null();
  options.out = SpawnStream::null();
  options.err = SpawnStream::null();
  const Spawned tool = spawnProcess(options);
  if (!tool) return -1;
  const auto ended = waitForExit(tool.pid, kToolTimeout);
  if (!ended) {
    ::kill(tool.pid, SIGKILL);
    waitForExit(tool.pid);
    return -1;
  }
  return ended->signalled ? -1 : ended->code;
}

AIConnect::AIConnect(AgentPlaces places, ToolRunner runner) : places_(std::move(places)), runner_(std::move(runner)) {}

ServerCommand AIConnect::serverCommand(const AgentPlaces& places) {
  ServerCommand s;
  const std::string installed(ClaudeHooks::kInstalledTool);
  if (isRunnableFile(installed)) {
    s.command = installed;
  } else if (auto self = ownExecutable()) {
    // The app and the tool are one executable here, so no "cli" argument.
    s.command = *self;
  } else if (auto found = findExecutable("vigilo")) {
    s.command = *found;
  } else {
    s.command = installed;
  }
  s.args = {"mcp"};
  if (!places.vigiloHome.empty()) s.env.emplace_back("VIGILO_HOME", places.vigiloHome);
  return s;
}

std::optional<std::string> AIConnect::claudeCodeBinary() const {
  for (const std::string& p : {places_.home + "/.claude/local/claude", places_.home + "/.local/bin/claude"}) {
    if (isRunnableFile(p)) return p;
  }
  if (auto p = onPath(places_.searchPath, "claude")) return p;
  for (const std::string& p : places_.systemClaudePaths) {
    if (isRunnableFile(p)) return p;
  }
  if (isRunnableFile(places_.home + "/.npm-global/bin/claude")) return places_.home + "/.npm-global/bin/claude";
  return std::nullopt;
}

bool AIConnect::claudeCodeInstalled() const {
  return claudeCodeBinary().has_value() || reachable(places_.home + "/.claude") || reachable(places_.claudeJson());
}
bool AIConnect::claudeCodeConnected() const { return hasServer(places_.claudeJson()); }
bool AIConnect::codexInstalled() const {
  return onPath(places_.searchPath, "codex").has_value() ||
         reachable(std::filesystem::path(places_.codexConfig()).parent_path().string());
}
bool AIConnect::codexConnected() const {
  auto text = readWholeFile(places_.codexConfig());
  return text && (!codexVigiloRanges(*text).empty() || codexInlineVigilo(*text));
}
bool AIConnect::geminiInstalled() const {
  return onPath(places_.searchPath, "gemini").has_value() || reachable(places_.home + "/.gemini");
}
bool AIConnect::geminiConnected() const { return hasServer(places_.geminiSettings()); }
bool AIConnect::claudeAppInstalled() const {
  return reachable(std::filesystem::path(places_.claudeAppConfig()).parent_path().string());
}
bool AIConnect::claudeAppConnected() const { return hasServer(places_.claudeAppConfig()); }

std::string AIConnect::connectClaudeCode(const ServerCommand& server, const std::string& hookCommand) {
  std::string message;
  if (auto claude = claudeCodeBinary()) {
    // An older entry (another path) is removed first, so the new one replaces it.
    runner_(*claude, {"mcp", "remove", "--scope", "user", "vigilo"});
    std::vector<std::string> add{"mcp", "add", "--scope", "user", "vigilo"};
    for (const auto& [k, v] : server.env) {
      add.push_back("--env");
      add.push_back(k + "=" + v);
    }
    add.push_back("--");
    add.push_back(server.command);
    add.insert(add.end(), server.args.begin(), server.args.end());
    if (runner_(*claude, add) == 0) message = "Added to Claude Code for all projects.";
  }
  if (message.empty()) {
    const ordered_json entry = serverEntry(server, true);
    const std::string path = places_.claudeJson();
    message = editJSON(path, places_.shown(path), "Added to Claude Code (~/.claude.json).",
                       [&](ordered_json& s) { return setServer(s, entry); }, nullptr, {},
                       [&](const ordered_json& now) { return backupBeforeEntry(path, now); });
  }
  return message + hooksOutcome(ClaudeHooks::install(places_.claudeSettings(), hookCommand));
}

bool AIConnect::codexHooksOff(const std::string& text) {
  for (const auto& s : TOMLTop::scan(text).statements) {
    if (s.header) continue;
    const std::string full = s.table.empty() ? s.name : s.table + "." + s.name;
    if (full != "features.hooks" && full != "features.codex_hooks") continue;
    const std::string line = text.substr(s.begin, s.end - s.begin);
    const auto eq = TOMLTop::keyEnd(line);
    if (!eq) continue;
    const std::size_t value = line.find_first_not_of(" \t=", *eq);
    if (value != std::string::npos && line.compare(value, 5, "false") == 0) return true;
  }
  return false;
}

bool AIConnect::codexInlineVigilo(const std::string& text) {
  const std::string prefix = std::string(kCodexTable) + ".";
  for (const auto& s : TOMLTop::scan(text).statements) {
    if (s.header) continue;
    const std::string full = s.table.empty() ? s.name : s.table + "." + s.name;
    // Inside Vigilo's own table (or one of its sub-tables).
    if (s.table == kCodexTable || s.table.rfind(prefix, 0) == 0) continue;
    if (full == kCodexTable || full.rfind(prefix, 0) == 0) return true;
  }
  return false;
}

std::optional<std::string> AIConnect::withCodexTable(const std::string& text, const ServerCommand& server) {
  if (codexInlineVigilo(text)) return std::nullopt;
  const std::string eol = TOMLTop::lineBreak(text);
  std::string table = "[" + std::string(kCodexTable) + "]" + eol;
  table += "command = " + TOMLTop::quote(server.command) + eol;
  table += "args = [";
  for (std::size_t i = 0; i < server.args.size(); ++i) table += (i ? ", " : "") + TOMLTop::quote(server.args[i]);
  table += "]" + eol;
  if (!server.env.empty()) {
    table += "env = { ";
    for (std::size_t i = 0; i < server.env.size(); ++i) {
      table += (i ? ", " : "") + server.env[i].first + " = " + TOMLTop::quote(server.env[i].second);
    }
    table += " }" + eol;
  }
  const auto ranges = codexVigiloRanges(text);
  if (!ranges.empty()) {
    // The first table becomes Vigilo's whole entry (its environment inline);
    // the sub-tables go, so no key is defined twice.
    std::string out = erased(text, {ranges.begin() + 1, ranges.end()});
    const auto& first = ranges.front();
    // A table at the very end without a final line break keeps it that way.
    if (first.second == out.size() && out.back() != '\n') table.resize(table.size() - eol.size());
    return out.replace(first.first, first.second - first.first, table);
  }
  // One line break before it: a blank line after a file that ends in one,
  // the missing final one otherwise; removing it takes that one line break
  // away again.
  if (text.empty()) return table;
  return text + eol + table;
}

std::string AIConnect::withoutCodexTable(const std::string& text) {
  const auto ranges = codexVigiloRanges(text);
  if (ranges.empty()) return text;
  std::string out = erased(text, ranges);
  // The line break that came with an appended table goes with it.
  const std::string eol = TOMLTop::lineBreak(text);
  if (ranges.back().second == text.size() && out.size() >= eol.size() &&
      out.compare(out.size() - eol.size(), eol.size(), eol) == 0) {
    out.resize(out.size() - eol.size());
  }
  return out;
}

std::string AIConnect::connectCodex(const ServerCommand& server, const std::string& hookCommand) {
  std::string message = connectCodexServer(server);
  if (hookCommand.empty()) return message;
  const std::string hooks = places_.codexHooks();
  const auto problem = AgentHooks::install(hooks, hookCommand, HookFormat::codex(places_.shown(hooks)));
  message += hooksOutcome(problem);
  if (problem) return message;
  // Turning Codex's hooks on, or trusting ours, is the person's call.
  const auto config = readWholeFile(places_.codexConfig());
  if (config && codexHooksOff(*config)) {
    return message + " Codex's hooks are turned off in " + places_.shown(places_.codexConfig()) +
           " ([features] hooks = false); Vigilo left that to you.";
  }
  return message + " Codex runs new hooks only once you trust them: type /hooks in Codex and trust Vigilo's.";
}

std::string AIConnect::connectGemini(const ServerCommand& server, const std::string& hookCommand) {
  const std::string path = places_.geminiSettings();
  const std::string shown = places_.shown(path);
  const ordered_json entry = serverEntry(server, false);
  bool hooksOff = false;
  bool ok = false;
  std::string message = editJSON(
      path, shown, "Added to Gemini CLI (" + shown + ").",
      [&](ordered_json& s) {
        const ordered_json before = s;
        setServer(s, entry);
        auto hooked = AgentHooks::with(s, hookCommand, HookFormat::gemini());
        if (!hooked) throw std::runtime_error("its \"hooks\" aren't in the form Gemini CLI uses");
        s = std::move(*hooked);
        hooksOff = geminiHooksOff(s);
        return s != before;
      },
      &ok, {},
      // Connecting again keeps the copy from before Vigilo's first change.
      [&](const ordered_json& now) { return hasGeminiVigilo(now) && reachable(path + ".vigilo-backup"); });
  if (!ok) return message;
  message += hooksOutcome(std::nullopt);
  if (hooksOff) {
    message += " Gemini CLI's hooks are turned off there (hooksConfig.enabled is false); Vigilo left that to you.";
  }
  return message;
}

std::string AIConnect::connectCodexServer(const ServerCommand& server) {
  const std::string path = places_.codexConfig();
  const std::string shown = places_.shown(path);
  auto file = CarefulFile::read(path);
  if (!file) return "Couldn't read " + shown + ", so I left it alone.";
  if (const TomlCheck before = checkToml(file->bytes()); !before.valid) return notToml(shown, before.problem);
  auto updated = withCodexTable(file->bytes(), server);
  if (!updated) return "Codex already has an vigilo entry written by hand; left it as it is.";
  const std::string done = "Added to Codex (" + shown + "). New sessions can use Vigilo.";
  if (file->existed() && *updated == file->bytes()) return done;
  if (const TomlCheck after = checkToml(*updated); !after.valid || after.vigiloCommand != server.command) {
    return "Couldn't add Vigilo to " + shown + " without breaking it, so I left it alone.";
  }
  // Connecting again keeps a backup that is this file without Vigilo's table.
  const auto backup = readWholeFile(file->backupPath());
  const bool backupFits = backup && !codexVigiloRanges(file->bytes()).empty() && withoutCodexTable(file->bytes()) == *backup;
  if (Result r = backupFits ? Result::ok() : file->backUp(); !r) return "Couldn't write Codex's config: " + r.message();
  const auto written = file->replace(*updated);
  if (written.outcome == CarefulFile::Outcome::Changed) {
    return "Couldn't write Codex's config: it changed while Vigilo was editing it; try again.";
  }
  if (written.outcome == CarefulFile::Outcome::Failed) return "Couldn't write Codex's config: " + written.message;
  return done;
}

std::string AIConnect::connectClaudeApp(const ServerCommand& server) {
  const std::string path = places_.claudeAppConfig();
  if (!claudeAppInstalled()) {
    return "The Claude app isn't installed here (there is no " +
           places_.shown(std::filesystem::path(path).parent_path().string()) + " folder), so nothing was changed.";
  }
  const ordered_json entry = serverEntry(server, false);
  return editJSON(path, places_.shown(path), "Added to the Claude app. Restart it to pick Vigilo up.",
                  [&](ordered_json& s) { return setServer(s, entry); }, nullptr, {},
                  [&](const ordered_json& now) { return backupBeforeEntry(path, now); });
}

void AIConnect::disconnectGemini(std::vector<std::string>& lines) {
  const std::string path = places_.geminiSettings();
  const std::string shown = places_.shown(path);
  auto file = CarefulFile::read(path);
  auto settings = file ? parseJsonObject(file->bytes()) : std::nullopt;
  if (!settings || !hasGeminiVigilo(*settings)) return;
  const std::string done = "Removed from Gemini CLI (" + shown + ").";
  // The backup holds the file from before Vigilo's first change: an
  // "mcpServers" it had stays, even empty. Without one the file is Vigilo's
  // own and goes when nothing else is left in it.
  const auto backup = readWholeFile(file->backupPath());
  const auto before = backup ? parseJsonObject(*backup) : std::nullopt;
  auto stripKeeping = [](ordered_json& s, bool keep) {
    const bool server = removeServer(s, keep);
    auto [rest, hooks] = AgentHooks::without(std::move(s), HookFormat::gemini());
    s = std::move(rest);
    return server || hooks;
  };
  // A backup that held only Vigilo's entries was saved when it connected
  // again: the file is still Vigilo's own.
  ordered_json beforeRest = before.value_or(ordered_json::object());
  const bool ours = !backup || (before && stripKeeping(beforeRest, false) && beforeRest.empty());
  const bool keepEmpty = !ours && before && before->contains("mcpServers");
  auto strip = [&](ordered_json& s) { return stripKeeping(s, keepEmpty); };
  if (ours) {
    ordered_json rest = *settings;
    if (strip(rest) && rest.empty() && file->remove().outcome == CarefulFile::Outcome::Written) {
      std::error_code ec;
      if (backup) std::filesystem::remove(file->backupPath(), ec);
      lines.push_back(done);
      return;
    }
  }
  lines.push_back(editJSON(path, shown, done, strip));
}

std::vector<std::string> AIConnect::disconnectAll() {
  std::vector<std::string> lines;
  if (auto claude = claudeCodeBinary()) {
    if (runner_(*claude, {"mcp", "remove", "--scope", "user", "vigilo"}) == 0) {
      lines.push_back("Removed from Claude Code.");
    }
  }
  auto removeFrom = [&](const std::string& path, const std::string& name) {
    if (!hasServer(path)) return;
    const std::string shown = places_.shown(path);
    const std::string done = "Removed from " + name + " (" + shown + ").";
    // The backup holds the file as it was before Vigilo last changed it
    // (less an older entry of Vigilo's, when it was connected again): an
    // "mcpServers" it had stays, even empty. Without a backup, or with one
    // that held only Vigilo's entry, the file is Vigilo's own and goes when
    // nothing else is left in it.
    const auto backup = readWholeFile(path + ".vigilo-backup");
    auto before = backup ? parseJsonObject(*backup) : std::nullopt;
    const bool hadEntry = before && removeServer(*before, false);
    const bool keepEmpty = before && before->contains("mcpServers");
    if (!backup || (hadEntry && before->empty())) {
      auto file = CarefulFile::read(path);
      auto settings = file ? parseJsonObject(file->bytes()) : std::nullopt;
      if (settings && removeServer(*settings, false) && settings->empty()) {
        const auto removed = file->remove();
        if (removed.outcome == CarefulFile::Outcome::Written) {
          std::error_code ec;
          std::filesystem::remove(file->backupPath(), ec);  // it held only Vigilo's entry
          lines.push_back(done);
          return;
        }
      }
    }
    lines.push_back(editJSON(path, shown, done, [&](ordered_json& s) { return removeServer(s, keepEmpty); }));
  };
  removeFrom(places_.claudeJson(), "Claude Code");
  for (const auto& path : places_.claudeAppConfigs()) removeFrom(path, "the Claude app");

  const std::string codex = places_.codexConfig();
  const std::string codexShown = places_.shown(codex);
  if (auto file = CarefulFile::read(codex); !file) {
    lines.push_back("Couldn't read " + codexShown + ", so I left it alone.");
  } else if (file->existed()) {
    const std::string updated = withoutCodexTable(file->bytes());
    const TomlCheck before = updated != file->bytes() ? checkToml(file->bytes()) : TomlCheck{};
    const TomlCheck after = before.valid ? checkToml(updated) : TomlCheck{};
    if (updated == file->bytes()) {
      // Nothing of Vigilo's there.
    } else if (!before.valid) {
      lines.push_back(notToml(codexShown, before.problem));
    } else if (!after.valid || after.hasVigilo) {
      lines.push_back("Couldn't take Vigilo out of " + codexShown + " without breaking it, so I left it alone.");
    } else {
      // A file Vigilo made (it has no backup, or one that held only Vigilo's
      // older table) goes, with that backup, when it held only Vigilo's table.
      const auto backup = readWholeFile(file->backupPath());
      const bool ours = updated.empty() && (!backup || (*backup != withoutCodexTable(*backup) &&
                                                        withoutCodexTable(*backup).empty()));
      const bool backedUp = ours || static_cast<bool>(file->backUp());
      const auto written = ours ? file->remove() : backedUp ? file->replace(updated) : CarefulFile::WriteResult{};
      std::error_code ec;
      if (ours && written.outcome == CarefulFile::Outcome::Written) std::filesystem::remove(file->backupPath(), ec);
      lines.push_back(written.outcome == CarefulFile::Outcome::Written
                          ? "Removed from Codex (" + codexShown + ")."
                          : "Couldn't write Codex's config: " +
                                (written.message.empty() ? std::string("it changed or couldn't be backed up; try again.")
                                                         : written.message));
    }
  }
  if (auto problem = ClaudeHooks::uninstall(places_.claudeSettings())) {
    lines.push_back("Couldn't remove Claude Code's status hooks: " + *problem);
  }
  const std::string codexHooks = places_.codexHooks();
  if (auto problem = AgentHooks::uninstall(codexHooks, HookFormat::codex(places_.shown(codexHooks)))) {
    lines.push_back("Couldn't remove Codex's status hooks: " + *problem);
  }
  disconnectGemini(lines);
  return lines;
}

}  // namespace vigilo
