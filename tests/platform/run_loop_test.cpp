#include "platform/run_loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "platform/manual_run_loop.h"
#include "platform/run_bounded.h"
#include "test_support.h"

namespace vigilo {
namespace {

using namespace std::chrono_literals;

class ManualRunLoopTest : public ::testing::Test {
 protected:
  double elapsed() const { return clock.monotonic() - start; }
  // A callback that records `what` and the tenth of a second it ran at.
  std::function<void()> record(const std::string& what) {
    return [this, what] { log.push_back(what + "@" + std::to_string(static_cast<int>(elapsed() * 10 + 0.5))); };
  }
  ManualClock clock;
  ManualRunLoop loop{clock};
  const double start = clock.monotonic();
  std::vector<std::string> log;
};

TEST_F(ManualRunLoopTest, AdvanceFiresTimersInDeadlineOrderAndCallbacksMayCancelThem) {
  // Timers created out of order, a tie, and posted work, some of it added by a callback.
  loop.after(3, record("late"));
  loop.after(1, [this] {
    record("early")();
    loop.post(record("posted-by-early"));
    loop.after(0.5, record("added-by-early"));
  });
  loop.every(2, 0, record("tick"));
  loop.after(2, record("tied-with-tick"));
  loop.post(record("posted"));
  // A repeating timer cancels itself on its third beat, and lives on to count
  // it; a one-shot cancels another timer due later in the same advance.
  int beats = 0;
  TimerId self = 0;
  self = loop.every(1.5, 0, [&] {
    if (beats == 2) loop.cancel(self);
    ++beats;
  });
  const TimerId victim = loop.after(4.5, record("victim"));
  loop.after(4, [&] { loop.cancel(victim); });
  loop.advance(5);
  EXPECT_EQ(log, (std::vector<std::string>{"posted@0", "early@10", "posted-by-early@10", "added-by-early@15", "tick@20",
                                           "tied-with-tick@20", "late@30", "tick@40"}));
  EXPECT_EQ(beats, 3);
  EXPECT_DOUBLE_EQ(elapsed(), 5.0);
  EXPECT_EQ(loop.timerCount(), 1u);  // only the first repeating one is left
}

TEST_F(ManualRunLoopTest, RepeatingTimerKeepsItsBeatAcrossAdvancesAndSkipsASleep) {
  int ticks = 0;
  loop.every(1, 0.1, [&] { ++ticks; });
  for (int i = 0; i < 7; ++i) loop.advance(0.5);
  EXPECT_EQ(ticks, 3);  // at 1, 2 and 3; no drift from the half steps
  clock.advance(60.2);  // the laptop sleeps: the clock jumps without the loop
  loop.advance(0);
  EXPECT_EQ(ticks, 4) << "missed beats are skipped, not fired as a burst";
  loop.advance(0.7);  // to 64.4: the next beats fall on the old grid (64, 65)
  EXPECT_EQ(ticks, 5);
}

TEST_F(ManualRunLoopTest, RunDrainsPostedWorkAndEventsReachOnlyTheirWatchers) {
  // Work that posts more work, and a stop that leaves the rest for the next run.
  loop.post([this] {
    log.push_back("a");
    loop.post([this] { log.push_back("c"); });
  });
  loop.post([this] {
    log.push_back("b");
    loop.stop();
  });
  loop.post([this] { log.push_back("later"); });
  loop.run();
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b"}));
  loop.run();  // returns by itself once nothing is left
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "later", "c"}));
  int state = 0, other = 0, fd = 0, term = 0;
  const WatchId stateWatch = loop.watchFile("/home/u/state.json", [&] { ++state; });
  loop.watchFile("/home/u/other.json", [&] { ++other; });
  const WatchId fdWatch = loop.watchReadable(7, [&] { ++fd; });
  loop.onSignal(SIGTERM, [&] { ++term; });
  loop.fileChanged("/home/u/state.json");
  loop.fdReadable(7);
  loop.fdReadable(8);
  loop.raise(SIGTERM);
  loop.unwatch(stateWatch);
  loop.unwatch(fdWatch);
  loop.fileChanged("/home/u/state.json");
  loop.fdReadable(7);
  EXPECT_EQ(std::tuple(state, other, fd, term), std::tuple(1, 0, 1, 1));
}

// PollRunLoop, against the real kernel (runBounded guards every run).
using test::runBounded;

class PollRunLoopTest : public ::testing::Test {
 protected:
  // Runs the loop until `done()` holds, checking every 5 ms.
  bool runUntil(const std::function<bool()>& done) {
    const TimerId check = loop->every(0.005, 0, [&] {
      if (done()) loop->stop();
    });
    const bool inTime = runBounded(*loop);
    loop->cancel(check);
    return inTime && done();
  }
  // Runs the loop for `seconds`, to show that something does not happen.
  void runFor(double seconds) {
    loop->after(seconds, [this] { loop->stop(); });
    ASSERT_TRUE(runBounded(*loop));
  }

  SystemClock clock;
  std::unique_ptr<RunLoop> loop = makePollRunLoop(clock);
  test::TempDir dir;
};

// On a manual clock: a timer never fires early; a sleep through ten beats
// fires it once and the next beat keeps to the old grid; a cancelled timer
// never fires, nor a repeating one that cancelled itself; timers within their
// tolerance share one wake-up; a lone timer still fires when due.
TEST_F(PollRunLoopTest, OnAManualClockTimersKeepTheirGridAndShareWakeUps) {
  ManualClock manual;
  auto grid = makePollRunLoop(manual);
  int beats = 0;
  TimerId beat = 0;
  beat = grid->every(1.0, 0, [&] {
    if (++beats == 2) grid->cancel(beat);
    grid->stop();
  });
  grid->cancel(grid->after(0.5, [&] { beats += 10; }));
  manual.advance(0.9);
  EXPECT_FALSE(runBounded(*grid, 50ms)) << "fired early";
  manual.advance(9.6);
  ASSERT_TRUE(runBounded(*grid));
  manual.advance(0.4);
  EXPECT_FALSE(runBounded(*grid, 50ms)) << "missed beats are skipped, not fired as a burst";
  manual.advance(0.1);
  ASSERT_TRUE(runBounded(*grid)) << "the beat at 11 never came";
  manual.advance(1.0);
  EXPECT_FALSE(runBounded(*grid, 50ms));
  EXPECT_EQ(beats, 2);

  auto shared = makePollRunLoop(manual);
  std::vector<std::string> log;
  const double t0 = manual.monotonic();
  auto at = [&](const std::string& what) {
    return [&, what] { log.push_back(what + "@" + std::to_string(manual.monotonic() - t0)); };
  };
  shared->every(2.0, 1.0, at("tick"));
  manual.advance(0.5);
  shared->every(2.0, 1.0, at("poll"));
  manual.advance(1.5);  // the tick is due, the poll half a second later
  EXPECT_FALSE(runBounded(*shared, 100ms)) << "the tick waits for the poll";
  EXPECT_TRUE(log.empty());
  manual.advance(0.5);
  shared->post([&] { shared->stop(); });
  runBounded(*shared, 100ms);
  EXPECT_EQ(log, (std::vector<std::string>{"tick@2.500000", "poll@2.500000"}));

  auto lone = makePollRunLoop(manual);
  lone->every(1.0, 0.5, [&] { lone->stop(); });
  manual.advance(1.0);
  EXPECT_TRUE(runBounded(*lone, 1000ms)) << "a lone timer waits for nothing";
}

// Whether thread `tid` of this process is asleep in the kernel: with no timer
// due, the loop's only blocking call is its poll. Where /proc is missing the
// thread is taken as asleep, which weakens the check but keeps it honest.
bool asleep(pid_t tid) {
  std::FILE* f = std::fopen(("/proc/self/task/" + std::to_string(tid) + "/stat").c_str(), "r");
  if (f == nullptr) return true;
  char line[512] = {};
  const size_t n = std::fread(line, 1, sizeof line - 1, f);
  std::fclose(f);
  const char* close = std::strrchr(line, ')');  // the name may hold spaces and brackets
  return n > 0 && close != nullptr && close[1] == ' ' && close[2] == 'S';
}

// Runs `action` on another thread once the loop, run on this thread, has
// started and gone back to sleep in poll.
std::thread onceAsleep(RunLoop& loop, const std::function<void()>& action) {
  const pid_t me = ::gettid();
  auto started = std::make_shared<std::atomic<bool>>(false);
  loop.post([started] { *started = true; });
  return std::thread([=] {
    // Bounded, so a loop that never runs fails the test instead of hanging it.
    for (int i = 0; i < 2'000'000 && !(*started && asleep(me)); ++i) std::this_thread::yield();
    action();
  });
}

TEST_F(PollRunLoopTest, PostAndStopFromAnotherThreadWakeTheLoop) {
  std::thread::id ranOn;
  std::thread poster = onceAsleep(*loop, [&] {
    loop->post([&] {
      ranOn = std::this_thread::get_id();
      loop->stop();
    });
  });
  const bool posted = runBounded(*loop);
  poster.join();
  EXPECT_TRUE(posted) << "the post did not wake poll";
  EXPECT_EQ(ranOn, std::this_thread::get_id());
  std::thread stopper = onceAsleep(*loop, [&] { loop->stop(); });
  const bool stopped = runBounded(*loop);
  stopper.join();
  EXPECT_TRUE(stopped);
  loop->stop();  // a stop that comes before run() is not lost
  EXPECT_TRUE(runBounded(*loop, 500ms));
}

TEST_F(PollRunLoopTest, WatchFileSeesEveryKindOfChangeToItsNameOnly) {
  // Two watches of a file that does not exist yet, the first unwatching
  // itself when called; a neighbour, and a file in a missing folder.
  const std::string path = dir.file("state.json");
  int first = 0, changes = 0, neighbour = 0, missing = 0;
  WatchId firstWatch = 0;
  firstWatch = loop->watchFile(path, [&] {
    loop->unwatch(firstWatch);
    ++first;
  });  // and lives on
  const WatchId watch = loop->watchFile(path, [&] { ++changes; });
  loop->watchFile(dir.file("other.json"), [&] { ++neighbour; });
  loop->watchFile(dir.file("no/such/folder/x"), [&] { ++missing; });
  auto expectChange = [&](const char* what, const std::function<void()>& change) {
    const int seen = changes;
    change();
    EXPECT_TRUE(runUntil([&] { return changes > seen; })) << what;
  };
  expectChange("creation", [&] { test::writeFile(path, "{}"); });
  expectChange("write in place", [&] { test::writeFile(path, R"({"a":1})"); });
  expectChange("an editor's save by rename", [&] {
    test::writeFile(path + ".tmp", R"({"a":2})");
    ASSERT_EQ(std::rename((path + ".tmp").c_str(), path.c_str()), 0);
  });
  expectChange("deletion", [&] { ASSERT_EQ(::unlink(path.c_str()), 0); });
  loop->unwatch(watch);
  const int seen = changes;
  test::writeFile(path, "{}");
  runFor(0.1);
  EXPECT_EQ(std::tuple(first, changes, neighbour, missing), std::tuple(1, seen, 0, 0));
}

TEST_F(PollRunLoopTest, WatchReadableDeliversPipeDataAndLeavesTheFdToItsOwner) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
  std::string received;
  const WatchId watch = loop->watchReadable(fds[0], [&] {
    if (char ch; ::read(fds[0], &ch, 1) == 1) received += ch;
  });
  EXPECT_EQ(::write(fds[1], "ab", 2), 2);
  EXPECT_TRUE(runUntil([&] { return received == "ab"; }));
  // When unwatched, the data stays in the pipe and the fd stays open.
  loop->unwatch(watch);
  EXPECT_EQ(::write(fds[1], "c", 1), 1);
  runFor(0.05);
  char c = 0;
  EXPECT_EQ(::read(fds[0], &c, 1), 1);
  EXPECT_EQ(std::tuple(received, c), std::tuple("ab", 'c'));
  ::close(fds[0]);
  ::close(fds[1]);
}

TEST_F(PollRunLoopTest, SignalsArriveAsLoopEvents) {
  // raise() delivers to this thread, where the loop blocks the signals; the
  // mask is put back so that processes later tests start don't inherit it.
  sigset_t saved;
  ::pthread_sigmask(SIG_BLOCK, nullptr, &saved);
  int usr1 = 0, usr2 = 0;
  loop->onSignal(SIGUSR1, [&] { ++usr1; });
  loop->onSignal(SIGUSR2, [&] {
    ++usr2;
    loop->stop();
  });
  EXPECT_EQ(::raise(SIGUSR2), 0);
  EXPECT_EQ(usr2, 0) << "nothing runs in the signal handler";
  EXPECT_TRUE(runBounded(*loop));
  EXPECT_EQ(std::tuple(usr1, usr2), std::tuple(0, 1));
  // The first signal registered still arrives after the second widened the set.
  EXPECT_EQ(::raise(SIGUSR1), 0);
  EXPECT_TRUE(runUntil([&] { return usr1 == 1; }));
  EXPECT_THROW(loop->onSignal(SIGKILL, [] {}), std::invalid_argument);
  ::pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

}  // namespace
}  // namespace vigilo
