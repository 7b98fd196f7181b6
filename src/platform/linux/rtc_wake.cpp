#include "platform/linux/rtc_wake.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace vigilo {
namespace {

class RtcWakeScheduler final : public WakeScheduler {
 public:
  explicit RtcWakeScheduler(std::string path) : path_(std::move(path)) {}
  std::optional<std::string> unavailable() override {
    if (::access(path_.c_str(), F_OK) != 0) {
      return "This machine has no RTC wake alarm (" + path_ + "), so it can't wake itself at a set time.";
    }
    if (::access(path_.c_str(), W_OK) != 0) {
      return "Waking at a set time needs write access to " + path_ +
             ", which only root has here; a fully shut-down machine can't be woken either.";
    }
    return std::nullopt;
  }
  Result wakeIn(int seconds) override {
    // The kernel refuses a new alarm while one is set: clear it first.
    if (Result r = write("0"); !r) return r;
    return write("+" + std::to_string(seconds));
  }
  Result cancel() override { return write("0"); }
  std::string how() const override { return "through the RTC wake alarm"; }

 private:
  Result write(const std::string& value) {
    const int fd = ::open(path_.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
    if (fd < 0) return Result::fail("Couldn't set the wake alarm " + path_ + ": " + std::strerror(errno));
    const ssize_t n = ::write(fd, value.data(), value.size());
    const int saved = errno;
    ::close(fd);
    if (n != static_cast<ssize_t>(value.size())) {
      return Result::fail("Couldn't set the wake alarm " + path_ + ": " + std::strerror(saved));
    }
    return Result::ok();
  }
  std::string path_;
};

}  // namespace

std::unique_ptr<WakeScheduler> makeRtcWakeScheduler(std::string wakealarmPath) {
  return std::make_unique<RtcWakeScheduler>(std::move(wakealarmPath));
}

}  // namespace vigilo
