#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/manual_run_loop.h"
#include "platform/run_loop.h"
#include "test_support.h"

namespace vigilo {
namespace {

using namespace std::chrono_literals;

// ---------------------------------------------------------------------------
// ManualRunLoop

class ManualRunLoopTest : public ::testing::Test {
 protected:
  // Seconds since the test started, by the manual clock.
  double elapsed() const { return clock.monotonic() - start; }
  // A callback that records `what` and the time it ran.
  std::function<void()> record(const std::string& what) {
    return [this, what] { log.push_back(what + "@" + std::to_string(static_cast<int>(elapsed() * 10 + 0.5))); };
  }

  ManualClock clock;
  ManualRunLoop loop{clock};
  const double start = clock.monotonic();
  std::vector<std::string> log;  // "name@tenths of a second"
};

TEST_F(ManualRunLoopTest, AdvanceFiresTimersInDeadlineOrderAtTheirDeadlines) {
  // Given timers created out of order, a tie, and posted work.
  loop.after(3, record("late"));
  loop.after(1, [this] {
    record("early")();
    loop.post(record("posted-by-early"));
    loop.after(0.5, record("added-by-early"));
  });
  loop.every(2, 0, record("tick"));
  loop.after(2, record("tied-with-tick"));
  loop.post(record("posted"));

  loop.advance(5);

  EXPECT_EQ(log, (std::vector<std::string>{"posted@0", "early@10", "posted-by-early@10", "added-by-early@15",
                                           "tick@20", "tied-with-tick@20", "late@30", "tick@40"}));
  EXPECT_DOUBLE_EQ(elapsed(), 5.0);
  EXPECT_DOUBLE_EQ(clock.now() - 1'800'000'000.0, 5.0);  // the wall clock moves along
  EXPECT_EQ(loop.timerCount(), 1u);                       // only the repeating one is left
}

TEST_F(ManualRunLoopTest, RepeatingTimerKeepsItsBeatAcrossAdvancesAndSkipsASleep) {
  // Given a timer every 1 s, driven in steps that do not line up with it.
  int ticks = 0;
  loop.every(1, 0.1, [&] { ++ticks; });
  for (int i = 0; i < 7; ++i) loop.advance(0.5);
  EXPECT_EQ(ticks, 3);  // at 1, 2 and 3; no drift from the half steps

  // When the laptop sleeps for a minute (the clock jumps without the loop).
  clock.advance(60.2);
  loop.advance(0);
  EXPECT_EQ(ticks, 4) << "missed beats are skipped, not fired as a burst";

  // Then the next beats fall on the old grid (64, 65), not 1 s after waking.
  loop.advance(0.7);  // to 64.4
  EXPECT_EQ(ticks, 5);
  loop.advance(0.5);  // to 64.9
  EXPECT_EQ(ticks, 5);
}

TEST_F(ManualRunLoopTest, CallbacksMayCancelTimersDuringAdvance) {
  // Given a repeating timer that cancels itself on its third beat, and a
  // one-shot that cancels another timer due later in the same advance.
  int beats = 0;
  TimerId self = 0;
  self = loop.every(1, 0, [&] {
    if (beats == 2) loop.cancel(self);
    ++beats;  // the callback is still alive after cancelling itself
  });
  TimerId victim = loop.after(2.5, record("victim"));
  loop.after(2, [&] { loop.cancel(victim); });
  loop.cancel(12345);  // unknown ids are ignored

  loop.advance(10);

  EXPECT_EQ(beats, 3);
  EXPECT_TRUE(log.empty());
  EXPECT_EQ(loop.timerCount(), 0u);
}

TEST_F(ManualRunLoopTest, RunDrainsPostedWorkUntilStopOrEmpty) {
  // Given work that posts more work.
  loop.post([this] {
    log.push_back("a");
    loop.post([this] { log.push_back("c"); });
  });
  loop.post([this] { log.push_back("b"); });
  loop.run();  // returns by itself once nothing is left
  EXPECT_EQ(log, (std::vector<std::string>{"a", "b", "c"}));

  // When a piece of work stops the loop, the rest waits for the next run.
  log.clear();
  loop.post([this] {
    log.push_back("stop");
    loop.stop();
  });
  loop.post([this] { log.push_back("later"); });
  loop.run();
  EXPECT_EQ(log, (std::vector<std::string>{"stop"}));
  loop.run();
  EXPECT_EQ(log, (std::vector<std::string>{"stop", "later"}));
}

TEST_F(ManualRunLoopTest, FileFdAndSignalEventsReachOnlyTheirWatchers) {
  // Given watchers of two files, one fd and one signal.
  int state = 0, other = 0, fd = 0, term = 0;
  WatchId stateWatch = loop.watchFile("/home/u/state.json", [&] { ++state; });
  loop.watchFile("/home/u/other.json", [&] { ++other; });
  WatchId fdWatch = loop.watchReadable(7, [&] { ++fd; });
  loop.onSignal(SIGTERM, [&] { ++term; });

  loop.fileChanged("/home/u/state.json");
  loop.fdReadable(7);
  loop.fdReadable(8);
  loop.raise(SIGTERM);
  loop.raise(SIGINT);  // nobody listens
  EXPECT_EQ(state, 1);
  EXPECT_EQ(other, 0);
  EXPECT_EQ(fd, 1);
  EXPECT_EQ(term, 1);

  // When unwatched, nothing more arrives.
  loop.unwatch(stateWatch);
  loop.unwatch(fdWatch);
  loop.fileChanged("/home/u/state.json");
  loop.fdReadable(7);
  EXPECT_EQ(state, 1);
  EXPECT_EQ(fd, 1);
}

// ---------------------------------------------------------------------------
// PollRunLoop, against the real kernel. Each run is bounded by a guard thread
// so that a missing event fails the test instead of hanging it.

// Runs `loop` until something stops it; a guard thread stops it after
// `limit` of real time. Returns false when the guard had to.
bool runBounded(RunLoop& loop, std::chrono::milliseconds limit = 3000ms) {
  std::mutex mutex;
  std::condition_variable cv;
  bool done = false;
  bool timedOut = false;
  std::thread guard([&] {
    std::unique_lock<std::mutex> lock(mutex);
    if (!cv.wait_for(lock, limit, [&] { return done; })) {
      timedOut = true;
      loop.stop();
    }
  });
  loop.run();
  {
    std::lock_guard<std::mutex> lock(mutex);
    done = true;
  }
  cv.notify_one();
  guard.join();
  return !timedOut;
}

// The two ends of a pipe, closed at the end of the test.
struct Pipe {
  Pipe() {
    if (::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) throw std::runtime_error("pipe2 failed");
  }
  ~Pipe() {
    ::close(fds[0]);
    ::close(fds[1]);
  }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  int readEnd() const { return fds[0]; }
  void write(const std::string& s) const { ASSERT_EQ(::write(fds[1], s.data(), s.size()), static_cast<ssize_t>(s.size())); }
  int fds[2];
};

class PollRunLoopTest : public ::testing::Test {
 protected:
  // Runs the loop until `done()` holds, checking every 5 ms.
  bool runUntil(const std::function<bool()>& done) {
    TimerId check = loop->every(0.005, 0, [&] {
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

TEST_F(PollRunLoopTest, TimersFireInOrderAndARepeatingOneCanCancelItself) {
  // Given a one-shot, a repeating timer that cancels itself after three
  // beats and then stops the loop, and a timer cancelled before it is due.
  std::vector<std::string> log;
  const double started = clock.monotonic();
  TimerId cancelled = loop->after(0.03, [&] { log.push_back("cancelled"); });
  loop->after(0.01, [&] { log.push_back("once"); });
  int beats = 0;
  TimerId tick = 0;
  tick = loop->every(0.02, 0, [&] {
    log.push_back("tick");
    if (++beats == 3) {
      loop->cancel(tick);
      loop->after(0.05, [&] { loop->stop(); });
    }
  });
  loop->cancel(cancelled);

  ASSERT_TRUE(runBounded(*loop));

  EXPECT_EQ(log, (std::vector<std::string>{"once", "tick", "tick", "tick"}));
  EXPECT_GE(clock.monotonic() - started, 0.06 + 0.05) << "timers never fire early";
}

TEST_F(PollRunLoopTest, RepeatingTimerSkipsMissedBeatsAndKeepsItsGrid) {
  // Given the real loop on a manual clock, and a 1 s timer that stops the
  // loop each time it fires (a stop ends run() after the current pass).
  ManualClock manual;
  auto manualLoop = makePollRunLoop(manual);
  int beats = 0;
  manualLoop->every(1.0, 0, [&] {
    ++beats;
    manualLoop->stop();
  });

  // When the machine sleeps through ten beats.
  manual.advance(10.5);
  ASSERT_TRUE(runBounded(*manualLoop));
  EXPECT_EQ(beats, 1) << "missed beats are skipped, not fired as a burst";

  // Then the next beat is at 11, on the old grid, not 1 s after waking.
  manual.advance(0.5);
  ASSERT_TRUE(runBounded(*manualLoop)) << "the beat at 11 never came";
  EXPECT_EQ(beats, 2);
}

TEST_F(PollRunLoopTest, PostAndStopFromAnotherThreadWakeTheLoop) {
  // Given a loop with nothing to do, and a thread posting to it.
  const auto loopThread = std::this_thread::get_id();
  std::thread::id ranOn;
  std::thread poster([&] {
    std::this_thread::sleep_for(20ms);
    loop->post([&] {
      ranOn = std::this_thread::get_id();
      loop->stop();
    });
  });
  const bool inTime = runBounded(*loop);
  poster.join();
  ASSERT_TRUE(inTime) << "the post did not wake poll";
  EXPECT_EQ(ranOn, loopThread);

  // A stop from another thread ends run() too.
  std::thread stopper([&] {
    std::this_thread::sleep_for(20ms);
    loop->stop();
  });
  const bool stoppedInTime = runBounded(*loop);
  stopper.join();
  EXPECT_TRUE(stoppedInTime);

  // A stop that comes before run() is not lost.
  loop->stop();
  EXPECT_TRUE(runBounded(*loop, 500ms));
}

TEST_F(PollRunLoopTest, WatchFileSeesWritesRenamesAndCreation) {
  // Given a watch on a file that does not exist yet, and one on a neighbour.
  const std::string path = dir.file("state.json");
  int changes = 0, neighbour = 0;
  WatchId watch = loop->watchFile(path, [&] { ++changes; });
  loop->watchFile(dir.file("other.json"), [&] { ++neighbour; });

  test::writeFile(path, "{}");
  ASSERT_TRUE(runUntil([&] { return changes >= 1; })) << "creation";

  int seen = changes;
  test::writeFile(path, R"({"a":1})");
  ASSERT_TRUE(runUntil([&] { return changes > seen; })) << "write in place";

  // An editor's save: a new file renamed over the old one.
  seen = changes;
  test::writeFile(path + ".tmp", R"({"a":2})");
  ASSERT_EQ(std::rename((path + ".tmp").c_str(), path.c_str()), 0);
  ASSERT_TRUE(runUntil([&] { return changes > seen; })) << "save by rename";

  seen = changes;
  ASSERT_EQ(::unlink(path.c_str()), 0);
  ASSERT_TRUE(runUntil([&] { return changes > seen; })) << "deletion";

  // When unwatched, nothing more arrives.
  loop->unwatch(watch);
  seen = changes;
  test::writeFile(path, "{}");
  runFor(0.1);
  EXPECT_EQ(changes, seen);
  EXPECT_EQ(neighbour, 0);
}

TEST_F(PollRunLoopTest, WatchesShareAFolderAndMayUnwatchThemselves) {
  // Given two watches of one file; the first unwatches itself when called.
  const std::string path = dir.file("config.toml");
  int first = 0, second = 0;
  WatchId firstWatch = 0;
  firstWatch = loop->watchFile(path, [&] {
    loop->unwatch(firstWatch);
    ++first;  // the callback is still alive after unwatching itself
  });
  WatchId secondWatch = loop->watchFile(path, [&] { ++second; });

  test::writeFile(path, "a = 1");
  ASSERT_TRUE(runUntil([&] { return first == 1 && second >= 1; }));

  // The folder stays watched for the second one.
  int seen = second;
  test::writeFile(path, "a = 2");
  ASSERT_TRUE(runUntil([&] { return second > seen; }));
  EXPECT_EQ(first, 1);

  // A watch whose folder does not exist is accepted and stays silent.
  int missing = 0;
  WatchId missingWatch = loop->watchFile(dir.file("no/such/folder/x"), [&] { ++missing; });
  loop->unwatch(secondWatch);
  seen = second;
  test::writeFile(path, "a = 3");
  runFor(0.1);
  EXPECT_EQ(second, seen);
  EXPECT_EQ(missing, 0);
  loop->unwatch(missingWatch);
}

TEST_F(PollRunLoopTest, WatchReadableDeliversPipeDataAndLeavesTheFdToItsOwner) {
  // Given a watch on a pipe that reads what arrives.
  Pipe pipe;
  std::string received;
  WatchId watch = loop->watchReadable(pipe.readEnd(), [&] {
    char buffer[64];
    const ssize_t got = ::read(pipe.readEnd(), buffer, sizeof buffer);
    if (got > 0) received.append(buffer, static_cast<std::size_t>(got));
  });

  pipe.write("a");
  ASSERT_TRUE(runUntil([&] { return received == "a"; }));

  std::thread writer([&] {
    std::this_thread::sleep_for(20ms);
    pipe.write("b");
  });
  const bool gotB = runUntil([&] { return received == "ab"; });
  writer.join();
  ASSERT_TRUE(gotB);

  // When unwatched, the data stays in the pipe and the fd stays open.
  loop->unwatch(watch);
  pipe.write("c");
  runFor(0.05);
  EXPECT_EQ(received, "ab");
  char c = 0;
  EXPECT_EQ(::read(pipe.readEnd(), &c, 1), 1);
  EXPECT_EQ(c, 'c');
}

// Puts this thread's signal mask back, so that processes later tests start
// do not inherit blocked signals.
class SignalMaskRestorer {
 public:
  SignalMaskRestorer() { ::pthread_sigmask(SIG_BLOCK, nullptr, &saved_); }
  ~SignalMaskRestorer() { ::pthread_sigmask(SIG_SETMASK, &saved_, nullptr); }
  SignalMaskRestorer(const SignalMaskRestorer&) = delete;
  SignalMaskRestorer& operator=(const SignalMaskRestorer&) = delete;

 private:
  sigset_t saved_;
};

TEST_F(PollRunLoopTest, SignalsArriveAsLoopEvents) {
  // Given handlers for two signals, registered on this thread before any
  // other thread starts; only SIGUSR2 is raised. (raise() targets this
  // thread, where the signals are blocked, whatever other threads exist.)
  SignalMaskRestorer restoreMask;
  int usr1 = 0, usr2 = 0;
  loop->onSignal(SIGUSR1, [&] { ++usr1; });
  loop->onSignal(SIGUSR2, [&] {
    ++usr2;
    loop->stop();
  });

  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_EQ(usr2, 0) << "nothing runs in the signal handler";

  ASSERT_TRUE(runBounded(*loop));
  EXPECT_EQ(usr2, 1);
  EXPECT_EQ(usr1, 0);

  // The first signal registered still arrives after the second widened the set.
  ASSERT_EQ(::raise(SIGUSR1), 0);
  ASSERT_TRUE(runUntil([&] { return usr1 == 1; }));

  EXPECT_THROW(loop->onSignal(SIGKILL, [] {}), std::invalid_argument);
}

}  // namespace
}  // namespace vigilo
