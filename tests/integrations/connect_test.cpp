#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <toml++/toml.h>

#include "agents/claude_hooks.h"
#include "integrations/ai_connect.h"
#include "integrations/auto_approve.h"
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

TEST(TOMLTopTest, FindsOnlyRealTopLevelKeysAndRefusesThoseItCannotEditLineByLine) {
  // Fake "approval_policy" lines hide in strings and arrays; only the real
  // top-level line counts. Then the key refused, and whether for being twice.
  struct Case {
    const char* text;
    std::optional<std::string> value;
    std::optional<std::pair<std::string, bool>> refused = {};
  };
  const Case cases[] = {
      {"model = \"\"\"\napproval_policy = \"never\"\n[table]\n\"\"\"\napproval_policy = 'untrusted'\n", "untrusted"},
      {"list = [\n  \"a\", # ] not the end\n  \"[x]\",\n]\napproval_policy = \"on-failure\" # mine\n", "on-failure"},
      {"x = \"a \\\" approval_policy = 1\"\n[t]\napproval_policy = \"never\"\n", std::nullopt},
      {"\"approval_policy\" = \"never\"\n", "never"},
      {"\xEF\xBB\xBF  approval_policy\t=\t\"never\"\r\n", "never"},
      {"approval_policy = \"\\u0041b\"", "Ab"},
      {"approval_policy = \"never\"\n[p]\napproval_policy = \"x\"\n", "never"},  // a table's key is another key
      {"approval_policy = \"never\"\nx = 1\napproval_policy = \"untrusted\"\n", "never",
       std::pair("approval_policy", true)},
      {"sandbox_mode = \"\"\"\nread-only\"\"\"\n", std::nullopt, std::pair("sandbox_mode", false)},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(tomlError(c.text).empty(), !c.refused || !c.refused->second) << c.text;
    EXPECT_EQ(TOMLTop::value(c.text, "approval_policy"), c.value) << c.text;
    const auto refused = TOMLTop::check(c.text, {"approval_policy", "sandbox_mode"});
    EXPECT_EQ(refused ? std::optional(std::pair(refused->key, refused->twice)) : std::nullopt, c.refused) << c.text;
  }
  EXPECT_TRUE(TOMLTop::check("x = [1,\n", {"approval_policy"}));
  // A line of the person's own is replaced in place, its neighbours kept.
  EXPECT_EQ(TOMLTop::set("a = 1\r\napproval_policy = 'untrusted' # careful\r\nb = 2", "approval_policy",
                         "approval_policy = \"never\""),
            "a = 1\r\napproval_policy = \"never\"\r\nb = 2");
}

// A connection against a home folder of its own; the claude tool fails or is absent.
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
    return AIConnect(places_, [exitStatus](const std::string&, const std::vector<std::string>&) { return exitStatus; });
  }
  void fakeClaude() {
    std::filesystem::create_directories(dir_.file("bin"));
    writeFile(dir_.file("bin/claude"), "#!/bin/sh\nexit 0\n");
    ::chmod(dir_.file("bin/claude").c_str(), 0755);
  }

  TempDir dir_;
  AgentPlaces places_;
  ServerCommand server_;
  const std::string hook_ = ClaudeHooks::commandFor("/opt/vigilo/vigilo");
};

TEST_F(ConnectTest, WithoutClaudeCodesToolItsFileIsEditedKeepingTheRest) {
  // Given a tool that fails to add it: the file is edited, twice still one entry.
  fakeClaude();
  writeFile(places_.claudeJson(), "{\n  \"numStartups\": 3,\n  \"mcpServers\": {\"other\": {\"command\": \"x\"}}\n}\n");
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(connect(1).connectClaudeCode(server_, hook_),
              "Added to Claude Code (~/.claude.json). It now tells Vigilo when it's working, waiting for you, or done "
              "(new sessions).");
  }
  json file = json::parse(readFile(places_.claudeJson()));
  EXPECT_EQ(file["mcpServers"]["other"]["command"], "x");
  EXPECT_EQ(file["mcpServers"]["vigilo"], json({{"type", "stdio"}, {"command", server_.command}, {"args", {"mcp"}}}));
  EXPECT_TRUE(fileExists(places_.claudeJson() + ".vigilo-backup"));
  EXPECT_TRUE(ClaudeHooks::installedAt(places_.claudeSettings(), hook_));
}

TEST_F(ConnectTest, FilesThatArentJsonObjectsAreLeftAlone) {
  for (const std::string bad : {"[1]", "// comment\n{}"}) {
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

// Settings files in the layouts people and programs write: CRLF, tabs,
// escapes, numbers JSON writers reformat, TOML strings that look like
// tables, sub-tables, no final line break. The second home has none of them.
const char* const kClaudeJson =
    "{\r\n\t\"k0\": [1e3, -12, 1.50, 123456789012345678901234567890],\r\n\t\"mcpServers\": {\r\n\t\t\"other\": "
    "{\"command\": \"x\"}\r\n\t},\r\n\t\"k1\": \"caf\\u00e9 zoë a\\\"b\\\\c\\/d\\n\"\r\n}";
const char* const kClaudeSettings =
    "{\n    \"permissions\": {\n        \"allow\": [\"Bash(ls)\"],\n        \"defaultMode\": \"acceptEdits\"\n    },"
    "\n    \"skipDangerousModePermissionPrompt\": false,\n    \"hooks\": {\"Stop\": [{\"hooks\": [{\"type\": \"command\","
    " \"command\": \"notify-send done\"}]}]}\n}\n";
const char* const kCompactJson = "{\"k0\":null,\"mcpServers\":{},\"k1\":{\"n1\":[true,\"\"]}}";
const char* const kCodexToml =
    "# Codex  settings # \"quoted\"\r\napproval_policy='untrusted'  # mine\r\nt0 = \"\"\"\r\nBe brief.\r\n"
    "[not a table]\r\n\"\"\"\r\nt1.dotted = 9223372036854775807\r\nt2 = { a = 1, b = \"x\" }\r\n"
    "t3 = '''\r\n[mcp_servers.vigilo]\r\napproval_policy = \"never\"'''\r\n"
    "sandbox_mode   =   \"read-only\"\r\n\r\n[ mcp_servers.s0 ]  # table\r\np0 = [\r\n  \"a\",  # first\r\n  'b',\r\n]"
    "\r\n[mcp_servers.s0.env]\r\nTOKEN = \"a\\u00e9\"\r\n[tab1]\r\n\"p1 q\" = 'lit\\eral'";

TEST_F(ConnectTest, ConnectThenDisconnectAndApproveOnThenOffGiveBackEveryByte) {
  for (const char* folder : {".claude", ".gemini"}) std::filesystem::create_directories(dir_.file(folder));
  const std::string codexHook = AgentHooks::commandFor("/opt/vigilo/vigilo", "codex");
  const std::string geminiHook = AgentHooks::commandFor("/opt/vigilo/vigilo", "gemini");
  ManualClock clock;
  using Files = std::vector<std::pair<std::string, std::optional<std::string>>>;
  const Files homes[] = {
      {{places_.claudeJson(), kClaudeJson}, {places_.claudeSettings(), kClaudeSettings},
       {places_.claudeAppConfig(), kCompactJson}, {places_.codexHooks(), kCompactJson},
       {places_.geminiSettings(), kClaudeJson}, {places_.codexConfig(), kCodexToml}},
      {{places_.claudeJson(), {}}, {places_.claudeSettings(), {}}, {places_.claudeAppConfig(), {}},
       {places_.codexHooks(), {}}, {places_.geminiSettings(), {}}, {places_.codexConfig(), {}}},
  };
  for (const Files& files : homes) {
    for (const auto& [path, text] : files) {
      std::filesystem::remove(path);
      std::filesystem::remove(path + ".vigilo-backup");
      if (text) writeFile(path, *text);
      ::chmod(path.c_str(), path == places_.claudeSettings() ? 0640 : 0600);
    }
    SCOPED_TRACE(files[0].second ? "every file there" : "no file there");
    ASSERT_EQ(tomlError(files[5].second.value_or("")), "");
    auto state = [&] {
      std::vector<std::string> now;
      for (const auto& [path, text] : files) {
        struct stat st {};
        now.push_back(::stat(path.c_str(), &st) == 0 ? readFile(path) + "/" + std::to_string(st.st_mode & 0777)
                                                     : "missing");
        if (!text) now.back() += fileExists(path + ".vigilo-backup") ? " with a backup" : "";
      }
      return now;
    };
    const auto before = state();

    AIConnect c = connect(1);
    c.connectClaudeCode(server_, hook_);
    const std::string hooked = " It now tells Vigilo when it's working, waiting for you, or done (new sessions).";
    ASSERT_EQ(c.connectCodex(server_, codexHook),
              "Added to Codex (~/.codex/config.toml). New sessions can use Vigilo." + hooked +
                  " Codex runs new hooks only once you trust them: type /hooks in Codex and trust Vigilo's.");
    ASSERT_EQ(c.connectClaudeApp(server_), "Added to the Claude app. Restart it to pick Vigilo up.");
    // Connected again after Vigilo moved.
    ServerCommand moved = server_;
    moved.command = "/moved/vigilo";
    c.connectClaudeCode(moved, hook_);
    c.connectCodex(moved, codexHook);
    c.connectGemini(moved, geminiHook);
    c.connectClaudeApp(moved);
    ASSERT_TRUE(c.claudeCodeConnected() && c.codexConnected() && c.claudeAppConnected() && c.geminiConnected());
    ASSERT_TRUE(AgentHooks::installedAt(places_.codexHooks(), codexHook));
    ASSERT_TRUE(AgentHooks::installedAt(places_.geminiSettings(), geminiHook));
    c.disconnectAll();
    ASSERT_EQ(state(), before);

    if (!files[1].second) continue;
    AutoApprove approve(dir_.file("app"), places_, clock);
    bool on = false, off = false;
    approve.turnOn(AutoApprove::Ends::Manual, {}, &on);
    ASSERT_TRUE(on);
    approve.turnOff(&off);
    ASSERT_TRUE(off);
    ASSERT_EQ(state(), before);
  }
}

TEST_F(ConnectTest, HooksTheAgentHasTurnedOffAreLeftForThePersonToTurnOn) {
  const std::string codexOff = " Codex's hooks are turned off in ~/.codex/config.toml ([features] hooks = false);"
                               " Vigilo left that to you.";
  const std::string codexHook = AgentHooks::commandFor("/opt/vigilo/vigilo", "codex");
  for (const std::string config : {"[features]\nhooks = false # not yet\n", "features.codex_hooks=false\n"}) {
    writeFile(places_.codexConfig(), config);
    const std::string message = connect().connectCodex(server_, codexHook);
    EXPECT_EQ(message.substr(message.size() - codexOff.size()), codexOff) << message;
    EXPECT_NE(readFile(places_.codexConfig()).find(config), std::string::npos);
  }
  std::filesystem::create_directories(dir_.file(".gemini"));
  const std::string geminiHook = AgentHooks::commandFor("/opt/vigilo/vigilo", "gemini");
  writeFile(places_.geminiSettings(), "{\"hooksConfig\": {\"enabled\": false}}");
  EXPECT_EQ(connect().connectGemini(server_, geminiHook),
            "Added to Gemini CLI (~/.gemini/settings.json). It now tells Vigilo when it's working, waiting for you, or "
            "done (new sessions). Gemini CLI's hooks are turned off there (hooksConfig.enabled is false); Vigilo left "
            "that to you.");
  EXPECT_EQ(json::parse(readFile(places_.geminiSettings()))["hooksConfig"], json({{"enabled", false}}));
  // Gemini CLI reads comments in its settings; Vigilo leaves such a file be.
  const std::string commented = "// mine\n{\"theme\": \"Dracula\"}\n";
  writeFile(places_.geminiSettings(), commented);
  EXPECT_EQ(connect().connectGemini(server_, geminiHook), "~/.gemini/settings.json isn't valid JSON, so I left it alone.");
  EXPECT_EQ(readFile(places_.geminiSettings()), commented);
}

TEST_F(ConnectTest, CodexHomeIsRespectedAndAnOlderTableOfVigilosReplacedInPlace) {
  const std::string mine = "[mcp_servers]\nvigilo = { command = \"x\" }\n";
  writeFile(dir_.file(".codex/config.toml"), mine);
  places_.codexHome = dir_.file("elsewhere");
  const std::string older = "[mcp_servers.vigilo]\ncommand = \"/old\"\nargs = [\"cli\", \"mcp\"]\n\n# next\n[tui]\n";
  writeFile(dir_.file("elsewhere/config.toml"), older);
  EXPECT_EQ(connect().connectCodex(server_),
            "Added to Codex (" + dir_.file("elsewhere/config.toml").replace(0, dir_.path().size(), "~") +
                "). New sessions can use Vigilo.");
  const std::string now = readFile(dir_.file("elsewhere/config.toml"));
  EXPECT_EQ(now, "[mcp_servers.vigilo]\ncommand = " + TOMLTop::quote(server_.command) +
                     "\nargs = [\"mcp\"]\n\n# next\n[tui]\n");
  EXPECT_EQ(readFile(dir_.file(".codex/config.toml")), mine);
}

TEST_F(ConnectTest, CodexEntriesByHandSubTablesAndBrokenFilesNeverEndInABrokenEntry) {
  const std::string codex = places_.codexConfig();
  const std::string byHand = "Codex already has an vigilo entry written by hand; left it as it is.";
  const std::string notToml = "~/.codex/config.toml isn't valid TOML (line ";
  struct Case {
    const char* what;
    std::string text;
    std::string refusal;        // how the message starts when the file is left alone
    std::string disconnected;  // else the file after disconnecting
  };
  const Case cases[] = {
      {"Codex's own env sub-table",
       "model = \"o3\"\n\n[mcp_servers.vigilo]\ncommand = \"/old\"\nargs = [\"mcp\"]\n\n[mcp_servers.vigilo.env]\n"
       "VIGILO_HOME = \"/x\"\n\n[tui]\nx = 1\n",
       "", "model = \"o3\"\n\n\n\n[tui]\nx = 1\n"},
      // Taken for one Vigilo appended to a file without a final line break.
      {"a sub-table left over alone", "model = \"o3\"\n[mcp_servers.vigilo.env]\nA = \"b\"\n", "", "model = \"o3\""},
      {"a spaced dotted key by hand", "mcp_servers . vigilo.command = \"x\"\n", byHand, ""},
      {"an inline table by hand", "[mcp_servers]\nvigilo = { command = \"x\" }\n", byHand, ""},
      // A table name that can't start one: the TOML reader once asserted on it.
      {"a table header opening with a brace", "[{x]\n", notToml, ""},
      {"a key beyond ASCII", "model = \"é\" # ü\naȾ = 1\n", notToml, ""},
  };
  server_.env = {{"VIGILO_HOME", "/srv/vigilo"}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    writeFile(codex, c.text);
    for (int i = 0; i < 2; ++i) {
      const std::string message = connect().connectCodex(server_);
      EXPECT_EQ(message.substr(0, c.refusal.empty() ? message.size() : c.refusal.size()),
                c.refusal.empty() ? "Added to Codex (~/.codex/config.toml). New sessions can use Vigilo." : c.refusal);
    }
    const std::string connected = readFile(codex);
    if (!c.refusal.empty()) {
      EXPECT_EQ(connected, c.text);
      continue;
    }
    ASSERT_EQ(tomlError(connected), "") << connected;
    auto parsed = toml::parse(connected);
    EXPECT_EQ(parsed["mcp_servers"]["vigilo"]["command"].value<std::string>(), server_.command);
    EXPECT_EQ(parsed["mcp_servers"]["vigilo"]["env"]["VIGILO_HOME"].value<std::string>(), "/srv/vigilo");
    connect().disconnectAll();
    EXPECT_EQ(readFile(codex), c.disconnected);
  }

  // The Claude app's folder isn't there: nothing is made up for it.
  std::filesystem::remove_all(dir_.file(".config/Claude"));
  EXPECT_EQ(connect().connectClaudeApp(server_),
            "The Claude app isn't installed here (there is no ~/.config/Claude folder), so nothing was changed.");
  EXPECT_FALSE(fileExists(dir_.file(".config/Claude")));
}

TEST_F(ConnectTest, AgentsReachThePersonsAppFolderWithoutItsEnvironment) {
  // Which folder an agent started with only HOME must be told of.
  struct Case {
    const char* vigiloHome;
    const char* dataHome;
    std::string passed;
  };
  const Case cases[] = {
      {nullptr, nullptr, ""},
      {nullptr, "/data", "/data/vigilo"},
      {"/v", nullptr, "/v"},
      {"HOME/.local/share/vigilo", "/data", ""},
  };
  auto saved = [](const char* name) {
    const char* v = std::getenv(name);
    return v ? std::optional<std::string>(v) : std::nullopt;
  };
  const auto home = saved("HOME"), vh = saved("VIGILO_HOME"), data = saved("XDG_DATA_HOME");
  auto put = [](const char* name, const std::optional<std::string>& v) {
    v ? ::setenv(name, v->c_str(), 1) : ::unsetenv(name);
  };
  for (const Case& c : cases) {
    put("HOME", dir_.path());
    std::string v = c.vigiloHome ? c.vigiloHome : "";
    if (v.rfind("HOME", 0) == 0) v.replace(0, 4, dir_.path());
    put("VIGILO_HOME", c.vigiloHome ? std::optional(v) : std::nullopt);
    put("XDG_DATA_HOME", c.dataHome ? std::optional<std::string>(c.dataHome) : std::nullopt);
    const AgentPlaces places = AgentPlaces::fromEnvironment();
    EXPECT_EQ(places.vigiloHome, c.passed) << c.vigiloHome << " " << c.dataHome;
    EXPECT_EQ(AIConnect::serverCommand(places).env.empty(), c.passed.empty());
  }
  put("HOME", home);
  put("VIGILO_HOME", vh);
  put("XDG_DATA_HOME", data);

  // The hook passes the folder on to the tool, however the agent was started.
  const std::string tool = dir_.file("bin/vig'ilo");
  std::filesystem::create_directories(dir_.file("bin"));
  writeFile(tool, "#!/bin/sh\nprintf '%s' \"$VIGILO_HOME\" > \"$0.out\"\n");
  ::chmod(tool.c_str(), 0755);
  const std::string command = ClaudeHooks::commandFor(tool, "/srv/my 'folder'");
  ASSERT_EQ(std::system(("env -u VIGILO_HOME /bin/sh -c \"$(cat <<'EOF'\n" + command + "\nEOF\n)\"").c_str()), 0);
  EXPECT_EQ(readFile(tool + ".out"), "/srv/my 'folder'");
}

}  // namespace
}  // namespace vigilo::test
