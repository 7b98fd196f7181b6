#include "commands/mcp_server.h"

#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "commands/settings_schema.h"
#include "commands/setup_prompt.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

constexpr std::int64_t kSession = 4242;

// Given a server whose requests go to a fake app that records them and
// answers with `reply`.
class McpServerTest : public ::testing::Test {
 protected:
  struct Sent {
    std::string cmd;
    json args;
    double timeout;
  };

  McpContext context() {
    return McpContext{[this](const std::string& cmd, const json& args, double timeout) {
                        sent_.push_back({cmd, args, timeout});
                        if (throwOnSend_) throw std::runtime_error("the channel broke");
                        return reply_;
                      },
                      kSession, &log_};
  }

  // One message through the server; its response, or null for none.
  json answer(const json& message) { return answerLine(message.dump()); }
  json answerLine(const std::string& line) {
    McpServer server(context());
    auto out = server.handleLine(line);
    if (!out) return nullptr;
    EXPECT_EQ(out->find('\n'), std::string::npos);
    return json::parse(*out);
  }

  static json request(const json& id, const std::string& method, const json& params = nullptr) {
    json m = {{"jsonrpc", "2.0"}, {"id", id}, {"method", method}};
    if (!params.is_null()) m["params"] = params;
    return m;
  }
  json call(const std::string& tool, const json& arguments = nullptr) {
    json params = {{"name", tool}};
    if (!arguments.is_null()) params["arguments"] = arguments;
    return answer(request(1, "tools/call", params));
  }
  // The reply object a tool call carried back as its text.
  static json replyOf(const json& response) {
    return json::parse(response["result"]["content"][0]["text"].get<std::string>());
  }
  static int errorCode(const json& response) { return response["error"]["code"].get<int>(); }

  std::vector<std::string> lines(const std::string& output) {
    std::vector<std::string> out;
    std::istringstream in(output);
    for (std::string l; std::getline(in, l);) out.push_back(l);
    return out;
  }

  json reply_ = {{"ok", true}, {"status", "Nothing running · sleeps when closed"}};
  bool throwOnSend_ = false;
  std::vector<Sent> sent_;
  std::ostringstream log_;
};

TEST_F(McpServerTest, InitializeAgreesOnAVersionAndIntroducesTheServer) {
  // Given clients opening with every version seen in the wild, and some
  // that are no version at all.
  for (const char* known : {"2025-06-18", "2025-03-26", "2024-11-05"}) {
    EXPECT_EQ(answer(request(0, "initialize", {{"protocolVersion", known}}))["result"]["protocolVersion"], known);
  }
  for (const json& other : {json("2025-11-25"), json("2026-07-28"), json("1.0"), json(20250618), json(nullptr)}) {
    EXPECT_EQ(answer(request(0, "initialize", {{"protocolVersion", other}}))["result"]["protocolVersion"],
              "2025-06-18")
        << other;
  }
  EXPECT_EQ(answer(request(0, "initialize"))["result"]["protocolVersion"], "2025-06-18");

  // The official SDK client's opening line, verbatim.
  json r = answerLine(
      R"({"method":"initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},"clientInfo":{"name":"interop-test","version":"1.0.0"}},"jsonrpc":"2.0","id":0})");
  EXPECT_EQ(r["jsonrpc"], "2.0");
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
  json r = answer(request(2, "tools/list"));
  std::vector<std::string> names;
  for (const auto& t : r["result"]["tools"]) {
    names.push_back(t["name"]);
    SCOPED_TRACE(names.back());
    EXPECT_FALSE(t["description"].get<std::string>().empty());
    const json& schema = t["inputSchema"];
    EXPECT_EQ(schema["type"], "object");
    for (const auto& key : schema["required"]) EXPECT_TRUE(schema["properties"].contains(key)) << key;
    for (auto& [key, p] : schema["properties"].items()) {
      EXPECT_TRUE(p["type"].is_string()) << key;
      EXPECT_FALSE(p["description"].get<std::string>().empty()) << key;
    }
  }
  EXPECT_EQ(names, (std::vector<std::string>{
                       "vigilo_status", "vigilo_keep_awake", "vigilo_release", "vigilo_set_mode", "vigilo_set_preset",
                       "vigilo_set_app_rule", "vigilo_watch_app", "vigilo_add_agent", "vigilo_settings",
                       "vigilo_set_setting", "vigilo_power", "vigilo_power_test", "vigilo_setup_prompt",
                       "vigilo_energy", "vigilo_measure_savings", "vigilo_get_config"}));

  const json& tools = r["result"]["tools"];
  std::vector<std::string> keys;
  for (const SettingSpec& s : SettingsSchema::all()) keys.push_back(s.key);
  EXPECT_EQ(tools[9]["inputSchema"]["properties"]["key"]["enum"], json(keys));
  EXPECT_EQ(tools[9]["inputSchema"]["required"], json::parse(R"(["key","value"])"));
  EXPECT_EQ(tools[1]["inputSchema"]["required"], json::parse(R"(["reason"])"));

  // Every tool the texts send the agent to exists.
  std::set<std::string> known(names.begin(), names.end());
  std::string texts = std::string(kMcpInstructions) + setupPrompt();
  for (const auto& t : tools) texts += t["description"].get<std::string>();
  const std::regex toolName("vigilo_[a-z_]+");
  for (auto it = std::sregex_iterator(texts.begin(), texts.end(), toolName); it != std::sregex_iterator(); ++it) {
    EXPECT_TRUE(known.count(it->str())) << it->str();
  }
}

TEST_F(McpServerTest, KeepAwakeBindsTheHoldToTheSession) {
  // Given no bounds: the session's process and two hours.
  json r = call("vigilo_keep_awake", {{"reason", "Training the model"}});
  EXPECT_EQ(r["result"]["isError"], false);
  ASSERT_EQ(sent_.size(), 1u);
  EXPECT_EQ(sent_[0].cmd, "hold");
  EXPECT_EQ(sent_[0].timeout, 8);
  EXPECT_EQ(sent_[0].args, json::parse(R"({"reason":"Training the model","pid":4242,"minutes":120,"owner":4242})"));

  // Given one bound, it is the only one; the owner is always the session,
  // whatever the caller claims.
  call("vigilo_keep_awake", {{"reason", "build"}, {"minutes", 30}, {"owner", 1}});
  EXPECT_EQ(sent_[1].args, json::parse(R"({"reason":"build","minutes":30,"owner":4242})"));
  call("vigilo_keep_awake", {{"reason", "build"}, {"pid", 77}});
  EXPECT_EQ(sent_[2].args, json::parse(R"({"reason":"build","pid":77,"owner":4242})"));
  call("vigilo_keep_awake", {{"minutes", nullptr}});
  EXPECT_EQ(sent_[3].args, json::parse(R"({"minutes":120,"pid":4242,"owner":4242})"));
}

TEST_F(McpServerTest, ReleaseEndsOnlyTheSessionsOwnHolds) {
  call("vigilo_release", {{"hold_id", "a1b2"}});
  call("vigilo_release");
  call("vigilo_release", {{"hold_id", ""}});
  ASSERT_EQ(sent_.size(), 3u);
  EXPECT_EQ(sent_[0].cmd, "release_own");
  EXPECT_EQ(sent_[0].args, json::parse(R"({"id":"a1b2","pid":4242})"));
  EXPECT_EQ(sent_[1].cmd, "release_pid");
  EXPECT_EQ(sent_[1].args, json::parse(R"({"pid":4242})"));
  EXPECT_EQ(sent_[2].cmd, "release_pid");

  json bad = call("vigilo_release", {{"hold_id", 17}});
  EXPECT_EQ(bad["result"]["isError"], true);
  EXPECT_EQ(replyOf(bad)["error"], "hold_id must be the hold id text that vigilo_keep_awake returned");
  EXPECT_EQ(sent_.size(), 3u);
}

TEST_F(McpServerTest, ToolCallsCarryTheAppsReplyWithItsTimeout) {
  // Given arguments the server has no business with: they go through as they are.
  json args = {{"key", "battery_floor"}, {"value", "30"}, {"extra", {1, 2}}};
  json r = call("vigilo_set_setting", args);
  EXPECT_EQ(sent_.back().cmd, "set");
  EXPECT_EQ(sent_.back().args, args);
  EXPECT_EQ(replyOf(r), reply_);
  EXPECT_EQ(r["result"]["content"][0]["type"], "text");
  EXPECT_EQ(r["result"]["isError"], false);

  struct Row {
    const char* tool;
    const char* cmd;
    double timeout;
  } rows[] = {{"vigilo_status", "status", 8},
              {"vigilo_power", "power", 10},
              {"vigilo_measure_savings", "measure", 20},
              {"vigilo_settings", "schema", 8}};
  for (const Row& row : rows) {
    call(row.tool, json::object());
    EXPECT_EQ(sent_.back().cmd, row.cmd) << row.tool;
    EXPECT_EQ(sent_.back().timeout, row.timeout) << row.tool;
  }

  // Given an app that did not answer, or answered something odd: an error
  // result, and the server carries on.
  reply_ = {{"ok", false}, {"error", "Vigilo didn't answer. Is it running? Open /Applications/Vigilo.app"}};
  r = call("vigilo_status");
  EXPECT_EQ(r["result"]["isError"], true);
  EXPECT_EQ(replyOf(r)["error"], reply_["error"]);
  reply_ = {{"ok", "yes"}};
  EXPECT_EQ(call("vigilo_status")["result"]["isError"], true);
  throwOnSend_ = true;
  r = call("vigilo_status");
  EXPECT_EQ(errorCode(r), -32603);
  EXPECT_EQ(r["id"], 1);
}

TEST_F(McpServerTest, SetupPromptAnswersWithoutTheApp) {
  json r = call("vigilo_setup_prompt");
  EXPECT_TRUE(sent_.empty());
  EXPECT_EQ(r["result"]["isError"], false);
  EXPECT_EQ(replyOf(r), (json{{"ok", true}, {"prompt", setupPrompt()}}));
  // The settings it walks the person through are real keys.
  for (const char* key : {"battery_floor", "heat_guard", "only_on_power", "lock_on_close", "low_power",
                          "pause_simulators", "quiet_minutes", "notify_done"}) {
    EXPECT_NE(setupPrompt().find(key), std::string::npos) << key;
    EXPECT_NE(SettingsSchema::spec(key), nullptr) << key;
  }
}

TEST_F(McpServerTest, BadRequestsGetTheRightErrorAndReachNoApp) {
  json r = call("vigilo_sleep");
  EXPECT_EQ(errorCode(r), -32602);
  EXPECT_EQ(r["error"]["message"], "Unknown tool vigilo_sleep");
  r = answer(request(3, "server/discover"));
  EXPECT_EQ(r["id"], 3);
  EXPECT_EQ(errorCode(r), -32601);
  EXPECT_EQ(r["error"]["message"], "Method not found: server/discover");
  EXPECT_EQ(errorCode(answer(request(4, "tools/call", json::array({"vigilo_status"})))), -32602);
  EXPECT_EQ(errorCode(answer(request(4, "ping", "now"))), -32602);
  EXPECT_EQ(errorCode(answer(request(5, "tools/call", {{"arguments", json::object()}}))), -32602);
  r = answer(request(6, "tools/call", {{"name", "vigilo_status"}, {"arguments", "all"}}));
  EXPECT_EQ(errorCode(r), -32602);
  EXPECT_EQ(r["error"]["message"], "params.arguments must be an object of named values, not string");

  // Given messages that are no single request: -32600, with the id when
  // there is a usable one.
  const json invalid = {{"code", -32600}, {"message", "Invalid Request"}};
  for (const std::string& line : {std::string(R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])"), std::string("[]"),
                                  std::string(R"({"jsonrpc":"2.0","id":{"a":1},"method":"ping"})"),
                                  std::string(R"({"jsonrpc":"2.0","id":[1],"method":"ping"})"),
                                  std::string(R"({"jsonrpc":"2.0","id":true,"method":"ping"})"),
                                  std::string(R"({"jsonrpc":"2.0","id":null,"method":"ping"})")}) {
    r = answerLine(line);
    EXPECT_TRUE(r.contains("id") && r["id"].is_null()) << line;
    EXPECT_EQ(r["error"]["code"], -32600) << line;
    EXPECT_EQ(r["error"]["message"], "Invalid Request") << line;
  }
  r = answerLine(R"({"jsonrpc":"2.0","id":"x","params":{}})");
  EXPECT_EQ(r["id"], "x");
  EXPECT_EQ(errorCode(r), -32600);
  const std::string deep = std::string(100, '[') + std::string(100, ']');
  r = answerLine(R"({"jsonrpc":"2.0","id":8,"method":"tools/call","params":{"name":"vigilo_status","arguments":{"a":)" +
                 deep + "}}}");
  EXPECT_EQ(r["id"], 8);
  EXPECT_EQ(errorCode(r), -32600);
  EXPECT_TRUE(sent_.empty());
}

TEST_F(McpServerTest, StreamAnswersRequestsOnlyAndEndsWithItsInput) {
  // Given a session as a client writes it, with noise between the requests
  // and a last request that has no newline before the input ends.
  std::string input =
      R"({"method":"initialize","params":{"protocolVersion":"2025-11-25","capabilities":{},"clientInfo":{"name":"t","version":"1"}},"jsonrpc":"2.0","id":0})"
      "\n"
      R"({"method":"notifications/initialized","jsonrpc":"2.0"})"
      "\n"
      R"({"method":"tools/call","jsonrpc":"2.0","params":{"name":"no_such_tool"}})"
      "\n"
      "hello\n\n42\n\"text\"\nnull\n{\"jsonrpc\":\"2.0\",\"id\":\n"
      R"({"jsonrpc":"2.0","id":99,"result":{}})"
      "\n"
      R"({"jsonrpc":"2.0","id":"a","method":"ping"})"
      "\r\n"
      R"({"jsonrpc":"2.0","id":"b","method":"tools/call","params":{"name":"vigilo_status"}})";
  std::istringstream in(input);
  std::ostringstream out;
  EXPECT_EQ(runMcpServer(in, out, context()), 0);
  auto got = lines(out.str());
  ASSERT_EQ(got.size(), 3u) << out.str();
  EXPECT_EQ(json::parse(got[0])["id"], 0);
  EXPECT_EQ(json::parse(got[1]), json::parse(R"({"jsonrpc":"2.0","id":"a","result":{}})"));
  EXPECT_EQ(json::parse(got[2])["id"], "b");
  EXPECT_EQ(out.str().back(), '\n');
  ASSERT_EQ(sent_.size(), 1u);
  EXPECT_NE(log_.str().find("skipped a line that is not a JSON object"), std::string::npos);

  // Given a cut-off last message: skipped, and the server still ends cleanly.
  std::istringstream cut(R"({"jsonrpc":"2.0","id":1,"method":"pi)");
  std::ostringstream none;
  EXPECT_EQ(runMcpServer(cut, none, context()), 0);
  EXPECT_EQ(none.str(), "");

  // Given a client that has gone away: the server stops at its first answer.
  std::istringstream more(R"({"jsonrpc":"2.0","id":1,"method":"ping"})"
                          "\n"
                          R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"vigilo_status"}})"
                          "\n");
  std::ostringstream gone;
  gone.setstate(std::ios::badbit);
  EXPECT_EQ(runMcpServer(more, gone, context()), 1);
  EXPECT_EQ(sent_.size(), 1u);
}

TEST_F(McpServerTest, HugeLinesAreReadWholeOrRefusedWithoutLosingTheStream) {
  const std::string pad(10 * 1024 * 1024, 'x');
  std::string input = R"({"jsonrpc":"2.0","id":1,"method":"ping","params":{"pad":")" + pad + "\"}}\n";
  input += std::string(kMcpMaxLineBytes + 10, '{') + "\n";
  input += R"({"jsonrpc":"2.0","id":2,"method":"ping"})"
           "\n";
  std::istringstream in(input);
  std::ostringstream out;
  EXPECT_EQ(runMcpServer(in, out, context()), 0);
  auto got = lines(out.str());
  ASSERT_EQ(got.size(), 3u);
  EXPECT_EQ(json::parse(got[0])["id"], 1);
  EXPECT_EQ(json::parse(got[1]),
            json::parse(R"({"jsonrpc":"2.0","id":null,"error":{"code":-32600,"message":"Invalid Request",)"
                        R"("data":"a message may be at most 16 MiB long"}})"));
  EXPECT_EQ(json::parse(got[2])["id"], 2);
}

}  // namespace
}  // namespace vigilo::test
