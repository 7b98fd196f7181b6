#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <tuple>

#include "test_support.h"

namespace vigilo::test {
namespace {

const std::string kScript = (std::filesystem::path(__FILE__).parent_path() / "../../../scripts/install-user-service")
                                .lexically_normal()
                                .string();

struct Outcome {
  int status = -1;
  std::string out;
};
Outcome shell(const std::string& command) {
  Outcome r;
  FILE* p = ::popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  char buf[512];
  while (std::fgets(buf, sizeof buf, p) != nullptr) r.out += buf;
  const int status = ::pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// Runs the script in a home of its own where no user manager answers, as
// over SSH or in a container.
Outcome runScript(const std::string& home, const std::string& args) {
  return shell("env -u XDG_CONFIG_HOME HOME='" + home + "' XDG_RUNTIME_DIR='" + home +
               "' DBUS_SESSION_BUS_ADDRESS='unix:path=" + home + "/no-bus' bash '" + kScript + "' " + args);
}

TEST(LinuxUserService, WritesTheUnitSaysWhatToRunAndRemovesIt) {
  TempDir dir;
  // A path with a "%" that systemd would otherwise expand.
  const std::string binary = dir.file("100%/vigilo");
  std::filesystem::create_directories(dir.file("100%"));
  std::filesystem::copy_file(VIGILO_BINARY, binary);
  std::filesystem::permissions(binary, std::filesystem::perms::owner_all);

  Outcome install = runScript(dir.path(), "'" + binary + "'");
  EXPECT_EQ(install.status, 0) << install.out;
  const std::string unitPath = dir.file(".config/systemd/user/vigilo.service");
  const std::string unit = readFile(unitPath);
  // It comes and goes with the desktop, and gives up when another app holds the folder.
  for (const std::string& line : {"\nExecStart=\"" + dir.file("100%%/vigilo") + "\" app\n",
                                  std::string("\nPartOf=graphical-session.target\n"),
                                  std::string("\nRestartPreventExitStatus=3\n")}) {
    EXPECT_NE(unit.find(line), std::string::npos) << line << unit;
  }
  if (std::filesystem::exists("/usr/bin/systemd-analyze")) {
    const Outcome verify = shell("/usr/bin/systemd-analyze verify '" + unitPath + "'");
    EXPECT_EQ(std::tuple(verify.status, verify.out), std::tuple(0, ""));
  }
  EXPECT_NE(install.out.find("systemctl --user daemon-reload && systemctl --user enable --now vigilo.service"),
            std::string::npos)
      << install.out;

  // The desktop's launcher entry runs the same binary; the tray finds its icons by name.
  const std::string launcher = dir.file(".local/share/applications/vigilo.desktop");
  EXPECT_NE(readFile(launcher).find("\nExec=\"" + dir.file("100%%/vigilo") + "\" app\n"), std::string::npos);
  const std::string icons = dir.file(".local/share/icons/hicolor/scalable/apps/");
  EXPECT_TRUE(fileExists(icons + "vigilo-awake-always.svg"));

  // Every file is listed before it is written.
  const std::string record = readFile(dir.file(".local/share/vigilo/installed-files"));
  for (const std::string& f : {unitPath, launcher, icons + "vigilo.svg"}) {
    EXPECT_NE(record.find(f + "\n"), std::string::npos) << f << " missing from\n" << record;
  }
  // A file named in the list that isn't the script's own stays.
  const std::string stranger = dir.file("precious.txt");
  writeFile(stranger, "mine");
  writeFile(dir.file(".local/share/vigilo/installed-files"), record + stranger + "\n");

  Outcome missing = runScript(dir.path(), "'" + dir.file("nothing-here") + "'");
  EXPECT_EQ(missing.status, 1);
  EXPECT_NE(missing.out.find("isn't an executable; build Vigilo first"), std::string::npos) << missing.out;

  Outcome remove = runScript(dir.path(), "--remove");
  EXPECT_EQ(remove.status, 0) << remove.out;
  for (const std::string& f :
       {unitPath, launcher, icons + "vigilo.svg", dir.file(".local/share/vigilo/installed-files")}) {
    EXPECT_FALSE(fileExists(f)) << f;
  }
  EXPECT_NE(remove.out.find("removed " + unitPath), std::string::npos) << remove.out;
  EXPECT_TRUE(fileExists(stranger));
}

}  // namespace
}  // namespace vigilo::test
