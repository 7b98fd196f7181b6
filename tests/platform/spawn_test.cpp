#include "platform/spawn.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "test_support.h"

namespace vigilo {
namespace {

using ::testing::HasSubstr;
using To = SpawnStream::To;

// A pipe whose ends no child inherits unless handed over.
void closeOnExecPipe(int fds[2]) { ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0); }

// Everything readable from `fd` until every writer has closed it.
std::string drain(int fd) {
  std::string text;
  char buf[256];
  ssize_t n;
  while ((n = ::read(fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<std::size_t>(n));
  return text;
}

TEST(Spawn, StreamsHandedOverDescriptorsSignalsAndExitStatus) {
  // Given /bin/sh scripts whose streams go to a new file, /dev/null or a
  // pipe of ours handed over under some number (a pipe as the standard
  // output is the last test's).
  struct Row {
    const char* what;
    std::string script;
    To out, err;
    int pipeAt;    // our number for the pipe's writing end, -1 for wherever it was made
    int pipeAs;    // the child's number for it, -1 for none
    bool signals;  // SIGTERM blocked and SIGINT ignored here; cleared for the child
    int code;
    std::string file, piped;
  } rows[] = {
      {"output and error into one new file", "echo out; echo err >&2; exit 3", To::File, To::Output, -1, -1, false, 3,
       "out\nerr\n", ""},
      {"handed over under its own number", "echo same >&9", To::Inherit, To::Inherit, 9, 9, false, 0, "", "same\n"},
      {"our fd 2 handed over while the child's goes to /dev/null", "echo lost >&2; echo kept >&3", To::Inherit,
       To::Null, 2, 3, false, 0, "", "kept\n"},
      {"blocked and ignored signals cleared", "kill -TERM $$; echo survived", To::Null, To::Null, -1, -1, true,
       128 + 15, "", ""},
      {"an ignored SIGINT back at its default", "kill -INT $$; echo survived", To::Null, To::Null, -1, -1, true,
       128 + 2, "", ""},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    test::TempDir dir;
    int pipeFds[2];
    closeOnExecPipe(pipeFds);
    int writer = pipeFds[1];
    const int savedErr = row.pipeAt == 2 ? ::fcntl(2, F_DUPFD_CLOEXEC, 3) : -1;
    if (row.pipeAt >= 0) {
      ASSERT_EQ(::dup2(pipeFds[1], row.pipeAt), row.pipeAt);
      ::close(pipeFds[1]);
      writer = row.pipeAt;
      ::fcntl(writer, F_SETFD, FD_CLOEXEC);
    }
    SpawnOptions options;
    options.argv = {"/bin/sh", "-c", row.script};
    auto stream = [&](To to) {
      return to == To::File ? SpawnStream::file(dir.file("log")) : SpawnStream{to, writer, {}};
    };
    options.out = stream(row.out);
    options.err = stream(row.err);
    if (row.pipeAs >= 0) options.handOver.emplace_back(writer, row.pipeAs);
    sigset_t term, old;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    struct sigaction ignore = {};
    struct sigaction oldInt = {};
    ignore.sa_handler = SIG_IGN;
    if (row.signals) {
      ::pthread_sigmask(SIG_BLOCK, &term, &old);
      ::sigaction(SIGINT, &ignore, &oldInt);
      options.clearSignalMask = true;
      options.defaultSignals = {SIGINT};
    }
    const Spawned child = spawnProcess(options);
    if (row.signals) {
      ::sigaction(SIGINT, &oldInt, nullptr);
      ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    }
    if (savedErr >= 0) {
      ::dup2(savedErr, 2);
      ::close(savedErr);
    } else {
      ::close(writer);
    }
    ASSERT_TRUE(child) << child.error;
    const ExitStatus ended = waitForExit(child.pid);
    EXPECT_EQ(ended.code, row.code);
    EXPECT_EQ(ended.signalled, row.code > 128);
    EXPECT_EQ(drain(pipeFds[0]), row.piped);
    ::close(pipeFds[0]);
    if (row.out == To::File) {
      EXPECT_EQ(test::readFile(dir.file("log")), row.file);
      struct stat st {};
      ASSERT_EQ(::stat(dir.file("log").c_str(), &st), 0);
      EXPECT_EQ(st.st_mode & 0777, 0600u);
    }
  }
}

TEST(Spawn, ProgramsThatCannotStartGiveASentence) {
  test::TempDir dir;
  // A program that isn't there.
  SpawnOptions missing;
  missing.argv = {dir.file("no-such-program"), "--version"};
  Spawned child = spawnProcess(missing);
  EXPECT_FALSE(child);
  EXPECT_THAT(child.error, HasSubstr("couldn't start " + dir.file("no-such-program") + ": "));
  // An output file that is a symbolic link: refused, and its target untouched.
  test::writeFile(dir.file("target"), "keep");
  ASSERT_EQ(::symlink(dir.file("target").c_str(), dir.file("log").c_str()), 0);
  SpawnOptions linked;
  linked.argv = {"/bin/echo", "overwritten"};
  linked.out = SpawnStream::file(dir.file("log"));
  child = spawnProcess(linked);
  if (child) waitForExit(child.pid);
  EXPECT_FALSE(child);
  EXPECT_THAT(child.error, HasSubstr("couldn't start /bin/echo"));
  EXPECT_EQ(test::readFile(dir.file("target")), "keep");
  // Nothing to run at all.
  EXPECT_THAT(spawnProcess({}).error, HasSubstr("no program was named"));
}

TEST(Spawn, WaitingGivesUpAtItsLimitAndTheEnvironmentIsTheCallers) {
  int pipeFds[2];
  closeOnExecPipe(pipeFds);
  SpawnOptions options;
  // Ends when its standard input closes; says what its environment held.
  options.argv = {"/bin/sh", "-c", "read line; echo \"$ONLY ${HOME-none}\"; exit 4"};
  options.environment = std::vector<std::string>{"ONLY=this"};
  options.in = SpawnStream::of(pipeFds[0]);
  int out[2];
  closeOnExecPipe(out);
  options.out = SpawnStream::of(out[1]);
  const Spawned child = spawnProcess(options);
  ::close(pipeFds[0]);
  ::close(out[1]);
  ASSERT_TRUE(child) << child.error;
  EXPECT_FALSE(waitForExit(child.pid, std::chrono::milliseconds(30)).has_value()) << "still reading";
  ::close(pipeFds[1]);
  auto ended = waitForExit(child.pid, std::chrono::seconds(10));
  if (!ended) {
    ::kill(child.pid, SIGKILL);
    ended = waitForExit(child.pid);
  }
  EXPECT_EQ(ended->code, 4);
  EXPECT_EQ(drain(out[0]), "this none\n");
  ::close(out[0]);
}

}  // namespace
}  // namespace vigilo
