#include "integrations/connect_command.h"

#include <cstdio>

#include "agents/claude_hooks.h"

namespace vigilo {
namespace {

// A message that reports success: the ones that begin "Added to".
bool succeeded(const std::string& message) {
  return message.rfind("Added to", 0) == 0 && message.find("Couldn't add its status hooks") == std::string::npos;
}

void print(const std::string& line) { std::printf("%s\n", line.c_str()); }

}  // namespace

int connectCommand(const std::vector<std::string>& words, AIConnect& connect) {
  constexpr const char* kUsage = "No agent found. Use: vigilo connect claude | codex | gemini | claude-app";
  if (words.size() > 1) {
    std::fprintf(stderr, "vigilo: usage: vigilo connect [claude|codex|gemini|claude-app]\n");
    return 2;
  }
  if (connect.places().home.empty() || connect.places().home[0] != '/') {
    std::fprintf(stderr, "vigilo: can't tell your home folder (HOME isn't set), so no agent was connected.\n");
    return 1;
  }
  const ServerCommand server = AIConnect::serverCommand(connect.places());
  std::vector<std::string> agents;
  if (words.empty()) {
    if (connect.claudeCodeInstalled()) agents.emplace_back("claude");
    if (connect.codexInstalled()) agents.emplace_back("codex");
    if (connect.geminiInstalled()) agents.emplace_back("gemini");
    if (connect.claudeAppInstalled()) agents.emplace_back("claude-app");
    if (agents.empty()) {
      print(kUsage);
      return 1;
    }
  } else {
    const std::string& name = words[0];
    if (name != "claude" && name != "codex" && name != "gemini" && name != "claude-app") {
      std::fprintf(stderr, "vigilo: usage: vigilo connect [claude|codex|gemini|claude-app]\n");
      return 2;
    }
    agents.push_back(name);
  }
  bool allOk = true;
  for (const std::string& agent : agents) {
    std::string message;
    if (agent == "claude") {
      message = connect.connectClaudeCode(server, ClaudeHooks::currentCommand(connect.places().vigiloHome));
    } else if (agent == "codex") {
      message = connect.connectCodex(server, AgentHooks::currentCommand("codex", connect.places().vigiloHome));
    } else if (agent == "gemini") {
      message = connect.connectGemini(server, AgentHooks::currentCommand("gemini", connect.places().vigiloHome));
    } else {
      message = connect.connectClaudeApp(server);
    }
    allOk = allOk && succeeded(message);
    print(message);
  }
  if (allOk) print("Then paste the output of: vigilo prompt");
  return allOk ? 0 : 1;
}

int disconnectCommand(AIConnect& connect) {
  if (connect.places().home.empty() || connect.places().home[0] != '/') {
    std::fprintf(stderr, "vigilo: can't tell your home folder (HOME isn't set), so nothing was changed.\n");
    return 1;
  }
  auto lines = connect.disconnectAll();
  bool allOk = true;
  for (const auto& line : lines) {
    print(line);
    allOk = allOk && line.rfind("Removed", 0) == 0;
  }
  if (lines.empty()) print("Vigilo wasn't connected to any agent.");
  return allOk ? 0 : 1;
}

}  // namespace vigilo
