#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "integrations/agent_files.h"

namespace vigilo {

// How an agent starts Vigilo's MCP server.
struct ServerCommand {
  std::string command;
  std::vector<std::string> args;
  // Passed to the server; only VIGILO_HOME, and only when it is not the
  // folder the server finds by itself.
  std::vector<std::pair<std::string, std::string>> env;
};

// Runs a program with arguments, its output discarded; gives its exit
// status, or -1 when it couldn't be started or ran too long.
using ToolRunner = std::function<int(const std::string& program, const std::vector<std::string>& args)>;
int runTool(const std::string& program, const std::vector<std::string>& args);

// Registers Vigilo's MCP server with Claude Code, Codex, Gemini CLI and the
// Claude app, and the agents' status hooks where they have them,
// one entry per agent in its own configuration file, leaving everything
// else in the file as it was and keeping a backup beside it.
class AIConnect {
 public:
  explicit AIConnect(AgentPlaces places, ToolRunner runner = runTool);

  // The installed tool ("/usr/local/bin/vigilo mcp") when it is there, else
  // this very executable.
  static ServerCommand serverCommand(const AgentPlaces& places);

  // Each gives the message for the person.
  std::string connectClaudeCode(const ServerCommand& server, const std::string& hookCommand);
  // Codex's MCP table and, when `hookCommand` isn't empty, its hooks.
  std::string connectCodex(const ServerCommand& server, const std::string& hookCommand = {});
  // Gemini CLI's MCP entry and hooks, in one edit of its settings.
  std::string connectGemini(const ServerCommand& server, const std::string& hookCommand);
  std::string connectClaudeApp(const ServerCommand& server);
  // Removes every entry and Claude Code's hooks again; one line per file
  // changed or failed.
  std::vector<std::string> disconnectAll();

  std::optional<std::string> claudeCodeBinary() const;
  bool claudeCodeInstalled() const;
  bool claudeCodeConnected() const;
  bool codexInstalled() const;
  bool codexConnected() const;
  bool geminiInstalled() const;
  bool geminiConnected() const;
  bool claudeAppInstalled() const;
  bool claudeAppConnected() const;

  // The Codex text with Vigilo's table (see connectCodex), or nothing when an
  // entry was written by hand.
  static std::optional<std::string> withCodexTable(const std::string& text, const ServerCommand& server);
  static std::string withoutCodexTable(const std::string& text);
  // Whether a top-level line (or one in [mcp_servers]) sets Vigilo's entry
  // as an inline table or dotted keys.
  static bool codexInlineVigilo(const std::string& text);
  // Whether Codex's config turns its hooks off ([features] hooks = false,
  // or the older codex_hooks).
  static bool codexHooksOff(const std::string& text);

  const AgentPlaces& places() const { return places_; }

 private:
  std::string connectCodexServer(const ServerCommand& server);
  void disconnectGemini(std::vector<std::string>& lines);

  AgentPlaces places_;
  ToolRunner runner_;
};

}  // namespace vigilo
