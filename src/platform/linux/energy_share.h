#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace vigilo {

// Shares the machine's measured draw out among processes by their share of
// the CPU time all processes used in the same stretch.
class EnergyShare {
 public:
  // The machine's counters now: busy CPU time, and the draw in watts.
  void sample(double monotonic, std::uint64_t busyMicros, double watts);

  // The energy of one process so far, counted from when it was first seen.
  // Reading a process seldom costs nothing: its share is of the machine's
  // energy over the whole stretch since its last reading.
  std::uint64_t energyOf(std::int32_t pid, std::uint64_t startTicks, std::uint64_t cpuMicros);

  // Forgets processes that are gone; `pids` is sorted.
  void keepOnly(const std::vector<std::int32_t>& pids);

 private:
  struct Seen {
    bool known = false;
    std::uint64_t startTicks = 0;
    std::uint64_t cpuMicros = 0;
    double joulesAt = 0.0;
    std::uint64_t busyAt = 0;
    double nanojoules = 0.0;
  };
  bool sampled_ = false;
  double lastAt_ = 0.0;
  std::uint64_t lastBusy_ = 0;
  double joules_ = 0.0;     // the machine's energy since the first sample
  std::uint64_t busy_ = 0;  // busy CPU microseconds since the first sample
  std::unordered_map<std::int32_t, Seen> seen_;
};

}  // namespace vigilo
