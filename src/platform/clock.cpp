#include "platform/clock.h"

#include <chrono>
#include <ctime>

namespace vigilo {

Time SystemClock::now() const {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

double SystemClock::monotonic() const {
#ifdef CLOCK_BOOTTIME
  // Counts the time the machine was suspended, so a laptop that slept shows
  // up as a jump here too.
  timespec ts{};
  if (clock_gettime(CLOCK_BOOTTIME, &ts) == 0) return static_cast<double>(ts.tv_sec) + ts.tv_nsec / 1e9;
#endif
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

ScaledClock::ScaledClock(const Clock& base, double rate)
    : base_(base), rate_(rate > 0 ? rate : 1.0), startWall_(base.now()), startMono_(base.monotonic()) {}

Time ScaledClock::now() const { return startWall_ + (base_.now() - startWall_) * rate_; }

double ScaledClock::monotonic() const { return startMono_ + (base_.monotonic() - startMono_) * rate_; }

Time nextLocalTime(Time now, int hour, int minute) {
  std::time_t secs = static_cast<std::time_t>(now);
  std::tm tm{};
  localtime_r(&secs, &tm);
  tm.tm_hour = hour;
  tm.tm_min = minute;
  tm.tm_sec = 0;
  // Let mktime decide whether summer time applies on that day.
  tm.tm_isdst = -1;
  std::time_t at = std::mktime(&tm);
  if (static_cast<Time>(at) <= now) {
    tm.tm_mday += 1;
    tm.tm_isdst = -1;
    at = std::mktime(&tm);
  }
  return static_cast<Time>(at);
}

}  // namespace vigilo
