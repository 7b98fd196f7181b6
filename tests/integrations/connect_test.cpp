#include <filesystem>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <toml++/toml.h>

#include "agents/claude_hooks.h"
#include "integrations/ai_connect.h"
#include "integrations/toml_top.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using json = nlohmann::json;

// Parses TOML with a real parser; the error text when it fails.
std::string tomlError(const std::string& text) {
  try {
    (void)toml::parse(text);
    return "";
  } catch (const toml::parse_error& e) {
    return std::string(e.description());
  }
}

TEST(TOMLTopTest, FindsOnlyRealTopLevelKeysWhateverStringsAndBracketsHold) {
  // Each text hides a fake "approval_policy" line or header inside a string
  // or an array; only the real top-level line counts.
  struct Case {
    const char* text;
    std::optional<std::string> value;
  };
  const Case cases[] = {
      {"approval_policy = \"on-request\"\n", "on-request"},
      {"model = \"\"\"\napproval_policy = \"never\"\n[table]\n\"\"\"\napproval_policy = 'untrusted'\n", "untrusted"},
      {"notes = '''\n[mcp_servers.x]\napproval_policy = \"never\"'''\n", std::nullopt},
      {"list = [\n  \"a\", # ] not the end\n  \"[x]\",\n]\napproval_policy = \"on-failure\" # mine\n", "on-failure"},
      {"\"approval_policy\" = \"never\"\n", "never"},
      {"x = \"a \\\" approval_policy = 1\"\n[t]\napproval_policy = \"never\"\n", std::nullopt},
      {"\xEF\xBB\xBF  approval_policy\t=\t\"never\"\r\n", "never"},
      {"approval_policy = \"\\u0041b\"", "Ab"},
  };
  for (const Case& c : cases) {
    ASSERT_EQ(tomlError(c.text), "") << c.text;
    EXPECT_EQ(TOMLTop::value(c.text, "approval_policy"), c.value) << c.text;
  }
}

TEST(TOMLTopTest, RefusesKeysThatCannotBeEditedLineByLine) {
  auto twice = TOMLTop::check("approval_policy = \"never\"\nx = 1\napproval_policy = \"untrusted\"\n",
                              {"approval_policy", "sandbox_mode"});
  ASSERT_TRUE(twice);
  EXPECT_TRUE(twice->twice);
  EXPECT_EQ(twice->key, "approval_policy");
  auto spans = TOMLTop::check("sandbox_mode = \"\"\"\nread-only\"\"\"\n", {"approval_policy", "sandbox_mode"});
  ASSERT_TRUE(spans);
  EXPECT_FALSE(spans->twice);
  EXPECT_EQ(spans->key, "sandbox_mode");
  EXPECT_TRUE(TOMLTop::check("x = [1,\n", {"approval_policy"}));
  // The same key in a table is another key.
  EXPECT_FALSE(TOMLTop::check("approval_policy = \"never\"\n[p]\napproval_policy = \"never\"\n", {"approval_policy"}));
}

// The person's files, each with something that is easy to lose.
struct Original {
  const char* what;
  std::string text;
};
const std::vector<Original>& originals() {
  static const std::vector<Original> all = {
      {"empty", ""},
      {"comments and blank lines",
       "# my Codex settings\n\nmodel = \"o3\"   # fast\n\n# projects\n[projects.\"/home/zoë/src\"]\ntrust_level = "
       "\"trusted\"\n\n"},
      {"CRLF", "model = \"o3\"\r\n\r\n[tui]\r\nnotifications = true\r\n"},
      {"no final newline", "model = \"o3\"\n[tui]\nnotifications = true"},
      {"only a table", "[profiles.work]\nmodel = \"gpt-5\"\n"},
      {"multi-line values", "instructions = \"\"\"\nBe brief.\n[not a table]\n\"\"\"\nlist = [\n 1,\n 2,\n]\n"},
      {"non-ASCII, no newline", "model = \"模型\" # ünïcödé"},
  };
  return all;
}

TEST(TOMLTopTest, SettingAndRemovingLinesKeepsEveryOtherByteAndStaysValidToml) {
  for (const Original& o : originals()) {
    SCOPED_TRACE(o.what);
    std::string t = TOMLTop::set(o.text, "approval_policy", "approval_policy = \"never\"");
    t = TOMLTop::set(t, "sandbox_mode", "sandbox_mode = \"danger-full-access\"");
    ASSERT_EQ(tomlError(t), "") << t;
    auto parsed = toml::parse(t);
    EXPECT_EQ(parsed["approval_policy"].value<std::string>(), "never");
    EXPECT_EQ(parsed["sandbox_mode"].value<std::string>(), "danger-full-access");
    // Setting again changes nothing; removing both gives back the file.
    EXPECT_EQ(TOMLTop::set(t, "approval_policy", "approval_policy = \"never\""), t);
    std::string back = TOMLTop::set(TOMLTop::set(t, "sandbox_mode", std::nullopt), "approval_policy", std::nullopt);
    EXPECT_EQ(back, o.text);
  }
  // A line of the person's own is replaced in place, its neighbours kept.
  const std::string mine = "a = 1\r\napproval_policy = 'untrusted' # careful\r\nb = 2";
  EXPECT_EQ(TOMLTop::set(mine, "approval_policy", "approval_policy = \"never\""),
            "a = 1\r\napproval_policy = \"never\"\r\nb = 2");
}

// A connection against a home folder of its own, with a stand-in for the
// claude tool that records how it is called.
class ConnectTest : public ::testing::Test {
 protected:
  void SetUp() override {
    places_.home = dir_.path();
    places_.searchPath = dir_.file("bin");
    places_.systemClaudePaths.clear();
    std::filesystem::create_directories(dir_.file(".config/Claude"));
    std::filesystem::create_directories(dir_.file(".codex"));
    std::filesystem::create_directories(dir_.file("elsewhere"));
    server_.command = "/opt/vigilo \"dev\"\\bin/vigilo";
    server_.args = {"mcp"};
  }
  AIConnect connect(int exitStatus = 0) {
    return AIConnect(places_, [this, exitStatus](const std::string& program, const std::vector<std::string>& args) {
      calls_.push_back(program + " " + join(args));
      return exitStatus;
    });
  }
  void fakeClaude() {
    std::filesystem::create_directories(dir_.file("bin"));
    writeFile(dir_.file("bin/claude"), "#!/bin/sh\nexit 0\n");
    ::chmod(dir_.file("bin/claude").c_str(), 0755);
  }
  static std::string join(const std::vector<std::string>& args) {
    std::string s;
    for (const auto& a : args) s += (s.empty() ? "" : "|") + a;
    return s;
  }

  TempDir dir_;
  AgentPlaces places_;
  ServerCommand server_;
  const std::string hook_ = ClaudeHooks::commandFor("/opt/vigilo/vigilo");
  std::vector<std::string> calls_;
};

TEST_F(ConnectTest, ClaudeCodeGoesThroughItsOwnToolAndFallsBackToItsFile) {
  // Given the claude tool: it is asked to replace the entry, and the file is
  // left to it.
  fakeClaude();
  EXPECT_EQ(connect().connectClaudeCode(server_, hook_),
            "Added to Claude Code for all projects. It now tells Vigilo when it's working, waiting for you, or done "
            "(new sessions).");
  const std::string claude = dir_.file("bin/claude");
  EXPECT_EQ(calls_, (std::vector<std::string>{claude + " mcp|remove|--scope|user|vigilo",
                                              claude + " mcp|add|--scope|user|vigilo|--|" + server_.command + "|mcp"}));
  EXPECT_FALSE(fileExists(places_.claudeJson()));
  json settings = json::parse(readFile(places_.claudeSettings()));
  EXPECT_EQ(settings["hooks"]["Stop"][0]["hooks"][0]["command"], hook_);

  // Given a tool that fails to add it: the file is edited, twice still one entry.
  writeFile(places_.claudeJson(), "{\n  \"numStartups\": 3,\n  \"mcpServers\": {\"other\": {\"command\": \"x\"}}\n}\n");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(connect(1).connectClaudeCode(server_, hook_),
              "Added to Claude Code (~/.claude.json). It now tells Vigilo when it's working, waiting for you, or done "
              "(new sessions).");
  }
  json file = json::parse(readFile(places_.claudeJson()));
  EXPECT_EQ(file["numStartups"], 3);
  EXPECT_EQ(file["mcpServers"]["other"]["command"], "x");
  EXPECT_EQ(file["mcpServers"]["vigilo"],
            json({{"type", "stdio"}, {"command", server_.command}, {"args", {"mcp"}}}));
  EXPECT_TRUE(fileExists(places_.claudeJson() + ".vigilo-backup"));
  EXPECT_EQ(json::parse(readFile(places_.claudeSettings()))["hooks"]["Stop"].size(), 1u);
}

TEST_F(ConnectTest, FilesThatArentJsonObjectsAreLeftAlone) {
  for (const std::string bad : {"{\"a\": 1,}", "[1]", "// comment\n{}"}) {
    writeFile(places_.claudeJson(), bad);
    writeFile(places_.claudeAppConfig(), bad);
    EXPECT_EQ(connect().connectClaudeApp(server_),
              places_.shown(places_.claudeAppConfig()) + " isn't valid JSON, so I left it alone.");
    EXPECT_EQ(connect().connectClaudeCode(server_, hook_),
              "~/.claude.json isn't valid JSON, so I left it alone. It now tells Vigilo when it's working, waiting "
              "for you, or done (new sessions).");
    EXPECT_EQ(readFile(places_.claudeJson()), bad);
    EXPECT_EQ(readFile(places_.claudeAppConfig()), bad);
  }
}

TEST_F(ConnectTest, EveryFileKeepsThePersonsContentByteForByte) {
  // Codex: each original, connected and disconnected.
  const std::string codex = dir_.file(".codex/config.toml");
  std::filesystem::create_directories(dir_.file(".codex"));
  for (const Original& o : originals()) {
    SCOPED_TRACE(o.what);
    writeFile(codex, o.text);
    ASSERT_EQ(connect().connectCodex(server_), "Added to Codex (~/.codex/config.toml). New sessions can use Vigilo.");
    const std::string connected = readFile(codex);
    ASSERT_EQ(tomlError(connected), "") << connected;
    auto parsed = toml::parse(connected);
    EXPECT_EQ(parsed["mcp_servers"]["vigilo"]["command"].value<std::string>(), server_.command);
    EXPECT_EQ(parsed["mcp_servers"]["vigilo"]["args"][0].value<std::string>(), "mcp");
    EXPECT_EQ(connected.substr(0, o.text.size()), o.text);
    EXPECT_EQ(readFile(codex + ".vigilo-backup"), o.text.empty() ? "" : o.text);
    ASSERT_EQ(connect().connectCodex(server_), "Added to Codex (~/.codex/config.toml). New sessions can use Vigilo.");
    EXPECT_EQ(readFile(codex), connected);
    connect().disconnectAll();
    const std::string back = readFile(codex);
    // A file without a final line break gets one back; nothing else differs.
    EXPECT_TRUE(back == o.text || back == o.text + TOMLTop::lineBreak(o.text)) << back;
  }

  // JSON: indentation, CRLF, key order, non-ASCII and the missing final
  // newline survive connecting and disconnecting.
  for (const std::string& original :
       {std::string("{\r\n  \"zeta\": \"ünï\",\r\n  \"alpha\": [\r\n    1,\r\n    2\r\n  ]\r\n}\r\n"),
        std::string("{\n\t\"b\": {\n\t\t\"x\": null\n\t},\n\t\"a\": \"模型\"\n}")}) {
    writeFile(places_.claudeAppConfig(), original);
    EXPECT_EQ(connect().connectClaudeApp(server_), "Added to the Claude app. Restart it to pick Vigilo up.");
    json app = json::parse(readFile(places_.claudeAppConfig()));
    EXPECT_EQ(app["mcpServers"]["vigilo"], json({{"command", server_.command}, {"args", {"mcp"}}}));
    connect().disconnectAll();
    EXPECT_EQ(readFile(places_.claudeAppConfig()), original);
  }
}

TEST_F(ConnectTest, CodexEntriesWrittenByHandAndCodexHomeAreRespected) {
  const std::string handWritten = "mcp_servers.vigilo = { command = \"x\" }\n";
  for (const std::string& text : {handWritten, std::string("mcp_servers . vigilo.command = \"x\"\n"),
                                 std::string("[mcp_servers]\nvigilo = { command = \"x\" }\n")}) {
    writeFile(dir_.file(".codex/config.toml"), text);
    EXPECT_EQ(connect().connectCodex(server_), "Codex already has an vigilo entry written by hand; left it as it is.");
    EXPECT_EQ(readFile(dir_.file(".codex/config.toml")), text);
  }
  // An older table of Vigilo's is replaced in place; what follows it stays.
  places_.codexHome = dir_.file("elsewhere");
  const std::string older = "[mcp_servers.vigilo]\ncommand = \"/old\"\nargs = [\"cli\", \"mcp\"]\n\n# next\n[tui]\n";
  writeFile(dir_.file("elsewhere/config.toml"), older);
  EXPECT_EQ(connect().connectCodex(server_),
            "Added to Codex (" + dir_.file("elsewhere/config.toml").replace(0, dir_.path().size(), "~") +
                "). New sessions can use Vigilo.");
  const std::string now = readFile(dir_.file("elsewhere/config.toml"));
  EXPECT_EQ(now, "[mcp_servers.vigilo]\ncommand = " + TOMLTop::quote(server_.command) +
                     "\nargs = [\"mcp\"]\n\n# next\n[tui]\n");
  EXPECT_EQ(readFile(dir_.file(".codex/config.toml")), "[mcp_servers]\nvigilo = { command = \"x\" }\n");
  // A folder of its own for the app reaches the server through env.
  server_.env = {{"VIGILO_HOME", "/srv/v\"igilo"}};
  connect().connectCodex(server_);
  auto parsed = toml::parse(readFile(dir_.file("elsewhere/config.toml")));
  EXPECT_EQ(parsed["mcp_servers"]["vigilo"]["env"]["VIGILO_HOME"].value<std::string>(), "/srv/v\"igilo");
}

}  // namespace
}  // namespace vigilo::test
