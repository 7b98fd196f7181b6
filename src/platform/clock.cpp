#include "platform/clock.h"

#include <chrono>

namespace vigilo {

Time SystemClock::now() const {
  using namespace std::chrono;
  return duration<double>(system_clock::now().time_since_epoch()).count();
}

double SystemClock::monotonic() const {
  using namespace std::chrono;
  return duration<double>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace vigilo
