#pragma once

#include <functional>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "platform/result.h"
#include "platform/wake_alarm.h"

namespace vigilo {

inline constexpr std::string_view kScheduledWakeReason = "Scheduled wake";
inline constexpr std::string_view kCheckInReason = "Checking for phone commands";
inline constexpr std::string_view kPhoneWakeReason = "Woken from your phone";
// The record of an armed wake alarm: written before arming, removed after
// the alarm is cleared.
inline constexpr std::string_view kWakeAlarmFile = "wake-alarm";
inline constexpr double kCheckInSeconds = 25;

namespace WakePlan {
// Seconds to the next wake while asleep, or nothing: at most an hour, and
// shrinking steps towards a scheduled wake. `untilWake` is the seconds to
// the scheduled wake, when one is set.
std::optional<int> nextStep(std::optional<double> untilWake, int checkInMinutes);
}  // namespace WakePlan

// Scheduled wakes and phone check-ins, on the engine's 10-second beat. A
// gap between two beats far longer than the beat means the machine slept
// and has just woken.
class ScheduledWakes final : public SlowJobs {
 public:
  ScheduledWakes(WakeScheduler& scheduler, std::function<void(const std::string&)> say)
      : scheduler_(scheduler), say_(std::move(say)) {}

  void checkScheduledWake(Engine& engine) override;
  std::optional<Time> checkInUntil() const override { return checkInUntil_; }

  // The `wake` and `wake_at` requests; each gives the whole reply.
  nlohmann::json wake(Engine& engine, const nlohmann::json& args);
  nlohmann::json wakeAt(Engine& engine, const nlohmann::json& args);

 private:
  void scheduleWake(Engine& engine);
  void endCheckIn(Engine& engine);
  Result arm(Engine& engine, int seconds);

  WakeScheduler& scheduler_;
  std::function<void(const std::string&)> say_;
  std::optional<Time> lastBeat_;
  std::optional<Time> checkInUntil_;
  std::optional<std::string> checkInHold_;
  // The plan the armed wake was made for, and when it goes off.
  std::optional<Time> armedAt_;
  std::optional<Time> plannedWake_;
  int plannedCheckIn_ = -1;
  bool warned_ = false;
};

}  // namespace vigilo
