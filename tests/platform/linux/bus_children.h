#pragma once

// Children and bus handles for the tests that run a private dbus-daemon and
// its mocks: started with a clean signal mask, ended with SIGTERM and, when
// stuck, SIGKILL.

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "e2e/app_process.h"
#include "e2e/sim_app.h"

namespace vigilo::test {

// Starts `argv` with standard output to `out` and standard error to `err`
// (-1 leaves either as it is) and `env` ("NAME=value") added.
inline pid_t spawn(const std::vector<std::string>& argv, int out, int err, const std::vector<std::string>& env = {}) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (out >= 0) ::dup2(out, 1);
    if (err >= 0) ::dup2(err, 2);
    for (const auto& e : env) ::putenv(const_cast<char*>(e.c_str()));
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  return pid;
}

inline void endChild(pid_t& pid) {
  if (pid <= 0) return;
  ::kill(pid, SIGTERM);
  if (!waitFor([&] { return ::waitpid(pid, nullptr, WNOHANG) == pid; }, std::chrono::milliseconds(5000))) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
  }
  pid = -1;
}

struct BusUnref {
  void operator()(sd_bus* b) const { sd_bus_flush_close_unref(b); }
};
struct MessageUnref {
  void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
using Message = std::unique_ptr<sd_bus_message, MessageUnref>;
using Bus = std::unique_ptr<sd_bus, BusUnref>;

// A client connection to the bus at `address`; empty when it can't be made.
inline Bus connectBus(const std::string& address) {
  sd_bus* raw = nullptr;
  if (sd_bus_new(&raw) < 0) return nullptr;
  Bus bus(raw);
  sd_bus_set_address(raw, address.c_str());
  sd_bus_set_bus_client(raw, 1);
  if (sd_bus_start(raw) < 0) return nullptr;
  return bus;
}

// Whether /usr/bin/python3 can run `code` (an import, say) without error.
inline bool pythonCan(const std::string& code) {
  const int devnull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t probe = spawn({"/usr/bin/python3", "-c", code}, devnull, devnull);
  ::close(devnull);
  int status = 0;
  ::waitpid(probe, &status, 0);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// A private dbus-daemon with this test's own connection to it, both gone
// with the object. Its complaints go to `log` (-1: nowhere).
class PrivateBus {
 public:
  explicit PrivateBus(int log = -1) : address_("unix:path=" + dir_.file("bus")) {
    const int sink = log >= 0 ? log : ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    daemon_ =
        spawn({"/usr/bin/dbus-daemon", "--session", "--nofork", "--nopidfile", "--address=" + address_}, sink, sink);
    if (sink != log) ::close(sink);
    if (!waitFor([&] { return (bus_ = connectBus(address_)) != nullptr; }, std::chrono::milliseconds(5000))) {
      throw std::runtime_error("can't connect to the private bus");
    }
  }
  ~PrivateBus() {
    bus_.reset();
    endChild(daemon_);
  }
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;

  const std::string& address() const { return address_; }
  sd_bus* bus() const { return bus_.get(); }

 private:
  TempDir dir_;
  std::string address_;
  pid_t daemon_ = -1;
  Bus bus_;
};

// Given a private session bus (or a mock daemon's) and the
// app on the simulated laptop there; the desktop helper a test starts (a
// tray host, a portal) ends after the app.
class DesktopSessionTest : public SimAppTest {
 protected:
  void SetUp() override {
    if (::access("/usr/bin/dbus-daemon", X_OK) != 0) GTEST_SKIP() << "dbus-daemon is not installed (scripts/setup)";
    if (address_.empty()) {
      bus_ = std::make_unique<PrivateBus>();
      address_ = bus_->address();
    }
  }
  void TearDown() override {
    stopApp();
    endChild(helper_);
  }
  std::vector<std::string> env() const { return {"DBUS_SESSION_BUS_ADDRESS=" + address_}; }

  std::string address_;  // set before SetUp to use a bus of the test's own
  std::unique_ptr<PrivateBus> bus_;
  pid_t helper_ = -1;
};

}  // namespace vigilo::test
