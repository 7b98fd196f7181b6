#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <random>
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
  // Each text hides a fake "approval_policy" line or header inside a string
  // or an array; only the real top-level line counts. Then the key refused,
  // and whether for being set twice.
  struct Case {
    const char* text;
    std::optional<std::string> value;
    std::optional<std::pair<std::string, bool>> refused = {};
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
  EXPECT_EQ(file["numStartups"], 3);
  EXPECT_EQ(file["mcpServers"]["other"]["command"], "x");
  EXPECT_EQ(file["mcpServers"]["vigilo"], json({{"type", "stdio"}, {"command", server_.command}, {"args", {"mcp"}}}));
  EXPECT_TRUE(fileExists(places_.claudeJson() + ".vigilo-backup"));
  const json stop = json::parse(readFile(places_.claudeSettings()))["hooks"]["Stop"];
  EXPECT_EQ(stop.size(), 1u);
  EXPECT_EQ(stop[0]["hooks"][0]["command"], hook_);
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

// Settings files as people have them, drawn from a seed so that a failure
// names the file that shows it.
class FileGenerator {
 public:
  explicit FileGenerator(unsigned seed) : rng_(seed) {}

  // A JSON object in one of the layouts people and programs write.
  std::string json() {
    const int layout = pick(5);
    pretty_ = layout >= 2;
    unit_ = layout == 2 ? "  " : layout == 3 ? "    " : "\t";
    colon_ = layout == 1 || pretty_ ? ": " : ":";
    comma_ = layout == 1 ? ", " : ",";
    eol_ = pick(4) == 0 ? "\r\n" : "\n";
    std::vector<std::pair<std::string, std::string>> members;
    const int n = pick(5);
    for (int i = 0; i < n; ++i) members.emplace_back("k" + std::to_string(i), value(1, unit_));
    if (pick(2)) members.emplace_back("mcpServers", pick(2) ? "{}" : object({{"other", "{\"command\"" + colon_ + "\"x\"}"}}, unit_));
    if (pick(2)) {
      std::vector<std::pair<std::string, std::string>> perms = {{"allow", "[\"Bash(ls)\"]"}};
      if (pick(2)) perms.emplace_back("defaultMode", "\"acceptEdits\"");
      members.emplace_back("permissions", pick(3) ? object(perms, unit_) : "{}");
    }
    if (pick(3) == 0) members.emplace_back("skipDangerousModePermissionPrompt", "false");
    if (pick(3) == 0) {
      members.emplace_back("hooks", "{\"Stop\"" + colon_ + "[{\"hooks\"" + colon_ +
                                        "[{\"type\"" + colon_ + "\"command\"" + comma_ + "\"command\"" + colon_ +
                                        "\"notify-send done\"}]}]}");
    }
    std::shuffle(members.begin(), members.end(), rng_);
    return object(members, "") + (pick(2) ? eol_ : "");
  }

  // A TOML file with comments, odd spacing, inline tables and sub-tables.
  std::string toml() {
    const std::string eol = pick(4) == 0 ? "\r\n" : "\n";
    std::string out;
    auto line = [&](const std::string& l) { out += l + eol; };
    if (pick(2)) line("# Codex " + std::string(pick(2) ? "" : "  settings ") + "# \"quoted\"");
    if (pick(2)) line(pick(2) ? "approval_policy = \"on-request\"" : "approval_policy='untrusted'  # mine");
    const int top = pick(4);
    for (int i = 0; i < top; ++i) line(tomlPair("t" + std::to_string(i)));
    if (pick(2)) line("sandbox_mode   =   \"read-only\"");
    if (pick(3) == 0) line("");
    const int tables = pick(4);
    for (int i = 0; i < tables; ++i) {
      const int kind = pick(4);
      const std::string name = kind == 0 ? "mcp_servers.s" + std::to_string(i) : "tab" + std::to_string(i);
      line(pick(2) ? "[" + name + "]" : "[ " + name + " ]  # table");
      for (int k = pick(3); k >= 0; --k) line(tomlPair("p" + std::to_string(k)));
      if (kind == 0 && pick(2)) {
        line("[" + name + ".env]");
        line("TOKEN = \"a\\u00e9\"");
      }
      if (pick(3) == 0) line("");
    }
    if (!out.empty() && pick(3) == 0) out.resize(out.size() - eol.size());
    return out;
  }

  int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

 private:
  std::string value(int depth, const std::string& indent) {
    static const char* const scalars[] = {"0", "-12", "1.50", "1e3", "123456789012345678901234567890", "true",
                                          "null", "\"caf\\u00e9\"", "\"zoë\"", "\"a\\\"b\\\\c\\/d\\n\"", "\"\""};
    const int kind = depth < 3 ? pick(5) : 2;
    if (kind == 0) {
      std::vector<std::pair<std::string, std::string>> members;
      for (int i = pick(3); i > 0; --i) members.emplace_back("n" + std::to_string(i), value(depth + 1, indent + unit_));
      return object(members, indent);
    }
    if (kind == 1) {
      std::string a = "[";
      for (int i = pick(4); i > 0; --i) a += value(depth + 1, indent) + (i > 1 ? comma_ : "");
      return a + "]";
    }
    return scalars[pick(static_cast<int>(std::size(scalars)))];
  }
  // Members one step in from `indent`, the line the object starts on.
  std::string object(const std::vector<std::pair<std::string, std::string>>& members, const std::string& indent) {
    if (members.empty()) return "{}";
    std::string o = "{";
    for (std::size_t i = 0; i < members.size(); ++i) {
      o += (i ? comma_ : "") + (pretty_ ? eol_ + indent + unit_ : "") + "\"" + members[i].first + "\"" + colon_ +
           members[i].second;
    }
    return o + (pretty_ ? eol_ + indent : "") + "}";
  }
  std::string tomlPair(const std::string& key) {
    switch (pick(9)) {
      case 0: return key + "=1";
      case 1: return key + " = \"caf\\u00e9 \\\"x\\\"\"   # note";
      case 2: return key + " = [1, 2,3]";
      case 3: return key + " = [" + "\n  \"a\",  # first\n  'b',\n]";
      case 4: return key + " = { a = 1, b = \"x\" }";
      case 5: return key + ".dotted = 9223372036854775807";
      case 6: return key + " = \"\"\"\nBe brief.\n[not a table]\n\"\"\"";
      case 7: return key + " = \"模型\" # ünïcödé";
      default: return "\"" + key + " q\" = 'lit\\eral'";
    }
  }

  std::mt19937 rng_;
  bool pretty_ = true;
  std::string unit_, colon_, comma_, eol_;
};

// A folder in memory where there is one: the property test below syncs
// thousands of small files.
class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (std::filesystem::is_directory("/dev/shm") ? std::string("/dev/shm")
                                                                    : std::filesystem::temp_directory_path().string()) +
                       "/vigilo-test-XXXXXX";
    if (::mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
  }
  ~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

TEST_F(ConnectTest, ConnectThenDisconnectAndApproveOnThenOffGiveBackEveryByte) {
  const ScratchDir scratch;
  places_.home = scratch.file("home");
  for (const char* folder : {"home/.claude", "home/.codex", "home/.config/Claude", "home/.gemini"}) {
    std::filesystem::create_directories(scratch.file(folder));
  }
  // Codex's hooks.json and Gemini CLI's settings come last.
  const std::vector<std::string> jsonFiles = {places_.claudeJson(), places_.claudeSettings(), places_.claudeAppConfig(),
                                              places_.codexHooks(), places_.geminiSettings()};
  const std::string codexHook = AgentHooks::commandFor("/opt/vigilo/vigilo", "codex");
  const std::string geminiHook = AgentHooks::commandFor("/opt/vigilo/vigilo", "gemini");
  const std::string codex = places_.codexConfig();
  ManualClock clock;
  for (unsigned seed = 1; seed <= 500; ++seed) {
    FileGenerator gen(seed);
    // Each file as it was; nothing for one that didn't exist.
    std::vector<std::pair<std::string, std::optional<std::string>>> files;
    for (const auto& path : jsonFiles) files.emplace_back(path, gen.pick(8) ? std::optional(gen.json()) : std::nullopt);
    files.emplace_back(codex, gen.pick(8) ? std::optional(gen.toml()) : std::nullopt);
    const mode_t modes[] = {0600, 0644, 0640};
    for (const auto& [path, text] : files) {
      std::filesystem::remove(path);
      std::filesystem::remove(path + ".vigilo-backup");
      if (!text) continue;
      writeFile(path, *text);
      ::chmod(path.c_str(), modes[gen.pick(3)]);
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + "\n" + files[1].second.value_or("(none)") + "\n" +
                 files[5].second.value_or("(none)"));
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
    ASSERT_EQ(c.connectGemini(server_, geminiHook), "Added to Gemini CLI (~/.gemini/settings.json)." + hooked);
    ASSERT_EQ(c.connectClaudeApp(server_), "Added to the Claude app. Restart it to pick Vigilo up.");
    if (gen.pick(2)) {
      // Connected again after Vigilo moved.
      ServerCommand moved = server_;
      moved.command = "/moved/vigilo";
      c.connectClaudeCode(moved, hook_);
      c.connectCodex(moved, codexHook);
      c.connectGemini(moved, geminiHook);
      c.connectClaudeApp(moved);
    }
    ASSERT_TRUE(c.claudeCodeConnected() && c.codexConnected() && c.claudeAppConnected() && c.geminiConnected());
    ASSERT_TRUE(AgentHooks::installedAt(places_.codexHooks(), codexHook));
    ASSERT_TRUE(AgentHooks::installedAt(places_.geminiSettings(), geminiHook));
    c.disconnectAll();
    ASSERT_EQ(state(), before);

    if (!files[1].second || !files[5].second) continue;
    AutoApprove approve(scratch.file("app"), places_, clock);
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
  // A folder of its own for the app reaches the server through env.
  server_.env = {{"VIGILO_HOME", "/srv/v\"igilo"}};
  connect().connectCodex(server_);
  auto parsed = toml::parse(readFile(dir_.file("elsewhere/config.toml")));
  EXPECT_EQ(parsed["mcp_servers"]["vigilo"]["env"]["VIGILO_HOME"].value<std::string>(), "/srv/v\"igilo");
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
      {"a dotted key by hand", "mcp_servers.vigilo = { command = \"x\" }\n", byHand, ""},
      {"a spaced dotted key by hand", "mcp_servers . vigilo.command = \"x\"\n", byHand, ""},
      {"an inline table by hand", "[mcp_servers]\nvigilo = { command = \"x\" }\n", byHand, ""},
      {"not TOML", "model = \"o3\n[tui]\n", notToml, ""},
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
