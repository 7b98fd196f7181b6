#include "agents/claude_hooks.h"

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "test_support.h"

namespace vigilo::test {
namespace {

using ordered_json = nlohmann::ordered_json;

constexpr const char* kCommand = "[ -x '/usr/local/bin/vigilo' ] && '/usr/local/bin/vigilo' event claude-code; exit 0";

// A settings file as people have them: other settings around the hooks, the
// user's own hooks in the events Vigilo uses (and others), handler types
// other than commands, a matcher-less group and an empty one.
constexpr const char* kUserSettings = R"json({
  "$schema": "https://json.schemastore.org/claude-code-settings.json",
  "permissions": {
    "allow": ["Bash(npm run lint)", "Read(~/.zshrc)"],
    "deny": ["Read(./.env)"],
    "defaultMode": "acceptEdits"
  },
  "env": {"DISABLE_TELEMETRY": "1"},
  "hooks": {
    "PreToolUse": [
      {"matcher": "Bash", "hooks": [{"type": "command", "command": "~/bin/check-bash.sh", "timeout": 30}]}
    ],
    "Stop": [
      {"hooks": [{"type": "http", "url": "http://localhost:8080/stop", "headers": {"X-Token": "t"}}]},
      {"matcher": "", "hooks": [{"type": "command", "command": "say 'done'"}]}
    ],
    "Notification": [
      {"matcher": "permission_prompt", "hooks": [
        {"type": "mcp_tool", "server": "phone", "tool": "notify"},
        {"type": "prompt", "prompt": "Summarise what is asked"},
        {"type": "agent", "agent": "reviewer"},
        {"type": "command", "command": "vigilo-status-bar refresh"},
        {"type": "command", "command": "logger event claude-code"}
      ]}
    ],
    "SessionStart": [{"hooks": []}]
  },
  "skipDangerousModePermissionPrompt": true,
  "model": "opus"
}
)json";

ordered_json parse(const std::string& text) { return ordered_json::parse(text); }

std::vector<std::string> keys(const ordered_json& j) {
  std::vector<std::string> out;
  for (const auto& item : j.items()) out.push_back(item.key());
  return out;
}

// How many hook entries run `command`, per event.
std::map<std::string, int> countOf(const ordered_json& settings, const std::string& command) {
  std::map<std::string, int> counts;
  for (const auto& [event, groups] : settings["hooks"].items()) {
    for (const auto& group : groups) {
      for (const auto& entry : group.value("hooks", ordered_json::array())) {
        if (entry.value("command", "") == command) ++counts[event];
      }
    }
  }
  return counts;
}

const std::map<std::string, int> kOncePerEvent = {
    {"SessionStart", 1}, {"UserPromptSubmit", 1}, {"Notification", 1}, {"Stop", 1}, {"SessionEnd", 1}};

// Given a home folder with (or without) ~/.claude/settings.json.
class ClaudeHooksTest : public ::testing::Test {
 protected:
  std::string settings() const { return dir_.file(".claude/settings.json"); }
  std::string backup() const { return settings() + ".vigilo-backup"; }
  void given(const std::string& text) {
    std::filesystem::create_directories(dir_.file(".claude"));
    writeFile(settings(), text);
  }
  ordered_json onDisk() const { return parse(readFile(settings())); }

  TempDir dir_;
};

TEST_F(ClaudeHooksTest, InstallsIntoAMissingOrEmptyFile) {
  // No folder, no file: both appear, and there is nothing to back up.
  EXPECT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_FALSE(fileExists(backup()));
  ordered_json group = {{"hooks", ordered_json::array({{{"type", "command"}, {"command", kCommand}, {"timeout", 10}}})}};
  const ordered_json expected = {{"hooks",
                                  {{"SessionStart", {group}},
                                   {"UserPromptSubmit", {group}},
                                   {"Notification", {group}},
                                   {"Stop", {group}},
                                   {"SessionEnd", {group}}}}};
  EXPECT_EQ(onDisk(), expected);
  EXPECT_TRUE(ClaudeHooks::installedAt(settings(), kCommand));
  // Indented by two spaces, as Claude Code writes it.
  EXPECT_EQ(readFile(settings()).substr(0, 15), "{\n  \"hooks\": {\n");

  for (const char* empty : {"", "\n  \n"}) {
    given(empty);
    EXPECT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
    EXPECT_EQ(onDisk(), expected);
    EXPECT_EQ(readFile(backup()), empty);
  }
}

TEST_F(ClaudeHooksTest, KeepsTheUsersSettingsAndHooks) {
  given(kUserSettings);
  ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_EQ(readFile(backup()), kUserSettings);

  const ordered_json installed = onDisk();
  EXPECT_EQ(keys(installed), keys(parse(kUserSettings)));
  EXPECT_EQ(countOf(installed, kCommand), kOncePerEvent);
  // The user's groups stay where they were, Vigilo's come after them.
  EXPECT_EQ(installed["hooks"]["Stop"][0], parse(kUserSettings)["hooks"]["Stop"][0]);
  EXPECT_EQ(installed["hooks"]["Notification"].size(), 2u);
  EXPECT_EQ(installed["hooks"]["SessionStart"][0], parse(R"({"hooks": []})"));
  EXPECT_EQ(keys(installed["hooks"]),
            (std::vector<std::string>{"PreToolUse", "Stop", "Notification", "SessionStart", "UserPromptSubmit",
                                      "SessionEnd"}));

  // Removing them gives back exactly what the user had.
  ASSERT_EQ(ClaudeHooks::uninstall(settings()), std::nullopt);
  EXPECT_EQ(onDisk(), parse(kUserSettings));
  EXPECT_FALSE(ClaudeHooks::installedAt(settings(), kCommand));
  EXPECT_EQ(parse(readFile(backup())), installed);
}

TEST_F(ClaudeHooksTest, ReinstallingNeverDuplicates) {
  // Given the user's settings with hooks left by an installation elsewhere.
  ordered_json start = parse(kUserSettings);
  const std::string old = ClaudeHooks::commandFor("/home/ana/Downloads/Vigilo/vigilo");
  start = *ClaudeHooks::with(start, old);
  given(start.dump(2));

  for (int i = 0; i < 3; ++i) ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  const ordered_json now = onDisk();
  EXPECT_EQ(countOf(now, kCommand), kOncePerEvent);
  EXPECT_TRUE(countOf(now, old).empty());
  EXPECT_EQ(ClaudeHooks::without(now).first, parse(kUserSettings));

  // Installing what is already there leaves the file alone, byte for byte.
  const std::string bytes = readFile(settings());
  std::filesystem::remove(backup());
  ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_EQ(readFile(settings()), bytes);
  EXPECT_FALSE(fileExists(backup()));
}

TEST_F(ClaudeHooksTest, RemovalWithNothingOfOursLeavesTheBytes) {
  for (const char* text : {kUserSettings, "{\"model\":\"opus\"}", "{}", ""}) {
    SCOPED_TRACE(text);
    given(text);
    EXPECT_EQ(ClaudeHooks::uninstall(settings()), std::nullopt);
    EXPECT_EQ(readFile(settings()), text);
    EXPECT_FALSE(fileExists(backup()));
  }
  std::filesystem::remove(settings());
  EXPECT_EQ(ClaudeHooks::uninstall(settings()), std::nullopt);
  EXPECT_FALSE(fileExists(settings()));
}

TEST_F(ClaudeHooksTest, RefusesFilesItCannotEditSafely) {
  const std::string notJson =
      "Couldn't read ~/.claude/settings.json (it isn't plain JSON), so nothing was changed.";
  struct Row {
    const char* what;
    std::string text;
    std::string error;
  };
  const Row rows[] = {
      {"comments", "{\n  // mine\n  \"model\": \"opus\"\n}\n", notJson},
      {"trailing comma", R"({"model": "opus",})", notJson},
      {"cut short", std::string(kUserSettings).substr(0, 300), notJson},
      {"a list", "[]", notJson},
      {"bad UTF-8", "{\"model\": \"op\xffus\"}", notJson},
      {"deeply nested", "{\"a\":" + std::string(100000, '[') + std::string(100000, ']') + "}", notJson},
      {"hooks not an object", R"({"hooks": "none"})",
       "Couldn't add Vigilo's hooks: \"hooks\" in ~/.claude/settings.json isn't in the form Claude Code uses, so "
       "nothing was changed."},
      {"event not a list", R"({"hooks": {"Stop": {"command": "x"}}})",
       "Couldn't add Vigilo's hooks: \"hooks\" in ~/.claude/settings.json isn't in the form Claude Code uses, so "
       "nothing was changed."},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    std::filesystem::remove(backup());
    given(row.text);
    EXPECT_EQ(ClaudeHooks::install(settings(), kCommand), row.error);
    EXPECT_EQ(readFile(settings()), row.text);
    EXPECT_FALSE(fileExists(backup()));
    if (row.error == notJson) {
      EXPECT_EQ(ClaudeHooks::uninstall(settings()), notJson);
    }
    EXPECT_EQ(readFile(settings()), row.text);
  }
}

TEST_F(ClaudeHooksTest, RefusesWhenTheFileChangesDuringTheEdit) {
  const std::string changed = "~/.claude/settings.json changed while Vigilo was editing it; try again.";
  // Given Claude Code adding a hook of the user's between Vigilo's read and
  // write.
  given(kUserSettings);
  ordered_json theirs = parse(kUserSettings);
  theirs["hooks"]["Stop"].push_back(parse(R"({"hooks": [{"type": "command", "command": "notify-send done"}]})"));
  const std::string edited = theirs.dump(2);
  EXPECT_EQ(ClaudeHooks::install(settings(), kCommand, [&] { writeFile(settings(), edited); }), changed);
  EXPECT_EQ(readFile(settings()), edited);

  // The same when removing.
  ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  const std::string again = onDisk().dump(4);
  EXPECT_EQ(ClaudeHooks::uninstall(settings(), [&] { writeFile(settings(), again); }), changed);
  EXPECT_EQ(readFile(settings()), again);

  // And when the file appears while Vigilo means to create it.
  std::filesystem::remove_all(dir_.file(".claude"));
  EXPECT_EQ(ClaudeHooks::install(settings(), kCommand, [&] { given("{\"model\":\"opus\"}"); }), changed);
  EXPECT_EQ(readFile(settings()), "{\"model\":\"opus\"}");
}

TEST_F(ClaudeHooksTest, KeepsPermissionsAndLinks) {
  // Given settings kept in a dotfiles folder and linked into place, private.
  std::filesystem::create_directories(dir_.file("dotfiles"));
  std::filesystem::create_directories(dir_.file(".claude"));
  writeFile(dir_.file("dotfiles/claude-settings.json"), kUserSettings);
  ::chmod(dir_.file("dotfiles/claude-settings.json").c_str(), 0600);
  std::filesystem::create_symlink(dir_.file("dotfiles/claude-settings.json"), settings());

  ASSERT_EQ(ClaudeHooks::install(settings(), kCommand), std::nullopt);
  EXPECT_TRUE(std::filesystem::is_symlink(settings()));
  EXPECT_EQ(countOf(parse(readFile(dir_.file("dotfiles/claude-settings.json"))), kCommand), kOncePerEvent);
  struct stat st {};
  ASSERT_EQ(::stat(settings().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
  ASSERT_EQ(::stat(backup().c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST(ClaudeHooksEdit, WithoutRemovesOnlyVigilosEntries) {
  const std::string ours = ClaudeHooks::commandFor("/opt/Vigilo/vigilo");
  const ordered_json entry = {{"type", "command"}, {"command", ours}, {"timeout", 10}};
  const ordered_json mine = {{"type", "command"}, {"command", "make lint"}};
  struct Row {
    const char* what;
    ordered_json before;
    std::optional<ordered_json> after;  // nothing: unchanged, nothing removed
  };
  const Row rows[] = {
      {"nothing there", {{"model", "x"}}, std::nullopt},
      {"hooks not an object", {{"hooks", 3}}, std::nullopt},
      {"only ours", {{"model", "x"}, {"hooks", {{"Stop", {{{"hooks", {entry}}}}}}}}, ordered_json{{"model", "x"}}},
      {"beside the user's event",
       {{"hooks", {{"Stop", {{{"hooks", {entry}}}}}, {"PreToolUse", {{{"hooks", {mine}}}}}}}},
       ordered_json{{"hooks", {{"PreToolUse", {{{"hooks", {mine}}}}}}}}},
      {"sharing a group with the user's",
       {{"hooks", {{"Stop", {{{"matcher", ""}, {"hooks", {mine, entry}}}}}}}},
       ordered_json{{"hooks", {{"Stop", {{{"matcher", ""}, {"hooks", {mine}}}}}}}}},
      {"an empty group that was empty already",
       {{"hooks", {{"Stop", {{{"hooks", ordered_json::array()}}, {{"hooks", {entry}}}}}}}},
       ordered_json{{"hooks", {{"Stop", {{{"hooks", ordered_json::array()}}}}}}}},
      {"an event that was empty already", {{"hooks", {{"Stop", ordered_json::array()}}}}, std::nullopt},
      {"upper-case name",
       {{"hooks", {{"Stop", {{{"hooks", {{{"type", "command"}, {"command", "/Apps/VIGILO event claude-code"}}}}}}}}}},
       ordered_json::object()},
      {"not ours",
       {{"hooks",
         {{"Stop",
           {{{"hooks",
              {{{"type", "command"}, {"command", "vigilo status"}},
               {{"type", "command"}, {"command", "tee event claude-code.log"}},
               {{"type", "http"}, {"url", "http://vigilo.local/event claude-code"}},
               {{"type", "command"}, {"command", 5}},
               "stray text"}}}}}}}},
       std::nullopt},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    auto [after, removed] = ClaudeHooks::without(row.before);
    EXPECT_EQ(after, row.after.value_or(row.before));
    EXPECT_EQ(removed, row.after.has_value());
  }
}

TEST(ClaudeHooksCommand, QuotesForTheShell) {
  EXPECT_EQ(ClaudeHooks::commandFor("/usr/local/bin/vigilo"), kCommand);
  EXPECT_EQ(ClaudeHooks::shellQuote("/home/o'neil/bin/vigilo"), "'/home/o'\\''neil/bin/vigilo'");

  // The command does what it says in a real shell, with an awkward path,
  // and succeeds whatever the tool does or whether it is there at all.
  TempDir dir;
  std::filesystem::create_directories(dir.file("it's a $(dir)"));
  const std::string tool = dir.file("it's a $(dir)/vigilo");
  const std::string log = dir.file("ran");
  writeFile(tool, "#!/bin/sh\necho \"$@\" > '" + log + "'\nexit 3\n");
  ::chmod(tool.c_str(), 0755);
  auto runHook = [&] {
    const std::string line = ClaudeHooks::commandFor(tool);
    pid_t pid = ::fork();
    if (pid == 0) {
      ::execl("/bin/sh", "sh", "-c", line.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  };
  EXPECT_EQ(runHook(), 0);
  EXPECT_EQ(readFile(log), "event claude-code\n");
  std::filesystem::remove(tool);
  std::filesystem::remove(log);
  EXPECT_EQ(runHook(), 0);
  EXPECT_FALSE(fileExists(log));

  // This build's own command names a runnable tool.
  const std::string current = ClaudeHooks::currentCommand();
  ASSERT_EQ(current.rfind("[ -x '", 0), 0u);
  const std::string path = current.substr(6, current.find('\'', 6) - 6);
  EXPECT_EQ(::access(path.c_str(), X_OK), 0) << path;
  EXPECT_EQ(current, ClaudeHooks::commandFor(path));
}

}  // namespace
}  // namespace vigilo::test
