#include "platform/run_loop.h"

#include <cmath>

namespace vigilo {

double nextBeat(double due, double interval, double now) {
  double next = due + interval;
  if (next <= now) {
    next = due + (std::floor((now - due) / interval) + 1.0) * interval;
    if (next <= now) next += interval;  // rounding at the boundary
  }
  return next;
}

}  // namespace vigilo
