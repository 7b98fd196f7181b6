#include "engine/engine.h"
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <cstdlib>
#include <langinfo.h>
#include <locale.h>
#include "engine/beats.h"
#include "engine/log.h"
#include "engine/records.h"

// What holds, modes and the person's own acts ask of the engine.

namespace vigilo {

Hold Engine::addHold(const std::string& reason, std::optional<double> minutes, std::optional<std::int32_t> pid,
                     std::optional<std::int32_t> owner) {
  Hold h;
  h.id = newUuid();
  h.reason = reason;
  h.created = now();
  if (minutes) h.until = h.created + *minutes * 60.0;
  h.owner = owner;
  if (pid) {
    if (auto info = platform_.processes().info(*pid)) {
      h.pid = pid;
      h.pidStart = info->startMicros;
    }
  }
  holds_.push_back(h);
  saveRuntime();
  evaluate();
  announce(minutes ? "Staying awake for " + formatMinutes(wholeMinutesUp(*minutes * 60.0, 1)) : "Staying awake");
  return h;
}

int Engine::releaseHold(const std::optional<std::string>& id) {
  const std::size_t before = holds_.size();
  if (id) {
    std::erase_if(holds_, [&](const Hold& h) { return h.id == *id; });
  } else {
    holds_.clear();
  }
  const int removed = static_cast<int>(before - holds_.size());
  saveRuntime();
  evaluate();
  return removed;
}

int Engine::releaseHolds(std::int32_t ownedBy, const std::optional<std::string>& id) {
  const std::size_t before = holds_.size();
  std::erase_if(holds_, [&](const Hold& h) { return h.owner == ownedBy && (!id || h.id == *id); });
  const int removed = static_cast<int>(before - holds_.size());
  saveRuntime();
  evaluate();
  return removed;
}

void Engine::stayAwakeFor(std::optional<int> minutes) {
  Config c = config_;
  if (c.mode != Mode::On) c.modeBeforeAlways = c.mode;
  c.mode = Mode::On;
  if (minutes) {
    c.alwaysUntil = now() + *minutes * 60.0;
  } else {
    c.alwaysUntil.reset();
  }
  apply(c, true);
}

void Engine::stayAwakeUntil(Time until) {
  Config c = config_;
  if (c.mode != Mode::On) c.modeBeforeAlways = c.mode;
  c.mode = Mode::On;
  c.alwaysUntil = until;
  apply(c, true);
}

void Engine::setMode(Mode mode) {
  Config c = config_;
  if (mode == Mode::On && c.mode != Mode::On) c.modeBeforeAlways = c.mode;
  if (mode != Mode::On) {
    c.alwaysUntil.reset();
    c.modeBeforeAlways.reset();
  }
  c.mode = mode;
  apply(c, true);
}

void Engine::sleepNow() {
  if (config_.mode == Mode::On) {
    Config c = config_;
    c.mode = c.modeBeforeAlways.value_or(Mode::Auto);
    c.alwaysUntil.reset();
    c.modeBeforeAlways.reset();
    config_ = c;
    writeConfig();
    if (!options_.preview) Safety::of(config_).save(files_);
  }
  snoozed_ = true;
  saveRuntime();
  evaluate();
  // A hold adopted from a crashed run ends now too, unless something still
  // keeps the machine awake.
  if (adoptedHoldUntil_ && !holding_) {
    adoptedHoldUntil_ = now();
    settleAdoptedHold();
  }
  if (!lidClosed_ && !holding_ && !options_.preview) {
    Result r = platform_.power().sleepNow();
    if (!r) {
      logLine("Vigilo: sleeping now failed: " + r.message());
      // No lid to open and no wake to come: a snooze would never end.
      if (!platform_.registry().lidClosed()) {
        snoozed_ = false;
        evaluate();
      }
    }
  }
}

void Engine::overrideFloor(bool on) {
  floorOverride_ = on;
  if (!on) floorLatched_ = false;
  evaluate();
}

void Engine::setSnoozed(bool on) {
  snoozed_ = on;
  evaluate();
}

void Engine::lidChanged(bool closed) {
  if (closed == lidClosed_) return;
  lidClosed_ = closed;
  if (closed) {
    if (holding_ && closedLid_) closedLid_->enter(*this);
  } else {
    // Opening the lid ends a snooze: agents keep the machine awake again.
    snoozed_ = false;
    if (closedLid_) closedLid_->leave(*this);
  }
  evaluate();
}

}  // namespace vigilo
