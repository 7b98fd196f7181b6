#include "e2e/app_process.h"

#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "test_support.h"

namespace vigilo::test {

AppProcess::AppProcess(const std::vector<std::string>& args, const std::string& home, const std::string& outputFile)
    : outputFile_(outputFile) {
  std::vector<std::string> argv{VIGILO_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  pid_ = ::fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    int fd = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (fd >= 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
    }
    ::setenv("VIGILO_HOME", home.c_str(), 1);
    // The child must not inherit the test runner's blocked signals.
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    std::vector<char*> cargs;
    for (auto& a : argv) cargs.push_back(a.data());
    cargs.push_back(nullptr);
    ::execv(cargs[0], cargs.data());
    ::_exit(127);
  }
}

AppProcess::~AppProcess() {
  if (!reaped_ && pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

void AppProcess::signal(int signo) {
  if (!reaped_) ::kill(pid_, signo);
}

int AppProcess::wait(std::chrono::milliseconds limit) {
  int status = 0;
  bool done = waitFor(
      [&] {
        pid_t r = ::waitpid(pid_, &status, WNOHANG);
        return r == pid_;
      },
      limit);
  if (!done) return -1;
  reaped_ = true;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
  return -1;
}

std::string AppProcess::output() const { return readFile(outputFile_); }

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return done();
}

}  // namespace vigilo::test
