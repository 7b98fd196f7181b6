// One line from an agent's MCP client, served as `vigilo mcp` serves it.
// After the first newline, the rest of the input is what the app answers
// the tool call with, so the server's handling of odd replies is fuzzed too.
#include <sstream>

#include <nlohmann/json.hpp>

#include "agents/careful_file.h"
#include "commands/mcp_server.h"
#include "fuzz_target.h"

VIGILO_FUZZ_TARGET(mcp_line) {
  using namespace vigilo;
  const std::size_t nl = input.find('\n');
  const std::string_view line = input.substr(0, nl);
  const std::string_view answer = nl == std::string_view::npos ? std::string_view() : input.substr(nl + 1);
  std::ostringstream log;
  McpContext context;
  context.sessionPid = 4242;
  context.log = &log;
  context.send = [answer](const std::string&, const nlohmann::json&, double) {
    // The request client hands on only objects no deeper than a reply can
    // be; anything else reads as the app not answering.
    nlohmann::json reply = jsonNestingWithin(answer, 64) ? nlohmann::json::parse(answer, nullptr, false)
                                                         : nlohmann::json(nlohmann::json::value_t::discarded);
    if (!reply.is_object()) reply = {{"ok", false}, {"error", "Vigilo didn't answer"}};
    return reply;
  };
  McpServer server(context);
  (void)server.handleLine(line);
}
