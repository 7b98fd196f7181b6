#include "platform/linux/desktop_entries.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

#include "closedlid/app_lookup.h"
#include "platform/linux/bus_children.h"
#include "platform/linux/linux_fixture.h"

namespace vigilo::test {
namespace {

TEST(DesktopEntriesTest, OnlyShownApplicationsCountWithTheProgramTheyStart) {
  // Each entry and the program it starts; nothing: not an app.
  const std::pair<const char*, std::optional<std::string>> rows[] = {
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=gedit %U\n", "gedit"},
      {"[Desktop Entry]\nName=Editor\nExec=\"/opt/My Editor/editor\" --new\nType=Application\n",
       "/opt/My Editor/editor"},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=env GDK_BACKEND=x11 FOO=1 code --wait\n", "code"},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=gedit\n[Desktop Action new]\nExec=other\n", "gedit"},
      {"# comment\n[Desktop Entry]\nType=Application\nExec=gedit\nName=Editor\nNoDisplay=true\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nExec=gedit\nHidden=true\n", std::nullopt},
      {"[Desktop Entry]\nType=Link\nName=Editor\nURL=https://example.com\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=sh -c 'gedit'\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\nExec=flatpak run org.gnome.gedit\n", std::nullopt},
      {"[Desktop Entry]\nType=Application\nName=Editor\n", std::nullopt},
  };
  for (const auto& [text, program] : rows) {
    auto e = parseDesktopEntry(text, "org.example.Editor", "/x.desktop");
    EXPECT_EQ(e ? std::optional(std::tuple(e->program, e->name, e->id)) : std::nullopt,
              program ? std::optional(std::tuple(*program, "Editor", "org.example.Editor")) : std::nullopt)
        << text;
  }
}

// Given a desktop entry for `sleep` in a private data folder and a real
// `sleep` child: the Linux backend knows it as that app, and the rule lookup
// finds it by its name.
TEST_F(LinuxTreeTest, ARealProcessOfADesktopAppIsThatApp) {
  put("/data/applications/org.example.Sleeper.desktop",
      "[Desktop Entry]\nType=Application\nName=Sleeper\nExec=sleep %u\n");
  EnvVar dataHome("XDG_DATA_HOME", dir_.path() + "/data");
  EnvVar dataDirs("XDG_DATA_DIRS", dir_.path() + "/none");
  // The pipe closes in the child when its exec succeeds, so the read below
  // ends once /proc shows the new program.
  int execDone[2];
  ASSERT_EQ(::pipe2(execDone, O_CLOEXEC), 0);
  const pid_t child = spawn({"/bin/sleep", "30"}, -1, -1);
  ::close(execDone[1]);
  ASSERT_GT(child, 0);
  char byte;
  while (::read(execDone[0], &byte, 1) < 0 && errno == EINTR) {
  }
  ::close(execDone[0]);
  SystemClock clock;
  auto platform = makeLinuxPlatform(clock, loop_, LinuxPlatformOptions{"", kNoBus, {}});
  const std::optional<ProcessInfo> info = platform->processes().info(child);
  auto app = info ? platform->processes().appOf(*info) : std::nullopt;
  auto found = findApp(*platform, "sleeper");
  ::kill(child, SIGKILL);
  ::waitpid(child, nullptr, 0);
  ASSERT_TRUE(app);
  EXPECT_EQ(app->bundleId, "org.example.Sleeper");
  ASSERT_TRUE(found);
  EXPECT_EQ(found->name, "Sleeper");
}

}  // namespace
}  // namespace vigilo::test
