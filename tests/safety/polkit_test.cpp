#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "platform/command_runner.h"
#include "safety/setup.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

// Given a real polkitd on a private system bus, in a mount namespace where
// a temporary folder stands in for /etc/polkit-1/rules.d: the machine's own
// rules and bus are never touched. Needs root, unshare and polkitd.
class RealPolkitTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* tool : {"/usr/lib/polkit-1/polkitd", "/usr/bin/pkcheck", "/usr/bin/unshare", "/usr/bin/setpriv",
                             "/usr/bin/dbus-daemon", "/usr/bin/dbus-send"}) {
      if (!std::filesystem::exists(tool)) GTEST_SKIP() << tool << " isn't installed";
    }
    if (::geteuid() != 0) GTEST_SKIP() << "starting polkitd needs root";
    ::chmod(dir_.path().c_str(), 0755);
    std::filesystem::create_directories(dir_.file("rules"));
    ::chmod(dir_.file("rules").c_str(), 0755);
    writeFile(dir_.file("bus.conf"), R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path=)" + dir_.file("bus") + R"(</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/><allow own="*"/><allow send_destination="*"/><allow receive_sender="*"/>
  </policy>
</busconfig>
)");
  }

  // Installs `rule`, then asks polkitd about each inhibitor action for a
  // process of the user "nobody" outside any session; gives the answers.
  std::string answersWith(const std::string& rule) {
    writeFile(dir_.file("rules/49-vigilo-65534.rules"), rule);
    ::chmod(dir_.file("rules/49-vigilo-65534.rules").c_str(), 0644);
    const std::string d = dir_.path();
    writeFile(dir_.file("check.sh"), "set -u\nD='" + d + R"SH('
mount --bind "$D/rules" /etc/polkit-1/rules.d || exit 90
dbus-daemon --config-file="$D/bus.conf" --fork --print-pid=3 3>"$D/bus.pid" || exit 91
export DBUS_SYSTEM_BUS_ADDRESS="unix:path=$D/bus"
/usr/lib/polkit-1/polkitd --no-debug >"$D/polkitd.log" 2>&1 &
pk=$!
setpriv --reuid=65534 --regid=65534 --clear-groups sleep 60 &
subject=$!
i=0
until dbus-send --system --print-reply --dest=org.freedesktop.DBus / org.freedesktop.DBus.NameHasOwner \
    string:org.freedesktop.PolicyKit1 2>/dev/null | grep -q 'boolean true'; do
  i=$((i + 1)); [ $i -gt 600 ] && break; sleep 0.05
done
for a in inhibit-handle-lid-switch inhibit-block-sleep inhibit-block-idle power-off; do
  pkcheck --action-id "org.freedesktop.login1.$a" --process "$subject" >/dev/null 2>&1
  printf '%s=%s ' "$a" "$?"
done
kill "$subject" "$pk" "$(cat "$D/bus.pid")" 2>/dev/null
)SH");
    ProcessRunner runner;
    auto out = runner.run({"/usr/bin/timeout", "60", "/usr/bin/unshare", "-m", "--propagation", "private", "/bin/sh",
                           dir_.file("check.sh")});
    return out.output;
  }

  TempDir dir_;
};

TEST_F(RealPolkitTest, TheRuleLetsOnlyItsUserTakeTheInhibitorsOutsideASession) {
  // 0: authorised, 1: not, 2: only with a password. logind's own policy
  // already lets anyone block idle; powering off is left as it was.
  EXPECT_EQ(answersWith(LinuxSetup::polkitRule("nobody")),
            "inhibit-handle-lid-switch=0 inhibit-block-sleep=0 inhibit-block-idle=0 power-off=2 ");
  // The same rule for someone else grants "nobody" nothing.
  EXPECT_EQ(answersWith(LinuxSetup::polkitRule("somebody-else")),
            "inhibit-handle-lid-switch=1 inhibit-block-sleep=1 inhibit-block-idle=0 power-off=2 ");
}

}  // namespace
}  // namespace vigilo::test
