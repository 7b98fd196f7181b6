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

}  // namespace vigilo
