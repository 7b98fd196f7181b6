#include <csignal>
#include <filesystem>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "e2e/sim_app.h"
#include "e2e/piped_process.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// `vigilo connect` run by hand in a home of its own, the app folder where HOME alone leads.
class ConnectEndToEndTest : public SimAppTest {
 protected:
  void SetUp() override {
    home_ = user_ + "/.local/share/vigilo";
    std::filesystem::create_directories(home_);
    std::filesystem::create_directories(dir_.file("bin"));
  }
  ToolRun connect(const std::vector<std::string>& args, const std::string& path) {
    return vigilo(args, {"HOME=" + user_, "PATH=" + path, "XDG_DATA_HOME=", "XDG_CONFIG_HOME=", "CODEX_HOME="});
  }
  static std::string self() { return std::filesystem::canonical(VIGILO_BINARY).string(); }

  std::string user_ = dir_.file("user");
};

TEST_F(ConnectEndToEndTest, ClaudeCodeIsAddedThroughItsOwnToolWhenItIsThere) {
  // A stand-in for the claude tool that writes down each call.
  const std::string claude = dir_.file("bin/claude");
  writeFile(claude, "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >>\"" + dir_.file("calls") +
                        "\"\necho ---- >>\"" + dir_.file("calls") + "\"\n");
  ::chmod(claude.c_str(), 0755);
  ToolRun r = connect({"connect", "claude"}, dir_.file("bin") + ":/usr/bin:/bin");
  EXPECT_EQ(r.status, 0) << r.out << r.err;
  EXPECT_EQ(r.out,
            "Added to Claude Code for all projects. It now tells Vigilo when it's working, waiting for you, or done "
            "(new sessions).\nThen paste the output of: vigilo prompt\n");
  EXPECT_EQ(readFile(dir_.file("calls")),
            "mcp\nremove\n--scope\nuser\nvigilo\n----\nmcp\nadd\n--scope\nuser\nvigilo\n--\n" + self() + "\nmcp\n----\n");
  EXPECT_FALSE(fileExists(user_ + "/.claude.json"));
  const std::string settings = readFile(user_ + "/.claude/settings.json");
  EXPECT_NE(settings.find("event claude-code; exit 0"), std::string::npos) << settings;
}

TEST_F(ConnectEndToEndTest, WithoutTheToolTheFileIsEditedAndTheServerAnswersTheSdkClient) {
  for (const char* p : {"/usr/local/bin/claude", "/opt/homebrew/bin/claude"}) {
    if (fileExists(p)) GTEST_SKIP() << p << " exists here; the fallback can't be shown";
  }
  ToolRun none = connect({"connect"}, "/usr/bin:/bin");
  EXPECT_EQ(none.status, 1);
  EXPECT_EQ(none.out, "No agent found. Use: vigilo connect claude | codex | gemini | claude-app\n");

  ToolRun r = connect({"connect", "claude"}, "/usr/bin:/bin");
  ASSERT_EQ(r.status, 0) << r.out << r.err;
  // The agent starts the server from the entry in ~/.claude.json alone.
  const auto clientDir = std::filesystem::path(__FILE__).parent_path().parent_path() / "mcp-client";
  ASSERT_TRUE(std::filesystem::exists(clientDir / "node_modules" / "@modelcontextprotocol" / "sdk"))
      << "The MCP SDK is not installed: run scripts/setup.";
  startApp({"HOME=" + user_, "XDG_DATA_HOME="});
  PipedProcess node({"/usr/bin/env", "node", (clientDir / "connected.mjs").string(), user_ + "/.claude.json"},
                    {"HOME=" + user_, "XDG_DATA_HOME=", "VIGILO_HOME="},
                    dir_.file("node-err.txt"));
  node.closeInput();
  const std::string out = node.readToEnd(60s);
  EXPECT_EQ(node.wait(10s), 0) << out << readFile(dir_.file("node-err.txt"));
  json s = json::parse(out.substr(0, out.find('\n')), nullptr, false);
  ASSERT_TRUE(s.is_object()) << out;
  EXPECT_FALSE(s.contains("failure")) << s["failure"];
  EXPECT_EQ(s["tools"], 16);
  EXPECT_EQ(s["statusIsError"], false) << s["status"];
  EXPECT_EQ(s["status"]["ok"], true);
}

}  // namespace
}  // namespace vigilo::test
