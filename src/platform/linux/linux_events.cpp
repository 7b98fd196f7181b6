#include "platform/linux/linux_events.h"

#include <utility>

namespace vigilo {
namespace {

// The power-source and thermal watch, as often as the engine's tick.
constexpr double kEventPollSeconds = 2.0;
// A reading someone else (the app's tick) made this recently serves the poll:
// the tick has acted on it already, and reads again within the period.
constexpr double kEventPollFresh = 2.5;

}  // namespace

void LinuxEvents::subscribe(std::function<void(SystemEvent)> handler) {
  handler_ = std::move(handler);
  if (!handler_) {
    stop();
    return;
  }
  if (!timer_) {
    thermal_ = registry_.thermalState();
    adapter_ = registry_.adapter();
    timer_ = loop_.every(kEventPollSeconds, 1.0, [this] { poll(); });
  }
  logind_.watchSleep([this](bool start) { deliver(start ? SystemEvent::WillSleep : SystemEvent::DidWake); });
}

void LinuxEvents::stop() {
  if (timer_) loop_.cancel(*timer_);
  timer_.reset();
  logind_.watchSleep(nullptr);
}

void LinuxEvents::poll() {
  logind_.dispatch();
  const int thermal = registry_.recentThermalState(kEventPollFresh, ownThermalRead_);
  if (thermal != thermal_) {
    thermal_ = thermal;
    deliver(SystemEvent::ThermalStateChanged);
  }
  const auto adapter = registry_.recentAdapter(kEventPollFresh, ownSuppliesRead_);
  if (adapter != adapter_) {
    adapter_ = adapter;
    deliver(SystemEvent::PowerSourceChanged);
  }
}

void LinuxEvents::deliver(SystemEvent e) {
  auto handler = handler_;  // it may unsubscribe itself
  if (handler) handler(e);
}

}  // namespace vigilo
