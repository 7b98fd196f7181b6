#include <filesystem>

#include <gtest/gtest.h>

#include "e2e/sim_app.h"
#include "e2e/piped_process.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Given a running `vigilo app --simulate` in a temporary app folder, and
// `vigilo mcp` run the way an agent runs it (the server's logic, and the
// holds it asks for, are the server's own tests' work).
class McpEndToEndTest : public SimAppTest {
 protected:
  void SetUp() override {
    // The app folder is the default one for the HOME of `user_`, so a client
    // that passes only HOME still finds it.
    home_ = user_ + "/.local/share/vigilo";
    std::filesystem::create_directories(home_);
    startApp();
  }

  std::unique_ptr<PipedProcess> startServer() {
    return std::make_unique<PipedProcess>(std::vector<std::string>{VIGILO_BINARY, "mcp"},
                                          std::vector<std::string>{"VIGILO_HOME=" + home_}, dir_.file("mcp-err.txt"));
  }
  static json exchange(PipedProcess& server, const std::string& line) {
    EXPECT_TRUE(server.write(line + "\n"));
    auto answer = server.readLine(15s);
    if (!answer) return nullptr;
    return json::parse(*answer);
  }
  static json request(const json& id, const std::string& method, const json& params = json::object()) {
    return {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", params}};
  }
  static json toolCall(PipedProcess& server, const std::string& tool, const json& arguments = json::object()) {
    return exchange(server, request(7, "tools/call", {{"name", tool}, {"arguments", arguments}}).dump());
  }
  json holdIds() {
    json ids = json::array();
    const json s = status();
    for (const auto& h : s["holds"]) ids.push_back(h["id"]);
    return ids;
  }

  std::string user_ = dir_.file("user");
};

TEST_F(McpEndToEndTest, ProtocolEdgeCasesNeitherStopNorConfuseTheServer) {
  auto server = startServer();
  // Garbage and notifications get nothing; each request after them gets its
  // own answer, in order.
  ASSERT_TRUE(server->write("not json\n[1,2\n\n{\"jsonrpc\":\"2.0\",\"method\":\"notifications/cancelled\"}\n"));
  EXPECT_EQ(toolCall(*server, "vigilo_fly")["error"]["message"], "Unknown tool vigilo_fly");
  json discover = exchange(*server, request(2, "server/discover").dump());
  EXPECT_EQ(discover["id"], 2);
  EXPECT_EQ(discover["error"]["message"], "Method not found: server/discover");

  // A 10 MB message is read whole.
  const std::string pad(10 * 1024 * 1024, 'v');
  json big = exchange(*server, R"({"jsonrpc":"2.0","id":"big","method":"ping","params":{"pad":")" + pad + "\"}}");
  EXPECT_EQ(big, json::parse(R"({"jsonrpc":"2.0","id":"big","result":{}})"));

  // The client hangs up halfway through a message: the server ends at once,
  // cleanly, having written nothing more.
  ASSERT_TRUE(server->write(R"({"jsonrpc":"2.0","id":4,"method":"tools/ca)"));
  server->closeInput();
  EXPECT_EQ(server->wait(5s), 0);
  EXPECT_EQ(server->readToEnd(1s), "");
}

TEST_F(McpEndToEndTest, TheOfficialSdkClientWorksWithTheServer) {
  const auto clientDir = std::filesystem::path(__FILE__).parent_path().parent_path() / "mcp-client";
  ASSERT_TRUE(std::filesystem::exists(clientDir / "node_modules" / "@modelcontextprotocol" / "sdk"))
      << "The MCP SDK is not installed: run scripts/setup (it runs npm ci --prefix tests/mcp-client).";
  // The runtime folder the client sees differs from the app's, and the
  // servers it starts see none at all.
  PipedProcess node({"/usr/bin/env", "node", (clientDir / "client.mjs").string(), VIGILO_BINARY},
                    {"HOME=" + user_, "XDG_RUNTIME_DIR=" + dir_.path()}, dir_.file("node-err.txt"));
  node.closeInput();
  const std::string out = node.readToEnd(90s);
  ASSERT_EQ(node.wait(10s), 0) << out << readFile(dir_.file("node-err.txt"));
  // The summary is the last line it printed. Not const: a key the client
  // left out then reads as null and fails an expectation instead of aborting.
  std::string last = out;
  while (!last.empty() && last.back() == '\n') last.pop_back();
  json s = json::parse(last.substr(last.rfind('\n') + 1), nullptr, false);
  ASSERT_TRUE(s.is_object()) << out;
  ASSERT_FALSE(s.contains("failure")) << s["failure"];

  const json expected = json::parse(R"({"protocolVersion": "2025-06-18",
      "serverInfo": {"name": "vigilo", "version": "1.0"}, "status": {"isError": false, "ok": true, "holds": 0},
      "badMinutes": {"isError": true, "error": "minutes must be a number, not \"2 hours\""},
      "batteryFloor": 30, "ping": {}})");
  for (const auto& [key, value] : expected.items()) EXPECT_EQ(s[key], value) << key;
  EXPECT_EQ(s["tools"].size(), 16u);

  // Each client's server is its own session.
  EXPECT_EQ(s["holdA"]["owner"], s["nodePid"]);
  EXPECT_NE(s["holdB"]["owner"], s["nodePid"]);
  const json idA = s["holdA"]["id"];
  EXPECT_EQ(s["crossById"]["error"], "no hold " + idA.get<std::string>() + " made by this session");
  EXPECT_EQ(s["holdsAfterB"], json::array({idA}));
  EXPECT_EQ(holdIds(), json::array());
  EXPECT_EQ(s["lowerFloor"]["isError"], true);
}

}  // namespace
}  // namespace vigilo::test
