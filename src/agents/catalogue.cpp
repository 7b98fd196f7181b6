#include "agents/catalogue.h"

#include <algorithm>
#include <cctype>
#include <initializer_list>

namespace vigilo {

std::string_view toText(AgentState s) {
  switch (s) {
    case AgentState::Idle:
      return "idle";
    case AgentState::Working:
      return "working";
    case AgentState::Waiting:
      return "waiting";
    case AgentState::Finished:
      return "finished";
  }
  return "idle";
}

std::optional<AgentState> parseAgentState(std::string_view s) {
  if (s == "idle") return AgentState::Idle;
  if (s == "working") return AgentState::Working;
  if (s == "waiting") return AgentState::Waiting;
  if (s == "finished") return AgentState::Finished;
  return std::nullopt;
}

int rank(AgentState s) {
  switch (s) {
    case AgentState::Idle:
      return 0;
    case AgentState::Finished:
      return 1;
    case AgentState::Waiting:
      return 2;
    case AgentState::Working:
      return 3;
  }
  return 0;
}

const std::vector<AgentKind>& builtInAgents() {
  static const std::vector<AgentKind> kinds = {
      {"claude-code", "Claude Code", {"claude"}, {"@anthropic-ai/claude-code", "/claude-code/", "/bin/claude"},
       {".claude/projects"}, 0.02},
      {"codex", "Codex", {"codex"}, {"@openai/codex", "/bin/codex"}, {".codex/sessions"}, 0.02},
      {"gemini", "Gemini CLI", {"gemini"}, {"@google/gemini-cli", "/bin/gemini"}, {".gemini/tmp"}, 0.02},
      {"cursor-agent", "Cursor Agent", {"cursor-agent"}, {"cursor-agent"}, {}, 0.02},
      {"opencode", "OpenCode", {"opencode"}, {"opencode-ai"}, {}, 0.02},
      {"aider", "Aider", {"aider"}, {"/bin/aider", "aider-chat"}, {}, 0.02},
      {"copilot", "Copilot CLI", {"copilot"}, {"@github/copilot"}, {}, 0.02},
      {"amp", "Amp", {"amp"}, {"@sourcegraph/amp"}, {}, 0.02},
      {"ollama", "Ollama", {"ollama"}, {}, {}, 0.5},
  };
  return kinds;
}

const AgentKind& claudeAppKind() {
  static const AgentKind kind{"claude-app", "Claude app", {}, {}, {}, 0.12};
  return kind;
}

std::string baseName(std::string_view path) {
  auto slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

bool isInterpreter(std::string_view name) {
  static const std::string_view kNames[] = {"node", "bun", "deno", "python", "python3", "Python"};
  if (std::find(std::begin(kNames), std::end(kNames), name) != std::end(kNames)) return true;
  return name.rfind("python", 0) == 0;
}

namespace {

using KindLists = std::initializer_list<const std::vector<AgentKind>*>;

const AgentKind* byExecutable(KindLists lists, std::string_view name) {
  if (name.empty()) return nullptr;
  for (const auto* list : lists) {
    for (const AgentKind& k : *list) {
      if (k.executables.count(std::string(name))) return &k;
    }
  }
  return nullptr;
}

// A release binary named for its platform: "codex-aarch64-apple-darwin",
// "codex-x86_64-unknown-linux-musl" (Homebrew's cask links it as "codex").
const AgentKind* byTargetName(KindLists lists, std::string_view name) {
  static constexpr std::string_view kArchitectures[] = {"x86_64", "aarch64", "arm64", "amd64", "x64", "universal"};
  for (const auto* list : lists) {
    for (const AgentKind& k : *list) {
      for (const std::string& exe : k.executables) {
        if (name.size() <= exe.size() + 1 || name.compare(0, exe.size(), exe) != 0 || name[exe.size()] != '-') continue;
        const std::string_view rest = name.substr(exe.size() + 1);
        for (std::string_view arch : kArchitectures) {
          if (rest.rfind(arch, 0) == 0) return &k;
        }
      }
    }
  }
  return nullptr;
}

// A self-updating install keeps each release in "<agent>/versions/<version>"
// (Claude Code: "~/.local/share/claude/versions/2.0.14", the file named by
// its version; Cursor Agent: "…/cursor-agent/versions/<version>/" with its
// own node and index.js).
const AgentKind* byVersionFolder(KindLists lists, std::string_view path) {
  for (const auto* list : lists) {
    for (const AgentKind& k : *list) {
      for (const std::string& exe : k.executables) {
        const std::string folder = "/" + exe + "/versions/";
        const auto at = path.find(folder);
        if (at != std::string_view::npos && at + folder.size() < path.size()) return &k;
      }
    }
  }
  return nullptr;
}

const AgentKind* byHint(KindLists lists, std::string_view text) {
  for (const auto* list : lists) {
    for (const AgentKind& k : *list) {
      for (const std::string& hint : k.scriptHints) {
        if (text.find(hint) != std::string_view::npos) return &k;
      }
    }
  }
  return nullptr;
}

std::string_view withoutScriptExtension(std::string_view name) {
  for (std::string_view ext : {".js", ".mjs", ".cjs", ".ts", ".py"}) {
    if (name.size() > ext.size() && name.substr(name.size() - ext.size()) == ext) {
      return name.substr(0, name.size() - ext.size());
    }
  }
  return name;
}

// Package runners fetch a package and start its program as a child, which is
// then the agent; the runner itself is not one, even though the package's
// name stands in its arguments.
bool isPackageRunner(std::string_view script) {
  static constexpr std::string_view kRunners[] = {"npx", "npx-cli", "npm", "npm-cli", "pnpm",
                                                  "pnpx", "yarn", "bunx", "uvx", "pipx"};
  return std::find(std::begin(kRunners), std::end(kRunners), script) != std::end(kRunners);
}

// The program an interpreter runs: its first argument that is not an option
// (after bun's and deno's "run"), or the module of "-m". Options that take a
// separate value skip it.
std::optional<std::string> scriptOf(std::string_view interpreter, const std::vector<std::string>& args) {
  static constexpr std::string_view kWithValue[] = {"-r", "--require", "--import", "--loader", "-X", "-W",
                                                    "--title", "--conditions", "-C"};
  const bool subcommands = interpreter == "bun" || interpreter == "deno";
  for (std::size_t i = 1; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "-m") return i + 1 < args.size() ? std::optional(args[i + 1]) : std::nullopt;
    if (subcommands && a == "run") continue;
    // "bun x <package>" runs a package the way npx does.
    if (subcommands && a == "x") return std::string("npx");
    if (a.empty() || a.front() != '-') return a;
    if (std::find(std::begin(kWithValue), std::end(kWithValue), a) != std::end(kWithValue)) ++i;
  }
  return std::nullopt;
}

}  // namespace

std::optional<AgentKind> matchKind(std::string_view path, const std::vector<std::string>& args,
                                   const std::vector<AgentKind>& extra) {
  const KindLists lists = {&builtInAgents(), &extra};
  const std::string name = baseName(path);
  if (name.empty()) return std::nullopt;
  std::string argv0 = args.empty() ? std::string() : baseName(args.front());
  if (!argv0.empty() && argv0.front() == '-') argv0.erase(0, 1);  // a login shell's "-zsh"
  // A package runner, also as the title it set ("npm exec @openai/codex").
  const std::string title = args.empty() ? std::string() : baseName(args.front().substr(0, args.front().find(' ')));
  if (isPackageRunner(title)) return std::nullopt;
  const bool interpreter = isInterpreter(name);
  if (const AgentKind* k = byExecutable(lists, name)) return *k;
  if (const AgentKind* k = byTargetName(lists, name)) return *k;
  // Started through a link named for the agent ("~/.local/bin/claude" to a
  // versioned file), or an agent that sets its process title.
  if (const AgentKind* k = byExecutable(lists, argv0)) return *k;
  // A versioned file started by its own path. Started under another name it
  // serves as that tool: one binary can be several, picked by argv[0].
  if (argv0.empty() || argv0 == name) {
    if (const AgentKind* k = byVersionFolder(lists, path)) return *k;
  }
  if (!interpreter) return std::nullopt;

  const std::optional<std::string> script = scriptOf(name, args);
  if (script && isPackageRunner(withoutScriptExtension(baseName(*script)))) return std::nullopt;
  std::string joined;
  for (std::size_t i = 0; i < args.size() && i < 3; ++i) joined += (i ? " " : "") + args[i];
  if (const AgentKind* k = byHint(lists, joined)) return *k;
  if (!script) return std::nullopt;
  // The script by the package it lies in, by the name it was linked as
  // ("node ~/.nvm/versions/node/v22.1.0/bin/copilot"), or by its folder.
  if (const AgentKind* k = byHint(lists, *script)) return *k;
  if (const AgentKind* k = byExecutable(lists, withoutScriptExtension(baseName(*script)))) return *k;
  if (const AgentKind* k = byVersionFolder(lists, *script)) return *k;
  return std::nullopt;
}

AgentKind kindFor(const CustomAgent& agent) {
  AgentKind k;
  k.id = "custom:" + agent.name;
  k.name = agent.name;
  k.executables = {agent.executables.begin(), agent.executables.end()};
  k.idleWatts = agent.idleWatts;
  return k;
}

AgentKind kindFor(const WatchedApp& app) {
  AgentKind k;
  k.id = "app:" + app.name;
  k.name = app.name;
  k.idleWatts = 0.15;
  return k;
}

bool isUserFacing(std::string_view processName, std::string_view path) {
  if (processName == "caffeinate" || baseName(path) == "caffeinate") return true;
  const auto app = path.find(".app/");
  if (path.empty() || app == std::string_view::npos) return false;
  std::string bundle(path.substr(0, app + 4));
  bundle = baseName(bundle);
  std::transform(bundle.begin(), bundle.end(), bundle.begin(), [](unsigned char c) { return std::tolower(c); });
  if (bundle.find("update") != std::string::npos || bundle.find("helper") != std::string::npos ||
      bundle.find("agent.app") != std::string::npos) {
    return false;
  }
  for (std::string_view system : {"/System/Library/", "/Library/Apple/", "/usr/"}) {
    if (path.rfind(system, 0) == 0) return false;
  }
  return true;
}

bool isIgnoredRequester(std::string_view name) {
  static const std::string_view kIgnored[] = {"powerd", "WindowServer", "coreaudiod", "mds_stores",
                                              "mds",    "loginwindow",  "sharingd",   "bluetoothd"};
  return std::find(std::begin(kIgnored), std::end(kIgnored), name) != std::end(kIgnored);
}

bool isBlockingAssertionType(std::string_view type) {
  return type == "PreventUserIdleSystemSleep" || type == "PreventSystemSleep" || type == "NoIdleSleepAssertion";
}

}  // namespace vigilo
