#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/clock.h"

namespace vigilo {

class Engine;

// The engine's seams: each subsystem that grows around the keep-awake engine
// fills one of these. The engine works with none of them (it then keeps the
// machine awake for holds and mode Always only), so each arrives on its own.
// All calls come on the main thread, from the places of the tick named here.

// Agent detection: who is working, and the line that says so.
class WorkSource {
 public:
  virtual ~WorkSource() = default;
  // Each tick and at launch: sample agents and watched apps, fold in events.
  virtual void sample(Engine& engine) = 0;
  // The activity line that keeps the machine awake in mode "auto", or nothing.
  virtual std::optional<std::string> workReason(Engine& engine) = 0;
  // The name of the last agent that worked, for "<name> finished".
  virtual std::optional<std::string> lastWorker(Engine& engine) = 0;
};

// What is done while the lid is shut and the machine is held awake.
class ClosedLidSavings {
 public:
  virtual ~ClosedLidSavings() = default;
  // The lid closed with the sleep switch on, or the switch went on with the
  // lid closed.
  virtual void enter(Engine& engine) = 0;
  // The lid opened or the switch went off: count the savings and put every
  // closed-lid change back.
  virtual void leave(Engine& engine) = 0;
  // Each tick while closed and held: keep the targets applied; `strictest`
  // when the heat calls for the tightest savings.
  virtual void reapply(Engine& engine, bool strictest) = 0;
  // Each tick outside a session (the lid open, or shut with nothing
  // holding): put back apps still paused or slowed.
  virtual void restoreAppsIfOpen(Engine& engine) = 0;
  // At quit, after the session has ended: whatever is still measuring
  // stops, and every app still paused or slowed is put back.
  virtual void shutdown(Engine& engine) { (void)engine; }
};

// Power measurement: one sample per tick.
class PowerMeter {
 public:
  virtual ~PowerMeter() = default;
  virtual void sample(Engine& engine) = 0;
  // The whole machine's draw in watts, when known.
  virtual std::optional<double> systemWatts() const = 0;
  // Hours the battery lasts from its charge at the draw to expect: the
  // lid-closed estimate while the lid is shut, the present draw while open.
  // Nothing when that is not known.
  virtual std::optional<double> hoursLeft(const Engine& engine) const {
    (void)engine;
    return std::nullopt;
  }
};

// The person's alerts about agents: one when a busy agent stops, one when
// an agent starts waiting for them. Never called in preview-only mode.
class AgentAlerts {
 public:
  virtual ~AgentAlerts() = default;
  // `name` ("Agent" when unknown) worked `minutes`; `processGone` when it
  // exited; `state` is "finished", "went idle" or "is still waiting".
  virtual void finished(const std::string& name, int minutes, bool processGone, const std::string& state) = 0;
  virtual void needsYou(const std::string& name) = 0;
};

// Everything else that runs on the slow beats of the tick. Several
// subsystems plug in here (the safety net, "Approve everything", scheduled
// wakes), each overriding only the calls that are its own.
class SlowJobs {
 public:
  virtual ~SlowJobs() = default;
  // At launch, before recovery: write the watchdog script and its agent.
  virtual void refreshWatchdog(Engine& engine) { (void)engine; }
  // Every 150 ticks.
  virtual void checkWatchdog(Engine& engine) { (void)engine; }
  // Every 5 ticks.
  virtual void checkScheduledWake(Engine& engine) { (void)engine; }
  virtual void checkApprove(Engine& engine) { (void)engine; }
  // At quit: end "Approve everything" when no agent watches it any more.
  virtual void endApproveIfUnwatched(Engine& engine) { (void)engine; }
  // A phone check-in keeps the machine awake until this time.
  virtual std::optional<Time> checkInUntil() const { return std::nullopt; }
};

}  // namespace vigilo
