#pragma once

#include <cstdint>

namespace vigilo {

// The engine ticks every two seconds; slower work runs on beats of the tick.
// A beat is a period in ticks and a phase within it, so that two slow jobs
// never land on the same tick and add up.
struct Beat {
  std::int64_t every;
  std::int64_t phase = 0;
  constexpr bool on(std::int64_t tick) const { return tick % every == phase; }
  constexpr double seconds() const;
};

inline constexpr double kTickSeconds = 2.0;
constexpr double Beat::seconds() const { return static_cast<double>(every) * kTickSeconds; }

namespace beats {
// Every 10 s: the settings file, scheduled wakes, the setup's state, the
// sleep switch's upkeep and Approve everything.
inline constexpr Beat kSlow{5, 0};
// Every 10 s, one tick after the slow beat: the energy ranking, which reads
// the counters of every process.
inline constexpr Beat kEnergy{5, 1};
// Every minute: what the machine offers (bus round trips on Linux), and the
// learned power draws written to disk.
inline constexpr Beat kMinute{30, 0};
// Every 5 minutes, off the other beats: the watchdog's check.
inline constexpr Beat kWatchdog{150, 3};
}  // namespace beats

}  // namespace vigilo
