#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "app/host.h"
#include "commands/cli.h"
#include "commands/command_table.h"
#include "commands/settings_schema.h"
#include "e2e/app_process.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

std::set<std::string> wordsOf(const std::string& text) {
  std::set<std::string> out;
  std::istringstream in(text);
  for (std::string w; in >> w;) out.insert(w);
  return out;
}

// The sanitizers find nothing in copying files, and the sanitized binary
// is six times the size: the plain build checks the install and package.
#ifdef VIGILO_SANITIZED
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Given the build installed into a staging root for the prefix /usr, as
// the Debian package lays it out, once for the whole suite.
class InstallTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    root_ = new TempDir;
    error_ = new std::string(kSanitized ? "" : installBuild(stage()));
  }
  static void TearDownTestSuite() {
    delete root_;
    delete error_;
  }
  void SetUp() override {
    if (kSanitized) GTEST_SKIP() << "the plain build checks the install and the package";
    ASSERT_EQ(*error_, "");
  }

  static std::string stage() { return root_->file("stage"); }
  static std::string usr(const std::string& path) { return stage() + "/usr/" + path; }
  ToolRun installed(const std::vector<std::string>& args) { return runTool(args, home_.path(), {}, usr("bin/vigilo")); }

  // What bash's completion offers for `line` (the word under the cursor last).
  std::set<std::string> complete(const std::string& line) {
    const std::string script = home_.file("complete.sh");
    writeFile(script, "source '" + usr("share/bash-completion/completions/vigilo") +
                          "'\nCOMP_WORDS=(" + line + ")\nCOMP_CWORD=$((${#COMP_WORDS[@]} - 1))\n_vigilo\n"
                          "printf '%s\\n' \"${COMPREPLY[@]}\"\n");
    ShellRun run = shell("bash '" + script + "'");
    EXPECT_EQ(run.status, 0) << run.out;
    return wordsOf(run.out);
  }

  static inline TempDir* root_ = nullptr;
  static inline std::string* error_ = nullptr;
  TempDir home_;
};

TEST_F(InstallTest, TheInstalledCommandAnswersAndTheDesktopFindsItsFiles) {
  ToolRun version = installed({"--version"});
  EXPECT_EQ(version.status, 0);
  const bool git = std::filesystem::exists(std::string(VIGILO_SOURCE_DIR) + "/.git");
  EXPECT_TRUE(std::regex_match(version.out, std::regex(git ? R"(vigilo \d+\.\d+\.\d+ \(commit [0-9a-f]{12}(\+changes)?\)\n)"
                                                             : R"(vigilo \d+\.\d+\.\d+\n)")))
      << version.out;
  EXPECT_EQ(installed({"help"}).out, helpText(host::words()));

  // Every command has its own help, the same through `help <command>` and
  // `<command> --help`; a listed one repeats its overview lines word for word.
  for (const CommandDoc& c : commandTable()) {
    ToolRun help = installed({"help", c.name});
    EXPECT_EQ(help.status, 0) << c.name << help.err;
    EXPECT_NE(help.out.find("Usage: vigilo " + c.name), std::string::npos) << help.out;
    EXPECT_EQ(installed({c.name, "--help"}).out, help.out) << c.name;
    for (const std::string& line : overviewLines(helpText(host::words()), c.name)) {
      EXPECT_NE(help.out.find(line + "\n"), std::string::npos) << c.name << ": " << line;
    }
    if (c.listed) {
      EXPECT_FALSE(overviewLines(helpText(host::words()), c.name).empty()) << c.name << " isn't in the help";
    }
  }
  EXPECT_EQ(installed({"help", "frobnicate"}).status, 2);
  // A hold's reason may read "--help": it is the reason, not a request for help.
  EXPECT_EQ(installed({"hold", "--reason", "--help", "--pid", "x"}).err, "vigilo: --pid needs a process id, like --pid 4242\n");

  // Where the desktop, systemd, man and the shells look for them.
  const std::string entry = readFile(usr("share/applications/vigilo.desktop"));
  EXPECT_NE(entry.find("\nExec=/usr/bin/vigilo app\n"), std::string::npos) << entry;
  for (const auto& icon :
       std::filesystem::recursive_directory_iterator(std::string(VIGILO_SOURCE_DIR) + "/data/icons")) {
    if (!icon.is_regular_file()) continue;
    const auto relative = std::filesystem::relative(icon.path(), std::string(VIGILO_SOURCE_DIR) + "/data/icons");
    EXPECT_TRUE(fileExists(usr("share/icons/" + relative.string()))) << relative;
  }
  const std::string unit = readFile(usr("lib/systemd/user/vigilo.service"));
  EXPECT_NE(unit.find("\nExecStart=\"/usr/bin/vigilo\" app\n"), std::string::npos) << unit;
  if (fileExists(std::filesystem::path(VIGILO_BINARY).parent_path().string() + "/libvigilo-panel.so")) {
    EXPECT_TRUE(fileExists(usr("lib/vigilo/libvigilo-panel.so")));
  }
  // The man page as man shows it: a "vigilo ..." entry for every command.
  ShellRun man = shell("MANWIDTH=200 man -l '" + usr("share/man/man1/vigilo.1.gz") + "' | col -b");
  ASSERT_EQ(man.status, 0) << man.out;
  std::set<std::string> documented;
  std::istringstream lines(man.out);
  for (std::string line; std::getline(lines, line);) {
    const std::size_t at = line.find_first_not_of(' ');
    if (at == std::string::npos || line.compare(at, 7, "vigilo ") != 0) continue;
    for (char& ch : line) ch = ch == '|' ? ' ' : ch;
    for (const std::string& w : wordsOf(line)) documented.insert(w);
  }
  for (const CommandDoc& c : commandTable()) EXPECT_TRUE(documented.count(c.name)) << c.name << " isn't in the man page";
  EXPECT_TRUE(fileExists(usr("share/fish/vendor_completions.d/vigilo.fish")));
}

TEST_F(InstallTest, BashCompletesCommandsAndSettingsKeys) {
  std::set<std::string> commands{"--help", "--version"};
  for (const CommandDoc& c : commandTable()) {
    if (!c.internal) commands.insert(c.name);
  }
  std::set<std::string> keys;
  for (const SettingSpec& s : SettingsSchema::all()) keys.insert(s.key);
  using Words = std::set<std::string>;
  // Flags and the words after them don't count as positions.
  for (const auto& [line, words] : std::vector<std::pair<std::string, Words>>{
           {"vigilo ''", commands}, {"vigilo set --json ''", keys}, {"vigilo status ''", {}},
           {"vigilo rule Slack ''", {"leave", "slow", "pause", "default"}}, {"vigilo hold --reason '' ''", {}},
           {"vigilo hold --", {"--for", "--reason", "--pid", "--json", "--help"}}}) {
    EXPECT_EQ(complete(line), words) << line;
  }
}

TEST_F(InstallTest, ThePackageHoldsTheInstallAndNamesItsLibraries) {
  if (shell("command -v dpkg-deb && command -v dpkg-shlibdeps && command -v cpack").status != 0) {
    GTEST_SKIP() << "dpkg-deb, dpkg-shlibdeps or cpack is missing (scripts/setup installs dpkg-dev)";
  }
  const std::string build = std::filesystem::path(VIGILO_BINARY).parent_path().string();
  const std::string out = home_.file("package");
  // The package is made from the build as it is, the way scripts/package does.
  ShellRun pack = shell("cd '" + build + "' && cpack -G DEB -B '" + out + "'");
  ASSERT_EQ(pack.status, 0) << pack.out;
  std::string deb;
  for (const auto& e : std::filesystem::directory_iterator(out)) {
    if (e.path().extension() == ".deb") deb = e.path().string();
  }
  ASSERT_TRUE(std::regex_match(std::filesystem::path(deb).filename().string(),
                               std::regex(R"(vigilo_\d+\.\d+\.\d+_amd64\.deb)")))
      << deb;

  ShellRun info = shell("dpkg-deb -f '" + deb + "' Package Version Architecture Depends");
  ASSERT_EQ(info.status, 0) << info.out;
  EXPECT_NE(info.out.find("Package: vigilo\n"), std::string::npos) << info.out;
  // What it links (libc; GTK through the panel) and what it opens on first use.
  for (const char* library : {"libc6", "libcurl4"}) {
    EXPECT_NE(info.out.find(library), std::string::npos) << library << " missing from " << info.out;
  }
  ShellRun files = shell("dpkg-deb -c '" + deb + "'");
  ASSERT_EQ(files.status, 0);
  // The package holds what the staged install holds, checked above.
  for (const char* path : {"./usr/bin/vigilo", "./usr/share/icons/hicolor/scalable/apps/vigilo.svg"}) {
    EXPECT_NE(files.out.find(std::string(path) + "\n"), std::string::npos) << path << " missing from\n" << files.out;
  }
  if (fileExists(build + "/libvigilo-panel.so")) {
    EXPECT_NE(files.out.find("./usr/lib/vigilo/libvigilo-panel.so\n"), std::string::npos) << files.out;
    EXPECT_NE(info.out.find("libgtk-4-1"), std::string::npos) << info.out;
  }
  // Its unit names the packaged executable, not the folder it was made in.
  ShellRun unit = shell("dpkg-deb --fsys-tarfile '" + deb + "' | tar -xO ./usr/lib/systemd/user/vigilo.service");
  EXPECT_NE(unit.out.find("\nExecStart=\"/usr/bin/vigilo\" app\n"), std::string::npos) << unit.out;
}

}  // namespace
}  // namespace vigilo::test
