#pragma once

// A child process talked to over pipes, the way an agent runs `vigilo mcp`.
// Header-only so the benchmarks can use it without the test library.

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace vigilo::test {

class PipedProcess {
 public:
  // Starts `argv` (argv[0] a path) with our environment plus `env`
  // ("NAME=value", replacing a variable of that name). Its standard input
  // and output are pipes to us; standard error goes to `errFile`, and so
  // does standard output when `outToFile` is set (for a chatty child whose
  // output nobody reads).
  PipedProcess(const std::vector<std::string>& argv, const std::vector<std::string>& env, const std::string& errFile,
               bool outToFile = false) {
    std::vector<std::string> envText;
    for (char** e = environ; *e != nullptr; ++e) {
      std::string_view entry(*e);
      bool replaced = false;
      for (const auto& mine : env) {
        const auto eq = mine.find('=');
        if (entry.substr(0, entry.find('=')) == std::string_view(mine).substr(0, eq)) replaced = true;
      }
      if (!replaced) envText.emplace_back(entry);
    }
    envText.insert(envText.end(), env.begin(), env.end());
    std::vector<char*> envp;
    for (auto& e : envText) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> cargs;
    for (auto& a : args) cargs.push_back(a.data());
    cargs.push_back(nullptr);

    int in[2], out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    const int err = ::open(errFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::dup2(in[0], 0);
      ::dup2(outToFile ? err : out[1], 1);
      ::dup2(err, 2);
      // A child must start with default signal handling, whatever ours is.
      sigset_t none;
      sigemptyset(&none);
      ::sigprocmask(SIG_SETMASK, &none, nullptr);
      ::signal(SIGPIPE, SIG_DFL);
      ::execve(cargs[0], cargs.data(), envp.data());
      ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    if (err >= 0) ::close(err);
    in_ = in[1];
    out_ = out[0];
    ::fcntl(in_, F_SETFL, O_NONBLOCK);
    ::fcntl(out_, F_SETFL, O_NONBLOCK);
    if (outToFile) closeOutput();
  }

  ~PipedProcess() {
    closeInput();
    closeOutput();
    if (!reaped_ && pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  PipedProcess(const PipedProcess&) = delete;
  PipedProcess& operator=(const PipedProcess&) = delete;

  pid_t pid() const { return pid_; }
  void signal(int signo) {
    if (!reaped_ && pid_ > 0) ::kill(pid_, signo);
  }

  // Writes all of `data` within `limit`; false when the child stopped
  // reading or is gone. Never raises SIGPIPE in us.
  bool write(std::string_view data, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
    if (in_ < 0) return false;
    sigset_t pipeSignal, old;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    ::pthread_sigmask(SIG_BLOCK, &pipeSignal, &old);
    const auto deadline = Clock::now() + limit;
    bool ok = true;
    while (!data.empty()) {
      const ssize_t n = ::write(in_, data.data(), data.size());
      if (n > 0) {
        data.remove_prefix(static_cast<std::size_t>(n));
        continue;
      }
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN && Clock::now() < deadline) {
        pollfd p{in_, POLLOUT, 0};
        ::poll(&p, 1, remainingMs(deadline));
        continue;
      }
      if (n < 0 && errno == EPIPE) {
        const timespec zero{};
        ::sigtimedwait(&pipeSignal, nullptr, &zero);
      }
      ok = false;
      break;
    }
    ::pthread_sigmask(SIG_SETMASK, &old, nullptr);
    return ok;
  }

  // Ends its standard input (the client hanging up).
  void closeInput() {
    if (in_ >= 0) ::close(in_);
    in_ = -1;
  }

  // The next line of its standard output, without the newline; nothing when
  // none is complete within `limit` or the output ended.
  std::optional<std::string> readLine(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    for (;;) {
      if (auto nl = buffer_.find('\n'); nl != std::string::npos) {
        std::string line = buffer_.substr(0, nl);
        buffer_.erase(0, nl + 1);
        return line;
      }
      if (!fill(deadline)) return std::nullopt;
    }
  }

  // Everything it still writes until it closes its output (at most `limit`).
  std::string readToEnd(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (fill(deadline)) {
    }
    std::string rest;
    rest.swap(buffer_);
    return rest;
  }

  // Waits for the exit: its status, 128 + the signal after a death by
  // signal, or -1 when it did not end within `limit`.
  int wait(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    int status = 0;
    for (;;) {
      pid_t r = ::waitpid(pid_, &status, WNOHANG);
      if (r == pid_) break;
      if (Clock::now() >= deadline) return -1;
      ::usleep(10000);
    }
    reaped_ = true;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
  }

 private:
  using Clock = std::chrono::steady_clock;

  static int remainingMs(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
  }

  // Reads what is there (waiting until `deadline`); false at the end of the
  // output or the deadline.
  bool fill(Clock::time_point deadline) {
    if (out_ < 0) return false;
    for (;;) {
      char chunk[65536];
      const ssize_t n = ::read(out_, chunk, sizeof chunk);
      if (n > 0) {
        buffer_.append(chunk, static_cast<std::size_t>(n));
        return true;
      }
      if (n == 0) {
        closeOutput();
        return false;
      }
      if (errno == EINTR) continue;
      if (errno != EAGAIN || Clock::now() >= deadline) return false;
      pollfd p{out_, POLLIN, 0};
      ::poll(&p, 1, remainingMs(deadline));
    }
  }

  void closeOutput() {
    if (out_ >= 0) ::close(out_);
    out_ = -1;
  }

  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
  bool reaped_ = false;
  std::string buffer_;
};

}  // namespace vigilo::test
