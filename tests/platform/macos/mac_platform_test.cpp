// The macOS backend over scripted command lines, and the POSIX run loop it
// runs on where Linux's eventfd, signalfd and inotify don't exist.

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <condition_variable>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/macos/mac_commands.h"
#include "platform/macos/mac_desktop.h"
#include "platform/macos/mac_platform.h"
#include "platform/macos/path_sockets.h"
#include "platform/macos/posix_run_loop.h"
#include "platform/manual_run_loop.h"
#include "platform/macos/mac_samples.h"
#include "platform/run_bounded.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;

// Answers each exact command line from a table; anything else fails.
class ScriptedRunner final : public CommandRunner {
 public:
  CommandOutput run(const std::vector<std::string>& argv) override {
    ran.push_back(joinArgs(argv));
    auto it = answers.find(ran.back());
    return it != answers.end() ? it->second : CommandOutput{1, "not scripted\n"};
  }
  void answer(const std::vector<std::string>& argv, CommandOutput out) { answers[joinArgs(argv)] = std::move(out); }
  std::map<std::string, CommandOutput> answers;
  std::vector<std::string> ran;
};

class MacPlatformTest : public ::testing::Test {
 protected:
  MacPlatformTest() {
    MacPlatformOptions options;
    options.runner = &runner;
    options.log = [this](const std::string& line) { logged.push_back(line); };
    options.uid = 501;
    platform = makeMacPlatform(clock, loop, std::move(options));
  }
  ManualClock clock;
  ManualRunLoop loop{clock};
  ScriptedRunner runner;
  std::vector<std::string> logged;
  std::unique_ptr<Platform> platform;
};

TEST_F(MacPlatformTest, PrivilegedLinesTheirFailuresAndWhatIsNeverRun) {
  runner.answer(mac::setSleepDisabled(true), {1, "sudo: a password is required\n"});
  Result off = platform->power().setSleepDisabled(true);
  EXPECT_FALSE(off);
  EXPECT_EQ(off.message(), "Couldn't switch sleep off: sudo: a password is required");
  EXPECT_EQ(logged,
            (std::vector<std::string>{"Vigilo: pmset -a disablesleep 1 failed (1): sudo: a password is required"}));

  // A wake never longer than asked, except below the shortest step.
  for (int s : mac::allowedWakeSteps()) runner.answer(*mac::relativeWake(s), {0, ""});
  for (auto [asked, step] : {std::pair{7200, 3600}, {3599, 1800}, {30, 60}}) {
    EXPECT_TRUE(platform->wakeAlarm().wakeIn(asked));
    EXPECT_EQ(runner.ran.back(), "/usr/bin/sudo -n /usr/bin/pmset relative wake " + std::to_string(step)) << asked;
  }

  // A power mode the rule lacks runs nothing at all.
  const std::size_t before = runner.ran.size();
  EXPECT_FALSE(platform->power().restorePowerMode("powermode", 3));
  EXPECT_FALSE(platform->power().restorePowerMode("sleep;reboot", 1));
  EXPECT_EQ(runner.ran.size(), before);

  // Without the native piece, background priority comes from taskpolicy.
  // (The exact taskpolicy lines are the Mac end-to-end test's.)
  runner.answer(mac::setBackgroundPriority(812, true), {0, ""});
  EXPECT_TRUE(platform->processes().slow(812));
  Result unslow = platform->processes().unslow(812);
  EXPECT_EQ(unslow.message(), "Couldn't put back the priority of process 812: not scripted");
  EXPECT_FALSE(platform->processes().slow(1)) << "launchd is never slowed";
  EXPECT_EQ(runner.ran.back(), "/usr/sbin/taskpolicy -B -p 812");
  EXPECT_FALSE(platform->processes().stop(1)) << "launchd is never paused";
  EXPECT_FALSE(platform->displays().setBrightness(0.1));

  // Doctor lists what isn't available: native pieces count until verified.
  MacPlatformOptions withNative;
  withNative.runner = &runner;
  withNative.native.pieces = {"energy per app (proc_pid_rusage)", "brightness (DisplayServices)"};
  auto native = makeMacPlatform(clock, loop, std::move(withNative));
  const auto caps = native->capabilities();
  auto pieces = std::find_if(caps.begin(), caps.end(), [](const Capability& c) { return c.name == "native pieces"; });
  ASSERT_NE(pieces, caps.end());
  EXPECT_FALSE(pieces->available);
  EXPECT_EQ(pieces->detail.rfind("Unverified native pieces: energy per app (proc_pid_rusage) and brightness", 0), 0u);
}

TEST_F(MacPlatformTest, ReadingsFallBackAndProcessesKeepPathsWithSpaces) {
  // ioreg refused: pmset's summary still gives the charge.
  runner.answer(mac::readPowerSource(), {0, macSample("batt-discharging.txt")});
  auto battery = platform->registry().battery();
  ASSERT_TRUE(battery);
  EXPECT_EQ(battery->currentCapacity, 95);
  EXPECT_EQ(battery->externalConnected, false);
  runner.answer(mac::readClamshell(), {0, "  |   \"AppleClamshellState\" = Yes\n"});
  EXPECT_EQ(platform->registry().lidClosed(), true);
  runner.answer(mac::readLiveSettings(), {0, macSample("pmset-g-apple-silicon.txt")});
  EXPECT_EQ(platform->registry().sleepDisabled(), true);

  runner.answer(mac::readAutoBackup(), {0, "1\n"});
  EXPECT_EQ(platform->power().automaticBackupsOn(), true);
  runner.answer(mac::readAutoBackup(), {1, "The domain/default pair does not exist\n"});
  EXPECT_EQ(platform->power().automaticBackupsOn(), std::nullopt);

  const std::string chrome = "/Applications/Google Chrome.app/Contents/MacOS/Google Chrome";
  runner.answer(mac::listProcesses(), {0, "    1     0 Mon Jun 16 14:23:09 2025  12:03.41 Ss   /sbin/launchd\n"
                                          "  812     1 Tue Nov 25 09:05:00 2025   0:01.50 T    " + chrome +
                                          " --type=gpu\n"});
  runner.answer(mac::listProcessPaths(), {0, "    1 /sbin/launchd\n  812 " + chrome + "\n"});
  auto list = platform->processes().list();
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[1].path, chrome);
  EXPECT_EQ(list[1].args, (std::vector<std::string>{chrome, "--type=gpu"}));
  EXPECT_TRUE(list[1].stopped);
  EXPECT_GT(list[1].startMicros, list[0].startMicros);
  EXPECT_FALSE(platform->processes().info(999)) << "ps knows no such pid";

  // The adapter and a gap in time only sleep explains, seen by the poll.
  std::vector<SystemEvent> events;
  platform->events().subscribe([&](SystemEvent e) { events.push_back(e); });
  runner.answer(mac::readPowerSource(), {0, macSample("batt-charged.txt")});
  loop.advance(5);
  clock.advance(3600);
  loop.advance(5);
  EXPECT_EQ(events, (std::vector<SystemEvent>{SystemEvent::PowerSourceChanged, SystemEvent::DidWake}));
}

// A notification's text can never end the AppleScript literal early and
// run as script.
TEST(MacDesktop, NotificationTextStaysInsideItsLiteral) {
  const std::vector<std::pair<std::string, std::string>> table = {
      {"a\\\"b", "\"a\\\\\\\"b\""},
      {"say \"hi\" & do shell script \"rm -rf ~\"", "\"say \\\"hi\\\" & do shell script \\\"rm -rf ~\\\"\""},
      {"two\nlines\r\x01", "\"two\\nlines\\r\""},
  };
  for (const auto& [text, literal] : table) EXPECT_EQ(appleScriptString(text), literal) << text;
  ScriptedRunner runner;
  auto desktop = makeMacDesktop(runner);
  auto alerts = desktop->alerts();
  EXPECT_FALSE(alerts->play("../../tmp/x")) << "only a sound's plain name";
  EXPECT_TRUE(runner.ran.empty());
  alerts->note("Vigilo", "Done");
  EXPECT_EQ(runner.ran, (std::vector<std::string>{
                            "/usr/bin/osascript -e display notification \"Done\" with title \"Vigilo\""}));
  EXPECT_TRUE(desktop->trayUnavailable());
}

TEST(PosixRunLoop, TimersPostsFileChangesAndSignals) {
  SystemClock clock;
  TempDir dir;
  auto loop = makePosixRunLoop(clock, 0.01);
  std::vector<std::string> log;
  loop->after(0.02, [&] { log.push_back("later"); });
  const TimerId cancelled = loop->after(0.01, [&] { log.push_back("cancelled"); });
  loop->cancel(cancelled);
  loop->after(0.01, [&] { log.push_back("sooner"); });
  loop->after(0.05, [&] { loop->stop(); });
  ASSERT_TRUE(runBounded(*loop));
  EXPECT_EQ(log, (std::vector<std::string>{"sooner", "later"}));

  std::thread poster([&] { loop->post([&] { log.push_back("posted"); loop->stop(); }); });
  ASSERT_TRUE(runBounded(*loop));
  poster.join();
  EXPECT_EQ(log.back(), "posted");

  // Creation, a rewrite of the same size (a new inode by rename) and
  // deletion are each seen; a neighbour's change isn't.
  const std::string path = dir.file("state.json");
  int changes = 0, neighbour = 0;
  loop->watchFile(path, [&] { ++changes; loop->stop(); });
  loop->watchFile(dir.file("other.json"), [&] { ++neighbour; });
  auto expectSeen = [&](const char* what, const std::function<void()>& change) {
    const int seen = changes;
    change();
    EXPECT_TRUE(runBounded(*loop)) << what;
    EXPECT_EQ(changes, seen + 1) << what;
  };
  expectSeen("creation", [&] { writeFile(path, "{}"); });
  expectSeen("save by rename", [&] {
    writeFile(path + ".tmp", "[]");
    std::rename((path + ".tmp").c_str(), path.c_str());
  });
  expectSeen("deletion", [&] { ::unlink(path.c_str()); });
  EXPECT_EQ(neighbour, 0);

  int usr1 = 0;
  loop->onSignal(SIGUSR1, [&] { ++usr1; loop->stop(); });
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(usr1, 0) << "nothing runs in the signal handler";
  EXPECT_TRUE(runBounded(*loop));
  EXPECT_EQ(usr1, 1);
  EXPECT_THROW(loop->onSignal(SIGKILL, [] {}), std::invalid_argument);
  loop.reset();
  signal(SIGUSR1, SIG_DFL);
}

// The request channel without abstract names: a socket file per name in a
// private folder, reached by the app of the same folder only, and taken
// over when a crash left it behind.
TEST(PathSockets, RequestsReachTheAppOfTheirFolderAndACrashLeavesNothingInTheWay) {
  SystemClock clock;
  TempDir dir;
  auto loop = makePosixRunLoop(clock);
  auto tool = makePathSocketNotifications(dir.file("a"), nullptr);
  EXPECT_EQ(tool->post("request", "{}").message(), "Vigilo isn't running.");

  std::vector<std::string> got;
  auto observe = [&](Notifications& n) {
    return n.observe("request", [&](std::string payload) {
      got.push_back(std::move(payload));
      loop->stop();
    });
  };
  auto app = makePathSocketNotifications(dir.file("a"), loop.get());
  ASSERT_TRUE(observe(*app));
  EXPECT_FALSE(makePathSocketNotifications(dir.file("b"), nullptr)->post("request", "{}")) << "another folder's app";
  const std::string big(200000, 'r');
  ASSERT_TRUE(tool->post("request", big));
  ASSERT_TRUE(runBounded(*loop));
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0], big);

  auto second = makePathSocketNotifications(dir.file("a"), loop.get());
  Result taken = observe(*second);
  EXPECT_EQ(taken.code(), EADDRINUSE);
  EXPECT_NE(taken.message().find("process " + std::to_string(::getpid())), std::string::npos) << taken.message();
  second.reset();
  ASSERT_EQ(pathSocketListener(dir.file("a"), "request")->pid, ::getpid());

  // A crash: the listener is gone, its file stays.
  app.reset();
  const std::string path = pathSocketFor(dir.file("a"), "request");
  int crashed = ::socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
  ASSERT_EQ(::bind(crashed, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
  ::close(crashed);
  auto next = makePathSocketNotifications(dir.file("a"), loop.get());
  ASSERT_TRUE(observe(*next));
  ASSERT_TRUE(tool->post("request", "after"));
  ASSERT_TRUE(runBounded(*loop));
  EXPECT_EQ(got.back(), "after");
  next.reset();
  EXPECT_FALSE(fileExists(path)) << "the app takes its socket file away when it stops";
}

}  // namespace
}  // namespace vigilo::test
