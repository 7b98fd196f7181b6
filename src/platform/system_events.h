#pragma once

#include <functional>

namespace vigilo {

enum class SystemEvent {
  WillSleep,
  DidWake,
  ThermalStateChanged,
  PowerSourceChanged,
};

// The system's sleep, wake, thermal-state and power-source notifications,
// delivered on the main thread.
class SystemEvents {
 public:
  SystemEvents() = default;
  SystemEvents(const SystemEvents&) = delete;
  SystemEvents& operator=(const SystemEvents&) = delete;
  virtual ~SystemEvents() = default;

  // Replaces the one subscriber; an empty function unsubscribes.
  virtual void subscribe(std::function<void(SystemEvent)> handler) = 0;
};

}  // namespace vigilo
