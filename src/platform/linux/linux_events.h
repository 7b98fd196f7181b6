#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "platform/linux/linux_registry.h"
#include "platform/linux/logind.h"
#include "platform/run_loop.h"
#include "platform/system_events.h"

namespace vigilo {

// Linux sends no thermal or power-source notification that a user process
// can rely on, so both are polled; sleep and wake come from logind's
// PrepareForSleep where the bus is there. Its references must outlive it;
// it runs on the loop's thread.
class LinuxEvents final : public SystemEvents {
 public:
  LinuxEvents(RunLoop& loop, LinuxRegistry& registry, Logind& logind)
      : loop_(loop), registry_(registry), logind_(logind) {}
  ~LinuxEvents() override { stop(); }

  void subscribe(std::function<void(SystemEvent)> handler) override;

 private:
  void stop();
  void poll();
  void deliver(SystemEvent e);

  RunLoop& loop_;
  LinuxRegistry& registry_;
  Logind& logind_;
  std::function<void(SystemEvent)> handler_;
  std::optional<TimerId> timer_;
  int thermal_ = 0;
  std::optional<bool> adapter_;
  std::uint64_t ownThermalRead_ = 0;
  std::uint64_t ownSuppliesRead_ = 0;
};

}  // namespace vigilo
