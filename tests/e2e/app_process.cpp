#include "e2e/app_process.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "test_support.h"

namespace vigilo::test {

namespace {

// Starts the real binary with `args` (`binary` first), VIGILO_HOME at
// `home`, `env` added, the given standard descriptors (-1 keeps ours) and the
// signal mask cleared (the child must not inherit the test runner's blocked
// signals).
pid_t startVigilo(const std::vector<std::string>& args, const std::string& home,
                  const std::vector<std::string>& env, const std::string& binary, int in, int out, int err) {
  std::vector<std::string> argv{binary};
  argv.insert(argv.end(), args.begin(), args.end());
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid > 0) return pid;
  for (const auto& [from, to] : {std::pair{in, 0}, {out, 1}, {err, 2}}) {
    if (from >= 0) ::dup2(from, to);
  }
  ::setenv("VIGILO_HOME", home.c_str(), 1);
  for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  std::vector<char*> cargs;
  for (auto& a : argv) cargs.push_back(a.data());
  cargs.push_back(nullptr);
  ::execv(cargs[0], cargs.data());
  ::_exit(127);
}

}  // namespace

AppProcess::AppProcess(const std::vector<std::string>& args, const std::string& home, const std::string& outputFile,
                       const std::vector<std::string>& env, const std::string& binary)
    : outputFile_(outputFile) {
  const int fd = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  pid_ = startVigilo(args, home, env, binary, -1, fd, fd);
  if (fd >= 0) ::close(fd);
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
  if (!reaped_ && !waitFor([&] { return ::waitpid(pid_, &status, WNOHANG) == pid_; }, limit)) return -1;
  if (!reaped_) exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
  reaped_ = true;
  return exit_;
}

std::string AppProcess::output() const { return readFile(outputFile_); }

// Runs the tool to its end; `stdinFd` becomes its standard input, or it
// shares the test's when -1.
static ToolRun runToolFrom(const std::vector<std::string>& args, const std::string& home,
                    const std::vector<std::string>& env, int stdinFd, const std::string& binary = VIGILO_BINARY) {
  char outTmpl[] = "/tmp/vigilo-tool-out-XXXXXX";
  char errTmpl[] = "/tmp/vigilo-tool-err-XXXXXX";
  const int outFd = ::mkstemp(outTmpl);
  const int errFd = ::mkstemp(errTmpl);
  const pid_t pid = startVigilo(args, home, env, binary, stdinFd, outFd, errFd);
  ::close(outFd);
  ::close(errFd);
  ToolRun run;
  int status = 0;
  bool done = waitFor([&] { return ::waitpid(pid, &status, WNOHANG) == pid; }, std::chrono::seconds(30));
  if (!done) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  } else if (WIFEXITED(status)) {
    run.status = WEXITSTATUS(status);
  }
  run.out = readFile(outTmpl);
  run.err = readFile(errTmpl);
  ::unlink(outTmpl);
  ::unlink(errTmpl);
  return run;
}

ToolRun runTool(const std::vector<std::string>& args, const std::string& home, const std::vector<std::string>& env,
                const std::string& binary) {
  return runToolFrom(args, home, env, -1, binary);
}

ToolRun runToolWithInput(const std::vector<std::string>& args, const std::string& home, const std::string& input,
                         const std::vector<std::string>& env) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  std::thread writer([fd = fds[1], &input] {
    // A tool that exits without reading everything must not kill the test.
    sigset_t pipeSignal;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, nullptr);
    std::size_t done = 0;
    while (done < input.size()) {
      const ssize_t n = ::write(fd, input.data() + done, input.size() - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    ::close(fd);
  });
  ToolRun run = runToolFrom(args, home, env, fds[0]);
  ::close(fds[0]);
  writer.join();
  return run;
}

ShellRun shell(const std::string& command) {
  char outTmpl[] = "/tmp/vigilo-shell-XXXXXX";
  const int fd = ::mkstemp(outTmpl);
  ::close(fd);
  ShellRun run;
  const int status = std::system((command + " >'" + outTmpl + "' 2>&1").c_str());
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = readFile(outTmpl);
  ::unlink(outTmpl);
  return run;
}

std::string installBuild(const std::string& root) {
  const std::string build = std::filesystem::path(VIGILO_BINARY).parent_path().string();
  ShellRun run = shell("DESTDIR='" + root + "' cmake --install '" + build + "' --prefix /usr");
  return run.status == 0 ? std::string() : run.out.empty() ? std::string("cmake --install failed") : run.out;
}

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (std::chrono::steady_clock::now() < deadline) {
    if (done()) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return done();
}

}  // namespace vigilo::test
