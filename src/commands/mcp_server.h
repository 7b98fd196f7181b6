#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "platform/platform.h"

namespace vigilo {

// Sends one request on the request channel and gives the app's reply object
// (RequestClient::send in the product). `timeout` is in seconds.
using RequestSender =
    std::function<nlohmann::json(const std::string& cmd, const nlohmann::json& args, double timeout)>;

struct McpContext {
  RequestSender send;
  // The process that started the server, i.e. the agent session. Holds taken
  // through the server belong to it, and it may end only those.
  std::int64_t sessionPid = 0;
  // Notes about skipped input go here, never to the protocol stream; may be
  // null.
  std::ostream* log = nullptr;
  // How the instructions and the tools' descriptions name this machine.
  MachineWords words;
};

// One tool of the table.
struct McpTool;

// Longest message line read; a longer one is answered with -32600 and
// otherwise skipped, so a runaway client cannot exhaust memory.
inline constexpr std::size_t kMcpMaxLineBytes = 16 * 1024 * 1024;

// The instructions `initialize` gives the agent on a Mac, exactly.
extern const char* const kMcpInstructions;
// The instructions in this machine's words.
std::string mcpInstructions(const MachineWords& words);

// The MCP server that `vigilo mcp` runs: JSON-RPC 2.0 messages in, one
// response per request out. Each tool call becomes one request to the app;
// the server keeps no state of its own beyond its fixed tool table.
class McpServer {
 public:
  explicit McpServer(McpContext context);
  ~McpServer();

  // Handles one input line (without its newline). Gives the response as one
  // line of compact JSON without a newline, or nothing when the line gets no
  // answer: a notification, a response, or a line that is not a JSON
  // object. Never throws; blocks while a tool call waits for the app.
  std::optional<std::string> handleLine(std::string_view line);

  // The answer to a line longer than kMcpMaxLineBytes.
  std::string tooLongAnswer() const;

 private:
  nlohmann::json dispatch(const nlohmann::json& id, const std::string& method, const nlohmann::json& params);
  nlohmann::json callTool(const nlohmann::json& id, const nlohmann::json& params);
  void note(const std::string& text) const;

  McpContext context_;
  std::vector<McpTool> tools_;
};

// Serves `in` until it ends: one message per line, each response written to
// `out` as one line and flushed at once (agents wait for every answer). A
// last line without a newline is handled like any other. Gives 0 when the
// input ended, 1 when `out` could no longer be written.
int runMcpServer(std::istream& in, std::ostream& out, McpContext context);

}  // namespace vigilo
