#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/wake_alarm.h"

namespace vigilo {

// The simulated laptop's wake timer: it keeps what it was asked, in order
// ("wake in 900", "cancel"), and `say`s each request.
class SimWakeScheduler final : public WakeScheduler {
 public:
  explicit SimWakeScheduler(std::function<void(const std::string&)> say = nullptr) : say_(std::move(say)) {}
  std::optional<std::string> unavailable() override { return refusal; }
  std::string how() const override { return "simulated"; }
  Result wakeIn(int seconds) override;
  Result cancel() override;
  std::vector<std::string> log;
  std::optional<std::string> refusal;

 private:
  std::function<void(const std::string&)> say_;
};

}  // namespace vigilo
