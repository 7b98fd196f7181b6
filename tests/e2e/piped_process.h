#pragma once

// A child process talked to over pipes, the way an agent runs `vigilo mcp`.
// Header-only so the benchmarks can use it without the test library.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace vigilo::test {

class PipedProcess {
 public:
  // Starts `argv` (argv[0] a path) with our environment plus `env`
  // ("NAME=value"). Its standard input and output are pipes to us; standard
  // error goes to `errFile`, and so does standard output when `outToFile` is
  // set (for a chatty child whose output nobody reads).
  PipedProcess(std::vector<std::string> argv, const std::vector<std::string>& env, const std::string& errFile,
               bool outToFile = false) {
    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    std::vector<char*> args;
    for (auto& a : argv) args.push_back(a.data());
    args.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(outToFile ? err : out[1], 1);
      ::dup2(err, 2);
      for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
      // A child must start with default signal handling, whatever ours is.
      sigset_t none;
      sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      ::signal(SIGPIPE, SIG_DFL);
      ::execv(args[0], args.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (err >= 0) ::close(err);
    in_ = in[1];
    out_ = out[0];
    if (outToFile) closeFd(out_);
  }
  ~PipedProcess() {
    closeInput();
    closeFd(out_);
    if (reaped_) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  PipedProcess(const PipedProcess&) = delete;
  PipedProcess& operator=(const PipedProcess&) = delete;

  void signal(int signo) {
    if (!reaped_) ::kill(pid_, signo);
  }
  // Writes all of `data`; false when the child stopped reading or is gone.
  // Never raises SIGPIPE in us.
  bool write(std::string_view data) {
    sigset_t pipeSignal, old;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSignal, &old);
    while (in_ >= 0 && !data.empty()) {
      const ssize_t n = ::write(in_, data.data(), data.size());
      if (n > 0) data.remove_prefix(static_cast<std::size_t>(n));
      if (n <= 0 && errno != EINTR) break;
    }
    const timespec zero{};
    if (!data.empty()) ::sigtimedwait(&pipeSignal, nullptr, &zero);  // drops a pending SIGPIPE
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return data.empty();
  }
  // Ends its standard input (the client hanging up).
  void closeInput() { closeFd(in_); }

  // The next line of its output without the newline; nothing when none is
  // complete within `limit` or the output ended.
  std::optional<std::string> readLine(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    std::size_t nl;
    while ((nl = buffer_.find('\n')) == std::string::npos) {
      if (!fill(deadline)) return std::nullopt;
    }
    std::string line = buffer_.substr(0, nl);
    buffer_.erase(0, nl + 1);
    return line;
  }
  // Everything it still writes until it closes its output (at most `limit`).
  std::string readToEnd(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (fill(deadline)) {
    }
    return std::exchange(buffer_, {});
  }
  // Its exit status, 128 + the signal after a death by signal, or -1 when it
  // did not end within `limit`.
  // Once reaped, it answers at once with the same status.
  int wait(std::chrono::milliseconds limit) {
    if (reaped_) return exitCode_;
    const auto deadline = Clock::now() + limit;
    int status = 0;
    while (::waitpid(pid_, &status, WNOHANG) != pid_) {
      if (Clock::now() >= deadline) return -1;
      ::usleep(10000);
    }
    reaped_ = true;
    exitCode_ = WIFEXITED(status) ? WEXITSTATUS(status) : WIFSIGNALED(status) ? 128 + WTERMSIG(status) : -1;
    return exitCode_;
  }

 private:
  using Clock = std::chrono::steady_clock;

  // Reads what comes by `deadline`; false at the end of the output or the deadline.
  bool fill(Clock::time_point deadline) {
    while (out_ >= 0) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      pollfd p{out_, POLLIN, 0};
      const int ready = ::poll(&p, 1, left < 0 ? 0 : static_cast<int>(left));
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) return false;
      char chunk[65536];
      const ssize_t n = ::read(out_, chunk, sizeof chunk);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
        closeFd(out_);
        break;
      }
      buffer_.append(chunk, static_cast<std::size_t>(n));
      return true;
    }
    return false;
  }
  static void closeFd(int& fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  bool reaped_ = false;
  int exitCode_ = -1;
  std::string buffer_;
};

}  // namespace vigilo::test
