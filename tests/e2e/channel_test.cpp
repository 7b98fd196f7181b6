#include <cstring>
#include <csignal>
#include <cstddef>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

#include <gtest/gtest.h>

#include "commands/channel.h"
#include "e2e/sim_app.h"
#include "platform/notifications.h"
#include "test_support.h"

namespace vigilo::test {
namespace {

using namespace std::chrono_literals;
using json = nlohmann::json;

// Binds or connects `fd` to the request address of the app folder `home`.
int requestAddress(int fd, int (*op)(int, const sockaddr*, socklen_t), const std::string& home) {
  const std::string name = socketNameFor(home) + kRequestNotification;
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::memcpy(addr.sun_path + 1, name.data(), name.size());
  return op(fd, reinterpret_cast<sockaddr*>(&addr),
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size()));
}

mode_t modeOf(const std::string& path) {
  struct stat st {};
  return ::lstat(path.c_str(), &st) == 0 ? st.st_mode & 0777 : 0;
}

// Given a running `vigilo app --simulate` in a temporary app folder, reached
// by callers that differ from it in environment, number and manners.
class ChannelTest : public SimAppTest {
 protected:
  void SetUp() override {
    std::filesystem::remove(home_);  // the app makes its own folder, private
    startApp();
  }
};

TEST_F(ChannelTest, EveryCallerReachesTheAppBurstsQueueAndIdleConnectionsLockNobodyOut) {
  // glibc's putenv without "=" removes the variable.
  for (const std::vector<std::string>& env :
       {std::vector<std::string>{"XDG_RUNTIME_DIR=/nowhere"}, {"XDG_RUNTIME_DIR", "TMPDIR=/var/tmp", "HOME=/"}}) {
    ToolRun r = vigilo({"status"}, env);
    EXPECT_EQ(r.status, 0) << env[0] << ": " << r.err;
  }
  // The same folder named another way is the same app.
  EXPECT_EQ(runTool({"status"}, home_ + "/./", {}).status, 0);

  // Given 3,000 connections that never send anything, held open by one
  // program, a tool still gets its answer: idle ones give their place up.
  std::vector<int> idle;
  for (int i = 0; i < 3000; ++i) {
    idle.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    requestAddress(idle.back(), ::connect, home_);
  }
  ToolRun st = vigilo({"status"});
  EXPECT_EQ(st.status, 0) << st.err;
  for (int fd : idle) ::close(fd);

  // 100 tools at once: each gets its own reply and every hold is made.
  std::vector<ToolRun> runs(100);
  std::vector<std::thread> threads;
  for (ToolRun& run : runs) {
    threads.emplace_back([&] { run = vigilo({"hold", "--for", "10m", "--reason", "burst"}); });
  }
  for (auto& t : threads) t.join();
  std::set<std::string> ids, held;
  for (const ToolRun& r : runs) {
    EXPECT_EQ(r.status, 0) << r.err;
    ids.insert(r.out.substr(0, r.out.find('\n')));
  }
  EXPECT_EQ(ids.size(), runs.size());
  // No phantom holds: exactly the ones the tools were told about.
  const json after = status();
  for (const auto& h : after["holds"]) held.insert(h["id"].get<std::string>());
  EXPECT_EQ(held, ids);
  // Each tool took its reply away as it read it.
  EXPECT_TRUE(std::filesystem::is_empty(home_ + "/replies"));
}

TEST_F(ChannelTest, WhatAToolGaveUpOnOrCantReadIsNeverDoneAndALockedLaptopFileFreezesNothing) {
  // Given a stopped app: the tool's client gives up (after a second, not
  // the tool's eight), and once the app resumes the request is dropped, not
  // carried out.
  app_->signal(SIGSTOP);
  json late = RequestClient(home_).send("hold", {{"reason", "too late"}}, 1);
  app_->signal(SIGCONT);
  EXPECT_EQ(late["ok"], false);
  EXPECT_EQ(late["error"], kTimeoutErrorLinux) << late;
  EXPECT_TRUE(status()["holds"].empty());

  // Given a replies folder nothing can be written in (as on a full disk),
  // where the filesystem and our capabilities allow one.
  const std::string replies = home_ + "/replies";
  if (shell("chattr +i '" + replies + "'").status == 0) {
    ToolRun held = vigilo({"hold", "--reason", "read-only"});
    shell("chattr -i '" + replies + "'");
    EXPECT_EQ(held.status, 1);
    EXPECT_NE(held.err.find("can't write its answers to " + replies), std::string::npos) << held.err;
    EXPECT_TRUE(status()["holds"].empty());
  }

  // Given a script that holds the simulated laptop's lock: the app still
  // answers, says why the file is left alone, and quits promptly.
  const int lock = ::open((state_ + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(::flock(lock, LOCK_EX), 0);
  ASSERT_EQ(vigilo({"on"}).status, 0);
  EXPECT_TRUE(waitFor([&] { return outputHas("is locked by another program"); }, 10s)) << app_->output();
  EXPECT_EQ(vigilo({"status"}).status, 0);
  stopApp();
  ::close(lock);
}

TEST_F(ChannelTest, HostileInputLeavesTheAppAliveItsRecordsSmallAndPrivateAndNothingOutsideTouched) {
  auto post = makeSocketNotifications(home_, nullptr);
  const std::string replies = home_ + "/replies";
  const std::string victim = dir_.file("victim.txt");
  writeFile(victim, "keep me");
  const std::string self = std::to_string(app_->pid());
  // Links planted at every temporary name the app could write through.
  for (const std::string& planted :
       {home_ + "/runtime.json.vigilo-tmp", home_ + "/runtime.json." + self + ".vigilo-tmp",
        replies + "/planted-1.json." + self + ".vigilo-tmp", state_ + "." + self + ".vigilo-tmp"}) {
    std::filesystem::create_directories(std::filesystem::path(planted).parent_path());
    std::filesystem::create_symlink(victim, planted);
  }

  // Deep within the size limit, and past it (cut off by the app mid-send).
  for (std::size_t depth : {120000u, 300000u}) {
    post->post(kRequestNotification,
               R"({"id":"deep-1","cmd":"hold","args":{"x":)" + std::string(depth, '[') + std::string(depth, ']') + "}}");
  }
  // Malformed requests are dropped unanswered.
  for (const std::string& bad : {std::string("[1]"), std::string(R"({"id":"","cmd":"status"})"),
                                 R"({"id":")" + std::string(65, 'a') + R"(","cmd":"status"})",
                                 std::string(R"({"id":"a b","cmd":"status"})"), std::string(R"({"id":"abc"})")}) {
    ASSERT_TRUE(post->post(kRequestNotification, bad));
  }
  ASSERT_TRUE(post->post(kRequestNotification, R"({"id":"planted-1","cmd":"status","args":7})"));
  EXPECT_TRUE(waitFor([&] { return fileExists(replies + "/planted-1.json"); }, 5s));

  // 20 holds with 100 KB reasons keep the records and the status small.
  const std::string huge(100 * 1024, 'r');
  for (int i = 0; i < 20; ++i) ASSERT_EQ(vigilo({"hold", "--reason", huge}).status, 0);
  ASSERT_EQ(vigilo({"on"}).status, 0);  // a change of the simulated laptop
  EXPECT_LT(std::filesystem::file_size(home_ + "/runtime.json"), 20u * 1024);
  EXPECT_EQ(status()["holds"].size(), 20u);

  EXPECT_EQ(readFile(victim), "keep me");
  std::set<std::string> answered;
  for (const auto& e : std::filesystem::directory_iterator(replies)) {
    if (e.path().filename().string().ends_with(".json")) answered.insert(e.path().filename());
  }
  EXPECT_EQ(answered, (std::set<std::string>{"planted-1.json"}));
  EXPECT_EQ(modeOf(replies), 0700u);
  for (const std::string& record : {home_ + "/runtime.json", home_ + "/hold", state_}) {
    EXPECT_EQ(modeOf(record), 0600u) << record;
  }
}

// Given no app yet, and an app folder that someone else could change.
class AppFolderTest : public SimAppTest {
 protected:
  void plant(const std::string& path, uid_t owner, mode_t mode) {
    std::filesystem::create_directories(path);
    ASSERT_EQ(::chown(path.c_str(), owner, owner), 0);
    ASSERT_EQ(::chmod(path.c_str(), mode), 0);
  }
};

TEST_F(AppFolderTest, AFolderSomeoneElseCanChangeIsRefusedWithTheFix) {
  struct Case {
    std::string sub;
    uid_t owner;
    mode_t mode;
    std::string says;
  };
  const uid_t me = ::getuid();
  for (const Case& c : {Case{"", me, 0777, "can be changed by other users (its permissions are 0777)"},
                        Case{"/agent-events", 65534, 0700, "sudo chown -R"},
                        Case{"/replies", me, 0770, "chmod 700 '" + home_ + "/replies'"}}) {
    std::filesystem::remove_all(home_);
    plant(home_, me, 0700);
    plant(home_ + c.sub, c.owner, c.mode);
    auto app = launch();
    EXPECT_EQ(app->wait(10s), 1) << c.sub << c.owner;
    EXPECT_NE(app->output().find(c.says), std::string::npos) << app->output();
    ToolRun st = vigilo({"hold"});
    EXPECT_EQ(st.status, 1);
    EXPECT_NE(st.err.find(c.says), std::string::npos) << st.err;
    EXPECT_NE(vigilo({"doctor"}).out.find("Folder problem: "), std::string::npos) << c.sub;
  }
}

TEST_F(AppFolderTest, AnAddressHeldAtStartIsTakenOnceFreeAndSaidMeanwhile) {
  // Given a program of the user listening at the app's request address.
  int squatter = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(requestAddress(squatter, ::bind, home_), 0);
  ASSERT_EQ(::listen(squatter, 16), 0);
  app_ = launch();
  EXPECT_TRUE(waitFor([&] { return outputHas("holds Vigilo's request address"); }, 10s)) << app_->output();
  const std::string kill = "kill " + std::to_string(::getpid());
  ToolRun st = vigilo({"status"});
  EXPECT_EQ(st.status, 1);
  EXPECT_NE(st.err.find(kill), std::string::npos) << st.err;

  // Freed, the address becomes the app's.
  ::close(squatter);
  EXPECT_TRUE(waitFor([&] { return vigilo({"status"}).status == 0; }, 10s)) << app_->output();
  EXPECT_TRUE(outputHas("Listening for requests"));
}

}  // namespace
}  // namespace vigilo::test
