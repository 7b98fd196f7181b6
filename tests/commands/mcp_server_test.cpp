#include "commands/mcp_server.h"

#include <algorithm>
#include <regex>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "commands/settings_schema.h"
#include "commands/setup_prompt.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

// Given a server whose requests go to a fake app (session 4242) that records
// them as {cmd, args, timeout} and answers with `reply_`.
class McpServerTest : public ::testing::Test {
 protected:
  McpContext context() {
    return McpContext{[this](const std::string& cmd, const json& args, double timeout) {
                        sent_.push_back({cmd, args, timeout});
                        if (throwOnSend_) throw std::runtime_error("the channel broke");
                        return reply_;
                      },
                      4242, &log_};
  }
  // One line through the server; its response, or null for none.
  json answer(const std::string& line) {
    auto out = McpServer(context()).handleLine(line);
    EXPECT_TRUE(!out || out->find('\n') == std::string::npos);
    return out ? json::parse(*out) : json();
  }
  static std::string request(const json& id, const std::string& method, const json& params = nullptr) {
    json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) m["params"] = params;
    return m.dump();
  }
  json call(const std::string& tool, const json& arguments = nullptr) {
    json params = {{"name", tool}};
    if (!arguments.is_null()) params["arguments"] = arguments;
    return answer(request(1, "tools/call", params));
  }
  static json replyOf(const json& r) { return json::parse(r["result"]["content"][0]["text"].get<std::string>()); }
  // Runs a whole input stream: the exit code, then each line written.
  json serve(const std::string& input, bool outputGone = false) {
    std::istringstream in(input);
    std::ostringstream out;
    if (outputGone) out.setstate(std::ios::badbit);
    json got = json::array({runMcpServer(in, out, context())});
    EXPECT_TRUE(out.str().empty() || out.str().back() == '\n');
    std::istringstream written(out.str());
    for (std::string l; std::getline(written, l);) got.push_back(json::parse(l));
    return got;
  }

  json reply_ = {{"ok", true}, {"status", "Nothing running"}};
  bool throwOnSend_ = false;
  json sent_ = json::array();
  std::ostringstream log_;
};

TEST_F(McpServerTest, InitializeAgreesOnAVersionAndIntroducesTheServer) {
  for (const json& v : {json("2025-06-18"), json("2025-03-26"), json("2024-11-05"), json("2025-11-25"), json("1.0"),
                        json(20250618), json()}) {
    SCOPED_TRACE(v.dump());
    const bool known = v.is_string() && v != "2025-11-25" && v != "1.0";
    EXPECT_EQ(answer(request(0, "initialize", {{"protocolVersion", v}}))["result"]["protocolVersion"],
              known ? v : json("2025-06-18"));
  }
  // The official SDK client's opening line, verbatim.
  json r = answer(
      R"({"method":"initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},"clientInfo":{"name":"interop-test","version":"1.0.0"}},"jsonrpc":"2.0","id":0})");
  EXPECT_EQ(r["id"], 0);
  EXPECT_EQ(r["result"]["capabilities"], json::parse(R"({"tools":{}})"));
  EXPECT_EQ(r["result"]["serverInfo"], json::parse(R"({"name":"vigilo","version":"1.0"})"));
  EXPECT_EQ(r["result"]["instructions"],
            "Vigilo keeps this Mac awake with the lid closed and cuts power while it does. Call vigilo_keep_awake at "
            "the start of long work so closing the lid won't stop you; it ends by itself when this session does. To "
            "tune it: vigilo_settings lists every setting, vigilo_power shows what's using power and which setting "
            "fixes it, vigilo_power_test measures each saving with the lid closed. If asked to set Vigilo up, follow "
            "vigilo_setup_prompt.");
  EXPECT_EQ(answer(request("p", "ping")), json::parse(R"({"jsonrpc":"2.0","id":"p","result":{}})"));
  EXPECT_TRUE(sent_.empty());
}

TEST_F(McpServerTest, ToolListFollowsTheTableAndTheSettingsSchema) {
  const json tools = answer(request(2, "tools/list"))["result"]["tools"];
  std::vector<std::string> names, keys;
  for (const auto& t : tools) names.push_back(t["name"]);
  EXPECT_EQ(names, (std::vector<std::string>{
                       "vigilo_status", "vigilo_keep_awake", "vigilo_release", "vigilo_set_mode", "vigilo_set_preset",
                       "vigilo_set_app_rule", "vigilo_watch_app", "vigilo_add_agent", "vigilo_settings",
                       "vigilo_set_setting", "vigilo_power", "vigilo_power_test", "vigilo_setup_prompt",
                       "vigilo_energy", "vigilo_measure_savings", "vigilo_get_config"}));
  for (const SettingSpec& s : SettingsSchema::all()) keys.push_back(s.key);
  EXPECT_EQ(tools[9]["inputSchema"]["properties"]["key"]["enum"], json(keys));
  EXPECT_EQ(tools[9]["inputSchema"]["required"], json::parse(R"(["key","value"])"));
  // Every tool the texts send the agent to exists.
  std::string texts = std::string(kMcpInstructions) + setupPrompt();
  for (const auto& t : tools) texts += t["description"].get<std::string>();
  const std::regex toolName("vigilo_[a-z_]+");
  for (auto it = std::sregex_iterator(texts.begin(), texts.end(), toolName); it != std::sregex_iterator(); ++it) {
    EXPECT_NE(std::find(names.begin(), names.end(), it->str()), names.end()) << it->str();
  }
}

TEST_F(McpServerTest, ToolCallsBecomeAppRequestsBoundToTheSession) {
  const json set = {{"key", "battery_floor"}, {"value", "30"}, {"extra", {1, 2}}};
  // {tool, arguments, the request sent as {cmd, args, timeout}}. A hold with
  // no bounds gets the session's process and two hours; its owner is always
  // the session, whatever the caller claims.
  const std::vector<std::tuple<std::string, json, json>> rows = {
      {"vigilo_keep_awake", {{"reason", "x"}}, {"hold", {{"reason", "x"}, {"pid", 4242}, {"minutes", 120}, {"owner", 4242}}, 8}},
      {"vigilo_keep_awake", {{"minutes", 30}, {"owner", 1}}, {"hold", {{"minutes", 30}, {"owner", 4242}}, 8}},
      {"vigilo_keep_awake", {{"pid", 77}}, {"hold", {{"pid", 77}, {"owner", 4242}}, 8}},
      {"vigilo_keep_awake", {{"minutes", nullptr}}, {"hold", {{"minutes", 120}, {"pid", 4242}, {"owner", 4242}}, 8}},
      {"vigilo_release", {{"hold_id", "a1b2"}}, {"release_own", {{"id", "a1b2"}, {"pid", 4242}}, 8}},
      {"vigilo_release", nullptr, {"release_pid", {{"pid", 4242}}, 8}},
      {"vigilo_release", {{"hold_id", ""}}, {"release_pid", {{"pid", 4242}}, 8}},
      {"vigilo_set_setting", set, {"set", set, 8}},
      {"vigilo_power", json::object(), {"power", json::object(), 10}},
      {"vigilo_measure_savings", json::object(), {"measure", json::object(), 20}},
      {"vigilo_settings", json::object(), {"schema", json::object(), 8}},
  };
  for (const auto& [tool, arguments, sent] : rows) {
    SCOPED_TRACE(tool + " " + arguments.dump());
    sent_.clear();
    const json r = call(tool, arguments);
    EXPECT_EQ(sent_, json::array({sent}));
    EXPECT_EQ(r["result"]["content"][0]["type"], "text");
    EXPECT_EQ(r["result"]["isError"], false);
    EXPECT_EQ(replyOf(r), reply_);
  }
}

TEST_F(McpServerTest, FailedOrLocalCallsAnswerAsResults) {
  json r = call("vigilo_release", {{"hold_id", 17}});
  EXPECT_EQ(r["result"]["isError"], true);
  EXPECT_EQ(replyOf(r)["error"], "hold_id must be the hold id text that vigilo_keep_awake returned");
  EXPECT_EQ(replyOf(call("vigilo_setup_prompt")), (json{{"ok", true}, {"prompt", setupPrompt()}}));
  EXPECT_TRUE(sent_.empty());
  // Given an app that refused, answered oddly or could not be reached.
  reply_ = {{"ok", false}, {"error", "Vigilo didn't answer"}};
  r = call("vigilo_status");
  EXPECT_EQ(r["result"]["isError"], true);
  EXPECT_EQ(replyOf(r), reply_);
  reply_ = {{"ok", "yes"}};
  EXPECT_EQ(call("vigilo_status")["result"]["isError"], true);
  throwOnSend_ = true;
  r = call("vigilo_status");
  EXPECT_EQ(r["id"], 1);
  EXPECT_EQ(r["error"]["code"], -32603);
}

TEST_F(McpServerTest, BadRequestsGetTheRightErrorAndReachNoApp) {
  const std::string invalid = "Invalid Request", deep = std::string(100, '[') + std::string(100, ']');
  // {line, id, code, message or "" for any}. Messages that are no single
  // request get -32600, with the id when there is a usable one.
  const std::vector<std::tuple<std::string, json, int, std::string>> rows = {
      {request(1, "tools/call", {{"name", "vigilo_sleep"}}), 1, -32602, "Unknown tool vigilo_sleep"},
      {request(3, "server/discover"), 3, -32601, "Method not found: server/discover"},
      {request(4, "tools/call", json::array({"vigilo_status"})), 4, -32602, ""},
      {request(4, "ping", "now"), 4, -32602, ""},
      {request(5, "tools/call", {{"arguments", json::object()}}), 5, -32602, ""},
      {request(6, "tools/call", {{"name", "vigilo_status"}, {"arguments", "all"}}), 6, -32602,
       "params.arguments must be an object of named values, not string"},
      {R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", nullptr, -32600, invalid},
      {"[]", nullptr, -32600, invalid},
      {request({{"a", 1}}, "ping"), nullptr, -32600, invalid},
      {request({1}, "ping"), nullptr, -32600, invalid},
      {request(true, "ping"), nullptr, -32600, invalid},
      {request(nullptr, "ping"), nullptr, -32600, invalid},
      {R"({"jsonrpc":"2.0","id":"x","params":{}})", "x", -32600, ""},
      {request(8, "tools/call", {{"name", "vigilo_status"}}).insert(57, R"(,"arguments":{"a":)" + deep + "}"), 8,
       -32600, ""},
  };
  for (const auto& [line, id, code, message] : rows) {
    SCOPED_TRACE(line.substr(0, 120));
    const json r = answer(line);
    EXPECT_TRUE(r.contains("id"));
    EXPECT_EQ(r["id"], id);
    EXPECT_EQ(r["error"]["code"], code);
    if (!message.empty()) EXPECT_EQ(r["error"]["message"], message);
  }
  EXPECT_TRUE(sent_.empty());
}

TEST_F(McpServerTest, StreamAnswersRequestsOnlyAndEndsWithItsInput) {
  // Given notifications, responses and garbage between the requests, and a
  // last request with no newline before the input ends: answers to those
  // three only, exit 0.
  const std::string status = request("b", "tools/call", {{"name", "vigilo_status"}});
  json got = serve(request(0, "initialize") + "\n" + R"({"method":"notifications/initialized","jsonrpc":"2.0"})" +
                   "\n" + R"({"method":"tools/call","jsonrpc":"2.0","params":{"name":"no_such_tool"}})" +
                   "\nhello\n\n42\n\"text\"\nnull\n{\"jsonrpc\":\"2.0\",\"id\":\n" +
                   R"({"jsonrpc":"2.0","id":99,"result":{}})" + "\n" + request("a", "ping") + "\r\n" + status);
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[0], 0);
  EXPECT_EQ(got[1]["id"], 0);
  EXPECT_EQ(got[2], json::parse(R"({"jsonrpc":"2.0","id":"a","result":{}})"));
  EXPECT_EQ(got[3]["id"], "b");
  EXPECT_NE(log_.str().find("skipped a line that is not a JSON object"), std::string::npos);
  // A cut-off last message is skipped; a client that has gone away stops the
  // server at its first answer.
  EXPECT_EQ(serve(R"({"jsonrpc":"2.0","id":1,"method":"pi)"), json::array({0}));
  EXPECT_EQ(serve(request(1, "ping") + "\n" + status + "\n", true), json::array({1}));
  EXPECT_EQ(sent_.size(), 1u);
  // 10 MB is read whole; a line past the limit is refused, and the stream
  // carries on.
  got = serve(R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"pad":")" + std::string(10 << 20, 'x') +
              "\"}}\n" + std::string(kMcpMaxLineBytes + 10, '{') + "\n" + request(2, "ping") + "\n");
  ASSERT_EQ(got.size(), 4u);
  EXPECT_EQ(got[1]["id"], 1);
  EXPECT_EQ(got[2], json::parse(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request",)"
                                R"("data":"a message may be at most 16 MiB long"}})"));
  EXPECT_EQ(got[3]["id"], 2);
}

}  // namespace
}  // namespace vigilo::test
