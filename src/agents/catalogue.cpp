#include "agents/catalogue.h"

#include <algorithm>
#include <cctype>

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

std::optional<AgentKind> matchKind(std::string_view path, const std::vector<std::string>& args,
                                   const std::vector<AgentKind>& extra) {
  const std::string name = baseName(path);
  if (name.empty()) return std::nullopt;
  for (const auto* list : {&builtInAgents(), &extra}) {
    for (const AgentKind& k : *list) {
      if (k.executables.count(name)) return k;
    }
  }
  if (!isInterpreter(name)) return std::nullopt;
  std::string joined;
  for (std::size_t i = 0; i < args.size() && i < 3; ++i) joined += (i ? " " : "") + args[i];
  for (const auto* list : {&builtInAgents(), &extra}) {
    for (const AgentKind& k : *list) {
      for (const std::string& hint : k.scriptHints) {
        if (joined.find(hint) != std::string::npos) return k;
      }
    }
  }
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
