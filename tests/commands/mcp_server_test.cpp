#include "commands/mcp_server.h"

#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "commands/settings_schema.h"
#include "commands/setup_prompt.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

// Given session 4242, whose app logs each request {cmd, args, timeout} and answers reply_.
class McpServerTest : public ::testing::Test {
 protected:
  McpContext context() {
    return {[this](const std::string& cmd, const json& args, double timeout) {
              sent_.push_back(json::array({cmd, args, timeout}));
              if (throwOnSend_) throw std::runtime_error("the channel broke");
              return reply_;
            },
            4242, &log_, MachineWords{}};
  }
  json answer(const std::string& line) {
    auto out = McpServer(context()).handleLine(line);
    return out ? json::parse(*out) : json();
  }
  static std::string request(const json& id, const std::string& method, const json& params = nullptr) {
    json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) m["params"] = params;
    return m.dump();
  }
  json call(const std::string& tool, const json& arguments = json::object()) {
    return answer(request(1, "tools/call", {{"name", tool}, {"arguments", arguments}}));
  }
  static json replyOf(const json& r) { return json::parse(r["result"]["content"][0]["text"].get<std::string>()); }
  // Runs a whole input stream: the exit code, then each line written.
  json serve(const std::string& input, bool outputGone = false) {
    std::istringstream in(input);
    std::ostringstream out;
    out.setstate(outputGone ? std::ios::badbit : std::ios::goodbit);
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

TEST_F(McpServerTest, HandshakeAgreesOnAVersionAndListsTheTools) {
  // Versions it doesn't know, or no text at all, get the newest it has.
  for (const json& asked : {json("1.0"), json(20250618)}) {
    const json r = answer(request(0, "initialize", {{"protocolVersion", asked}}));
    EXPECT_EQ(r["result"]["protocolVersion"], "2025-06-18") << asked;
  }
  const json r = answer(request(0, "initialize"))["result"];
  EXPECT_EQ(r["capabilities"], json::parse(R"({"tools":{}})"));
  EXPECT_TRUE(r["instructions"].is_string());

  const json tools = answer(request(2, "tools/list"))["result"]["tools"];
  std::vector<std::string> keys;
  ASSERT_EQ(tools.size(), 16u);
  EXPECT_EQ(tools[9]["name"], "vigilo_set_setting");
  for (const SettingSpec& s : SettingsSchema::all()) keys.push_back(s.key);
  EXPECT_EQ(tools[9]["inputSchema"]["properties"]["key"]["enum"], json(keys));
  EXPECT_EQ(tools[9]["inputSchema"]["required"], json::parse(R"(["key","value"])"));
}

TEST_F(McpServerTest, ToolCallsBecomeAppRequestsBoundToTheSession) {
  EXPECT_EQ(replyOf(call("vigilo_setup_prompt")), (json{{"ok", true}, {"prompt", setupPrompt()}}));
  EXPECT_TRUE(sent_.empty());
  const json set = {{"key", "battery_floor"}, {"value", "30"}, {"extra", {1, 2}}};
  // An unbounded hold gets the session's process and 2 hours; the owner is always the session.
  const std::vector<std::tuple<std::string, json, json>> rows = {
      {"vigilo_keep_awake", {{"reason", "x"}, {"minutes", 30}, {"owner", 1}},
       {"hold", {{"reason", "x"}, {"minutes", 30}, {"owner", 4242}}, 8}},
      {"vigilo_keep_awake", {{"reason", "x"}, {"minutes", nullptr}},
       {"hold", {{"reason", "x"}, {"minutes", 120}, {"pid", 4242}, {"owner", 4242}}, 8}},
      {"vigilo_release", {{"hold_id", "a1b2"}}, {"release_own", {{"id", "a1b2"}, {"pid", 4242}}, 8}},
      {"vigilo_release", {{"hold_id", ""}}, {"release_pid", {{"pid", 4242}}, 8}},
      {"vigilo_set_setting", set, {"set", set, 8}},
      {"vigilo_measure_savings", json::object(), {"measure", json::object(), 20}},
  };
  for (const auto& [tool, arguments, sent] : rows) {
    SCOPED_TRACE(tool + " " + arguments.dump());
    sent_.clear();
    const json r = call(tool, arguments);
    EXPECT_EQ(sent_, json::array({sent}));
    EXPECT_EQ(r["result"]["isError"], false);
    EXPECT_EQ(replyOf(r), reply_);
  }
  // Given an app that refused, answered oddly or could not be reached.
  reply_ = {{"ok", false}, {"error", "Vigilo didn't answer"}};
  EXPECT_EQ(call("vigilo_status")["result"]["isError"], true);
  reply_ = {{"ok", "yes"}};
  EXPECT_EQ(call("vigilo_status")["result"]["isError"], true);
  throwOnSend_ = true;
  EXPECT_EQ(call("vigilo_status")["error"]["code"], -32603);
}

TEST_F(McpServerTest, BadRequestsGetTheRightErrorAndReachNoApp) {
  // No single request: -32600, with the id when it is usable.
  const std::vector<std::tuple<std::string, json, int, std::string>> rows = {
      {request(4, "tools/call", json::array({"vigilo_status"})), 4, -32602,
       "params must be an object of named values, not array"},
      {request(6, "tools/call", {{"name", "vigilo_status"}, {"arguments", "all"}}), 6, -32602,
       "params.arguments must be an object of named values, not string"},
      {request(true, "ping"), nullptr, -32600, "Invalid Request"},
      {R"({"jsonrpc":"2.0","id":"x","params":{}})", "x", -32600, "Invalid Request"},
      {request(8, "ping", json::parse(std::string(99, '[') + std::string(99, ']'))), 8, -32600, "Invalid Request"},
  };
  for (const auto& [line, id, code, message] : rows) {
    SCOPED_TRACE(line.substr(0, 120));
    const json r = answer(line);
    EXPECT_EQ(r.value("id", json("none")), id);
    EXPECT_EQ(r["error"]["code"], code);
    EXPECT_EQ(r["error"]["message"], message);
  }

  // Wrong-typed arguments: a tool error naming the argument,
  // never a different request ("2 hours" must not become a hold without end).
  const std::vector<std::tuple<std::string, json, std::string>> calls = {
      {"vigilo_keep_awake", {{"reason", "r"}, {"minutes", "2 hours"}}, R"(minutes must be a number, not "2 hours")"},
      {"vigilo_keep_awake", {{"reason", "r"}, {"minutes", true}}, "minutes must be a number, not true"},
      {"vigilo_keep_awake", {{"reason", "r"}, {"pid", 1.5}}, "pid must be a whole number, not 1.5"},
      // Required arguments left out or null.
      {"vigilo_set_app_rule", {{"app", "Slack"}, {"rule", nullptr}}, "rule is required: leave, slow, pause or default"},
      {"vigilo_watch_app", {{"app", "x"}, {"remove", "yes"}}, R"(remove must be true or false, not "yes")"},
  };
  for (const auto& [tool, arguments, error] : calls) {
    SCOPED_TRACE(tool + " " + arguments.dump());
    const json r = call(tool, arguments);
    EXPECT_EQ(r["result"]["isError"], true);
    EXPECT_EQ(replyOf(r), json({{"ok", false}, {"error", error}}));
  }
  EXPECT_TRUE(sent_.empty());
}

TEST_F(McpServerTest, IdsComeBackAsTheyWereWritten) {
  // Numbers no 64-bit integer or double holds exactly, and other spellings.
  for (const std::string id : {"123456789012345678901234567890", "1.10", "1e5", "\"x\""}) {
    SCOPED_TRACE(id);
    const std::string line = R"({"jsonrpc":"2.0","method":"ping","id":)" + id + "}";
    const auto out = McpServer(context()).handleLine(line);
    ASSERT_TRUE(out);
    EXPECT_NE(out->find("\"id\":" + id + ","), std::string::npos) << *out;
    EXPECT_EQ(json::parse(*out)["result"], json::object());
    const auto unknown = McpServer(context()).handleLine(R"({"id":)" + id + R"(,"id":)" + id + R"(,"method":"x"})");
    EXPECT_NE(unknown.value_or("").find("\"id\":" + id + ","), std::string::npos);
  }
}

TEST_F(McpServerTest, StreamAnswersRequestsOnlyAndEndsWithItsInput) {
  // Given notifications, responses, garbage and a line past the limit (refused)
  // between three requests, the last with no newline before the input ends.
  const std::string status = request("b", "tools/call", {{"name", "vigilo_status"}});
  json got = serve(request(0, "initialize") + "\n" + R"({"method":"notifications/initialized","jsonrpc":"2.0"})" +
                   "\n" + R"({"method":"tools/call","jsonrpc":"2.0","params":{"name":"no_such_tool"}})" +
                   "\nhello\n\n42\n\"text\"\nnull\n{\"jsonrpc\":\"2.0\",\"id\":\n" +
                   R"({"jsonrpc":"2.0","id":99,"result":{}})" + "\n" + std::string(kMcpMaxLineBytes + 10, '{') +
                   "\n" + request("a", "ping") + "\r\n" + status);
  EXPECT_EQ(got[2]["error"]["data"], "a message may be at most 16 MiB long");
  for (json& line : got) line = line.is_object() ? line["id"] : line;
  EXPECT_EQ(got, json::parse(R"([0, 0, null, "a", "b"])"));
  EXPECT_NE(log_.str().find("skipped a line that is not a JSON object"), std::string::npos);
  // A cut-off last message is skipped; a gone client stops it at once.
  EXPECT_EQ(serve(R"({"jsonrpc":"2.0","id":1,"method":"pi)"), json::array({0}));
  EXPECT_EQ(serve(request(1, "ping") + "\n" + status + "\n", true), json::array({1}));
  EXPECT_EQ(sent_.size(), 1u);
}

}  // namespace
}  // namespace vigilo::test
