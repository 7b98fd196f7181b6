#pragma once

namespace vigilo {

// Wall time in seconds since 1970, as every file and message of Vigilo
// stores it.
using Time = double;

// The first moment after `now` at which the local clock shows
// `hour`:`minute`:00: today, else tomorrow.
Time nextLocalTime(Time now, int hour, int minute);

// Where "now" comes from. The engine reads it once per tick; timers run on
// the monotonic reading so that a change of the wall clock does not fire or
// starve them. A laptop that slept shows up as a jump in both.
class Clock {
 public:
  Clock() = default;
  Clock(const Clock&) = delete;
  Clock& operator=(const Clock&) = delete;
  virtual ~Clock() = default;

  // Seconds since 1970 (may jump when the user sets the clock).
  virtual Time now() const = 0;
  // Seconds since an arbitrary fixed point; never goes backwards.
  virtual double monotonic() const = 0;
  // Clock seconds per real second: a loop waiting on this clock divides its
  // waits by it.
  virtual double rate() const { return 1.0; }
};

class SystemClock final : public Clock {
 public:
  Time now() const override;
  double monotonic() const override;
};

// Another clock run `rate` times faster from the moment it is made: the
// simulated laptop's fast clock, so that minutes of battery and timers pass
// in seconds.
class ScaledClock final : public Clock {
 public:
  ScaledClock(const Clock& base, double rate);
  Time now() const override;
  double monotonic() const override;
  double rate() const override { return rate_; }

 private:
  const Clock& base_;
  double rate_;
  Time startWall_;
  double startMono_;
};

// A clock that only moves when told to; wall and monotonic move together.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(Time start = 1'800'000'000.0) : now_(start) {}
  Time now() const override { return now_; }
  double monotonic() const override { return mono_; }
  void advance(double seconds) {
    now_ += seconds;
    mono_ += seconds;
  }
  // Moves only the wall clock, as a user changing the time would.
  void setWall(Time t) { now_ = t; }

 private:
  Time now_;
  double mono_ = 1000.0;
};

}  // namespace vigilo
