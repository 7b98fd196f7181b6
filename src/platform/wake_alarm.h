#pragma once

#include <optional>
#include <string>

#include "platform/result.h"

namespace vigilo {

// How this machine wakes itself from sleep some seconds ahead.
class WakeScheduler {
 public:
  virtual ~WakeScheduler() = default;
  // Nothing when it can, else a sentence saying why not.
  virtual std::optional<std::string> unavailable() = 0;
  // How it wakes the machine, for `vigilo doctor` ("through the RTC wake
  // alarm").
  virtual std::string how() const = 0;
  // Replaces any earlier request with one `seconds` from now.
  virtual Result wakeIn(int seconds) = 0;
  virtual Result cancel() = 0;
};

// A machine that can't wake itself: every request says so.
class NoWakeAlarm final : public WakeScheduler {
 public:
  explicit NoWakeAlarm(std::string why) : why_(std::move(why)) {}
  std::optional<std::string> unavailable() override { return why_; }
  std::string how() const override { return "not at all"; }
  Result wakeIn(int) override { return Result::fail(why_); }
  Result cancel() override { return Result::ok(); }

 private:
  std::string why_;
};

}  // namespace vigilo
