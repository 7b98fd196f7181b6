#include "platform/linux/desktop_entries.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "closedlid/app_lookup.h"
#include "closedlid/targets.h"
#include "platform/linux/linux_fixture.h"
#include "platform/linux/linux_platform.h"
#include "platform/manual_run_loop.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

TEST(DesktopEntriesTest, OnlyShownApplicationsCountWithTheProgramTheyStart) {
  struct Row {
    const char* text;
    std::optional<std::string> program;  // nothing: not an app
    std::string name = "Editor";
  } rows[] = {
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=gedit %U\n", "gedit"},
      {"[Desktop Entry]\nName=Editor\nExec=\"/opt/My Editor/editor\" --new\nType=Application\n", "/opt/My Editor/editor"},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=env GDK_BACKEND=x11 FOO=1 code --wait\n", "code"},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=gedit\n[Desktop Action new]\nExec=other\n", "gedit"},
      {"# comment\n[Desktop Entry]\nType=Application\nExec=gedit\nName=Editor\nNoDisplay=true\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nExec=gedit\nHidden=true\n", std::nullopt},
      {"[Desktop Entry]\nType=Link\nName=Editor\nURL=https://example.com\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=sh -c 'gedit'\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=/usr/bin/python3 tool.py\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=flatpak run org.gnome.gedit\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const Row& r : rows) {
    SCOPED_TRACE(r.text);
    auto e = parseDesktopEntry(r.text, "org.example.Editor", "/x.desktop");
    ASSERT_EQ(e.has_value(), r.program.has_value());
    if (!e) continue;
    EXPECT_EQ(e->program, *r.program);
    EXPECT_EQ(e->name, r.name);
    EXPECT_EQ(e->id, "org.example.Editor");
  }
}

// Given a desktop entry for `sleep` in a private data folder and a real
// `sleep` child: the Linux backend knows it as that app, the rule lookup
// finds it, and max_battery pauses it.
TEST(DesktopEntriesTest, ARealProcessOfADesktopAppIsThatApp) {
  TempDir dir;
  std::filesystem::create_directories(dir.file("data/applications"));
  std::filesystem::create_directories(dir.file("none"));
  writeFile(dir.file("data/applications/org.example.Sleeper.desktop"),
            "[Desktop Entry]\nType=Application\nName=Sleeper\nExec=sleep %u\n");
  const char* oldHome = std::getenv("XDG_DATA_HOME");
  const char* oldDirs = std::getenv("XDG_DATA_DIRS");
  const std::string savedHome = oldHome ? oldHome : "", savedDirs = oldDirs ? oldDirs : "";
  ::setenv("XDG_DATA_HOME", dir.file("data").c_str(), 1);
  ::setenv("XDG_DATA_DIRS", dir.file("none").c_str(), 1);

  // The pipe closes in the child when its exec succeeds, so the read below
  // ends once /proc shows the new program.
  int execDone[2];
  ASSERT_EQ(::pipe2(execDone, O_CLOEXEC), 0);
  const pid_t child = ::fork();
  if (child == 0) {
    ::execl("/bin/sleep", "sleep", "30", static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ASSERT_GT(child, 0);
  ::close(execDone[1]);
  char byte;
  while (::read(execDone[0], &byte, 1) < 0 && errno == EINTR) {}
  ::close(execDone[0]);
  SystemClock clock;
  ManualClock loopClock;
  ManualRunLoop loop(loopClock);
  auto platform = makeLinuxPlatform(clock, loop, LinuxPlatformOptions{"", kNoBus, {}});
  const std::optional<ProcessInfo> info = platform->processes().info(child);
  ASSERT_TRUE(info);
  ASSERT_NE(info->path.find("sleep"), std::string::npos) << info->path;
  auto app = platform->processes().appOf(*info);
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleId, "org.example.Sleeper");
  auto found = findApp(*platform, "sleeper");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->name, "Sleeper");

  TargetInputs in;
  in.processes = {*info};
  in.bundles[child] = *app;
  in.preset = Preset::MaxBattery;
  auto targets = closedTargets(in, {});
  ASSERT_EQ(targets.count(child), 1u);
  EXPECT_EQ(targets[child].rule, AppRule::Pause);
  in.rules = {{"org.example.Sleeper", AppRule::Leave}};
  EXPECT_TRUE(closedTargets(in, {}).empty());

  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  if (oldHome) ::setenv("XDG_DATA_HOME", savedHome.c_str(), 1); else ::unsetenv("XDG_DATA_HOME");
  if (oldDirs) ::setenv("XDG_DATA_DIRS", savedDirs.c_str(), 1); else ::unsetenv("XDG_DATA_DIRS");
}

}  // namespace
}  // namespace vigilo::test
