#include "platform/linux/energy_share.h"

#include <algorithm>

namespace vigilo {

void EnergyShare::sample(double monotonic, std::uint64_t busyMicros, double watts) {
  if (sampled_ && monotonic > lastAt_ && busyMicros >= lastBusy_) {
    joules_ += watts * (monotonic - lastAt_);
    busy_ += busyMicros - lastBusy_;
  }
  sampled_ = true;
  lastAt_ = monotonic;
  lastBusy_ = busyMicros;
}

std::uint64_t EnergyShare::energyOf(std::int32_t pid, std::uint64_t startTicks, std::uint64_t cpuMicros) {
  Seen& s = seen_[pid];
  if (!s.known || s.startTicks != startTicks) {
    s = Seen{true, startTicks, cpuMicros, joules_, busy_, 0.0};
    return 0;
  }
  const double machine = joules_ - s.joulesAt;
  const std::uint64_t busy = busy_ - s.busyAt;
  if (busy > 0 && cpuMicros > s.cpuMicros) {
    const double share = std::min(1.0, static_cast<double>(cpuMicros - s.cpuMicros) / static_cast<double>(busy));
    s.nanojoules += machine * share * 1e9;
  }
  s.cpuMicros = cpuMicros;
  s.joulesAt = joules_;
  s.busyAt = busy_;
  return static_cast<std::uint64_t>(s.nanojoules);
}

void EnergyShare::keepOnly(const std::vector<std::int32_t>& pids) {
  std::erase_if(seen_, [&](const auto& entry) { return !std::binary_search(pids.begin(), pids.end(), entry.first); });
}

}  // namespace vigilo
