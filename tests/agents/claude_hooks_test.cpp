#include "agents/claude_hooks.h"

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

namespace vigilo::test {
namespace {

using ordered_json = nlohmann::ordered_json;

constexpr const char* kCommand = "[ -x '/usr/local/bin/vigilo' ] && '/usr/local/bin/vigilo' event claude-code; exit 0";

// Other settings around the hooks, the user's own hooks (non-command ones,
// one that merely looks like Vigilo's) and an empty group.
constexpr const char* kUserSettings = R"json({
  "permissions": {"allow": ["Bash(npm run lint)"], "defaultMode": "acceptEdits"},
  "hooks": {
    "PreToolUse": [{"matcher": "Bash", "hooks": [{"type": "command", "command": "~/bin/check.sh", "timeout": 30}]}],
    "Stop": [{"hooks": [{"type": "http", "url": "http://localhost:8080/stop"}]}],
    "Notification": [{"matcher": "permission_prompt", "hooks": [{"type": "mcp_tool", "server": "phone"},
        {"type": "command", "command": "logger event claude-code"}]}],
    "SessionStart": [{"hooks": []}]
  },
  "model": "opus"
}
)json";

std::map<std::string, int> countOf(const ordered_json& settings, const std::string& command) {
  std::map<std::string, int> counts;
  for (const auto& [event, groups] : settings["hooks"].items()) {
    for (const auto& group : groups) {
      for (const auto& entry : group.value("hooks", ordered_json::array())) counts[event] += entry.value("command", "") == command;
    }
  }
  std::erase_if(counts, [](const auto& c) { return c.second == 0; });
  return counts;
}

const std::map<std::string, int> kOncePerEvent = {
    {"SessionStart", 1}, {"UserPromptSubmit", 1}, {"Notification", 1}, {"Stop", 1}, {"SessionEnd", 1}};

class ClaudeHooksTest : public ::testing::Test {
 protected:
  std::string settings() const { return dir_.file(".claude/settings.json"); }
  std::string backup() const { return settings() + ".vigilo-backup"; }
  void given(const std::string& text) {
    std::filesystem::create_directories(dir_.file(".claude"));
    writeFile(settings(), text);
  }
  ordered_json onDisk() const { return ordered_json::parse(readFile(settings())); }

  TempDir dir_;
};

TEST_F(ClaudeHooksTest, InstallsIntoAMissingFile) {
  EXPECT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_FALSE(fileExists(backup()));
  const ordered_json group = {{"hooks", {{{"type", "command"}, {"command", kCommand}, {"timeout", 10}}}}};
  EXPECT_EQ(onDisk(), (ordered_json{{"hooks", {{"SessionStart", {group}}, {"UserPromptSubmit", {group}},
                                               {"Notification", {group}}, {"Stop", {group}}, {"SessionEnd", {group}}}}}));
  EXPECT_TRUE(ClaudeHooks::installedAt(settings(), kCommand));
  EXPECT_EQ(readFile(settings()).substr(0, 15), "{\n  \"hooks\": {\n");  // indented as Claude Code writes it
}

TEST_F(ClaudeHooksTest, ReinstallsWithoutDuplicatesAndRemovesOnlyItsOwn) {
  const std::string old = ClaudeHooks::commandFor("/home/ana/Downloads/Vigilo/vigilo");
  const std::string start = ClaudeHooks::with(ordered_json::parse(kUserSettings), old)->dump(2);
  given(start);
  for (int i = 0; i < 3; ++i) ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_EQ(readFile(backup()), start);
  const ordered_json installed = onDisk();
  EXPECT_EQ(countOf(installed, kCommand), kOncePerEvent);
  EXPECT_TRUE(countOf(installed, old).empty());
  EXPECT_EQ(installed["hooks"]["Stop"][0], ordered_json::parse(kUserSettings)["hooks"]["Stop"][0]);  // the user's first

  // Installing what is there leaves the bytes alone and backs nothing up.
  const std::string bytes = readFile(settings());
  std::filesystem::remove(backup());
  ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_EQ(readFile(settings()), bytes);
  EXPECT_FALSE(fileExists(backup()));

  // Removing gives back exactly what the user had, key order included.
  ASSERT_EQ(ClaudeHooks::uninstall(settings()), std::nullopt);
  EXPECT_EQ(onDisk().dump(), ordered_json::parse(kUserSettings).dump());
  EXPECT_FALSE(ClaudeHooks::installedAt(settings(), kCommand));
  EXPECT_EQ(readFile(backup()), bytes);
}

TEST_F(ClaudeHooksTest, RefusesFilesItCannotEditSafely) {
  const std::string notJson = "Couldn't read ~/.claude/settings.json (it isn't plain JSON), so nothing was changed.";
  const std::string badForm = "Couldn't add Vigilo's hooks: \"hooks\" in ~/.claude/settings.json isn't in the form "
                              "Claude Code uses, so nothing was changed.";
  const std::pair<std::string, std::string> rows[] = {
      {"{\n  // mine\n  \"model\": \"opus\"\n}\n", notJson},
      {"[]", notJson},
      {"{\"model\": \"op\xffus\"}", notJson},
      {"{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}", notJson},
      {R"({"hooks": "none"})", badForm},
      {R"({"hooks": {"Stop": {"command": "x"}}})", badForm},
  };
  for (const auto& [text, error] : rows) {
    SCOPED_TRACE(text.substr(0, 40));
    given(text);
    EXPECT_EQ(ClaudeHooks::install(settings(), kCommand), error);
    if (error == notJson) { EXPECT_EQ(ClaudeHooks::uninstall(settings()), notJson); }
    EXPECT_EQ(readFile(settings()), text);
    EXPECT_FALSE(fileExists(backup()));
  }
}

TEST_F(ClaudeHooksTest, RefusesWhenTheFileChangesDuringTheEdit) {
  const std::string changed = "~/.claude/settings.json changed while Vigilo was editing it; try again.";
  given(kUserSettings);
  const std::string edited = std::string(kUserSettings) + " ";
  // The last look at the file comes once the new content waits, synced,
  // beside it: a change made while it was being written is not lost.
  bool waiting = false;
  EXPECT_EQ(ClaudeHooks::install(settings(), kCommand,
                                 [&] {
                                   for (const auto& e : std::filesystem::directory_iterator(dir_.file(".claude"))) {
                                     waiting = waiting || (e.path().string().find(".vigilo-new-") != std::string::npos &&
                                                           readFile(e.path()).find(kCommand) != std::string::npos);
                                   }
                                   writeFile(settings(), edited);
                                 }),
            changed);
  EXPECT_TRUE(waiting);
  EXPECT_EQ(readFile(settings()), edited);

  // Also when the file appears while Vigilo means to create it.
  std::filesystem::remove_all(dir_.file(".claude"));
  EXPECT_EQ(ClaudeHooks::install(settings(), kCommand, [&] { given("{}"); }), changed);
  EXPECT_EQ(readFile(settings()), "{}");
}

TEST(ClaudeHooksEdit, WithoutRemovesOnlyVigilosEntries) {
  const ordered_json entry = {{"type", "command"}, {"command", ClaudeHooks::commandFor("/opt/Vigilo/vigilo")}};
  const ordered_json mine = {{"type", "command"}, {"command", "make lint"}};
  auto stop = [](ordered_json groups) { return ordered_json{{"hooks", {{"Stop", groups}}}}; };
  const std::tuple<const char*, ordered_json, std::optional<ordered_json>> rows[] = {
      {"hooks not an object", {{"hooks", 3}}, std::nullopt},
      {"sharing a group", stop({{{"matcher", ""}, {"hooks", {mine, entry}}}}), stop({{{"matcher", ""}, {"hooks", {mine}}}})},
      {"emptied group and event", stop({{{"hooks", {entry}}}}), ordered_json::object()},
      {"upper-case name", stop({{{"hooks", {{{"type", "command"}, {"command", "/Apps/VIGILO event claude-code"}}}}}}),
       ordered_json::object()},
      {"not ours",
       stop({{{"hooks", {{{"type", "command"}, {"command", "vigilo status"}},
                         {{"type", "http"}, {"url", "http://vigilo.local/event claude-code"}},
                         {{"type", "command"}, {"command", 5}}, "stray text"}}}}),
       std::nullopt},
  };
  for (const auto& [what, before, after] : rows) {
    SCOPED_TRACE(what);
    EXPECT_EQ(ClaudeHooks::without(before), std::pair(after.value_or(before), after.has_value()));
  }

  // Each agent's entries are its own: Codex's removal leaves Claude Code's
  // and Gemini CLI's (whose name begins like a longer agent's would) alone.
  const ordered_json codex = {{"type", "command"}, {"command", AgentHooks::commandFor("/opt/vigilo", "codex")}};
  const ordered_json gemini = {{"type", "command"}, {"command", "'/opt/vigilo' event gemini-next; exit 0"}};
  const auto shared = stop({{{"hooks", {entry, codex, gemini}}}});
  EXPECT_EQ(ClaudeHooks::without(shared).first, stop({{{"hooks", {codex, gemini}}}}));
  EXPECT_EQ(AgentHooks::without(shared, HookFormat::codex("~/.codex/hooks.json")).first,
            stop({{{"hooks", {entry, gemini}}}}));
  EXPECT_FALSE(AgentHooks::without(shared, HookFormat::gemini()).second);
  // Gemini CLI counts a hook's time in milliseconds and lists hooks by name.
  const auto withGemini = AgentHooks::with(ordered_json::object(), "x event gemini", HookFormat::gemini());
  ASSERT_TRUE(withGemini);
  EXPECT_EQ((*withGemini)["hooks"]["AfterAgent"],
            ordered_json::parse(R"([{"hooks":[{"name":"vigilo","type":"command","command":"x event gemini",)"
                                R"("timeout":10000}]}])"));
}

TEST(ClaudeHooksCommand, QuotesForTheShellAndNamesThisBuild) {
  EXPECT_EQ(ClaudeHooks::commandFor("/usr/local/bin/vigilo"), kCommand);
  const std::string current = ClaudeHooks::currentCommand();
  ASSERT_EQ(current.rfind("[ -x '", 0), 0u);
  const std::string path = current.substr(6, current.find('\'', 6) - 6);
  EXPECT_EQ(::access(path.c_str(), X_OK), 0) << path;
}

}  // namespace
}  // namespace vigilo::test
