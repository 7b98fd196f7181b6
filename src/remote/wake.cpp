#include "remote/wake.h"

#include <fcntl.h>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>

#include "commands/command_center.h"

namespace vigilo {
namespace {

using json = nlohmann::json;

// Two beats are 10 s apart; much more means the machine slept between them.
constexpr double kWakeSleptGap = 40;
constexpr double kReachedWithin = 60;
constexpr const char* kBadTime = "time: HH:MM (24-hour), off, or Unix seconds";
constexpr const char* kNeedsSetup =
    "Vigilo needs its one-time setup first. Open Vigilo from the menu bar and click Continue.";

json okReply(Engine& engine, json fields = json::object()) {
  json reply = {{"ok", true}, {"status", engine.statusLine()}};
  for (auto& [k, v] : fields.items()) reply[k] = v;
  return reply;
}
json failReply(const std::string& error) { return {{"ok", false}, {"error", error}}; }

// "HH:MM" as the next time the local clock shows it.
std::optional<Time> clockTime(const std::string& text, Time now) {
  if (text.size() != 5 || text[2] != ':' || !std::isdigit(static_cast<unsigned char>(text[0])) ||
      !std::isdigit(static_cast<unsigned char>(text[1])) || !std::isdigit(static_cast<unsigned char>(text[3])) ||
      !std::isdigit(static_cast<unsigned char>(text[4]))) {
    return std::nullopt;
  }
  const int hour = (text[0] - '0') * 10 + (text[1] - '0');
  const int minute = (text[3] - '0') * 10 + (text[4] - '0');
  if (hour > 23 || minute > 59) return std::nullopt;
  return nextLocalTime(now, hour, minute);
}

}  // namespace

std::optional<int> WakePlan::nextStep(std::optional<double> untilWake, int checkInMinutes) {
  double step = 0;
  if (checkInMinutes < 1) {
    if (!untilWake) return std::nullopt;
    step = std::max(*untilWake, 60.0);
  } else {
    step = checkInMinutes * 60.0;
    if (untilWake) step = std::min(step, std::max(*untilWake, 60.0));
  }
  step += 30;
  for (int s : {3600, 1800, 900, 300}) {
    if (s <= step) return s;
  }
  return 60;
}

Result ScheduledWakes::arm(Engine& engine, int seconds) {
  if (auto problem = scheduler_.unavailable()) return Result::fail(*problem);
  // The record comes first, so a crash leaves a trace of the armed alarm.
  if (!engine.files().writeDurably(kWakeAlarmFile,
                                   std::to_string(static_cast<long long>(engine.now() + seconds)) + "\n")) {
    return Result::fail("Couldn't record the wake alarm in " + engine.files().dir());
  }
  return scheduler_.wakeIn(seconds);
}

void ScheduledWakes::scheduleWake(Engine& engine) {
  const Config& c = engine.config();
  plannedWake_ = c.wakeAt;
  plannedCheckIn_ = c.checkInMinutes;
  if (engine.preview()) return;
  const Time now = engine.now();
  std::optional<double> untilWake;
  if (c.wakeAt) untilWake = *c.wakeAt - now;
  const std::optional<int> step = WakePlan::nextStep(untilWake, c.checkInMinutes);
  if (!step) {
    if (armedAt_ || engine.files().exists(kWakeAlarmFile)) {
      if (scheduler_.cancel()) engine.files().remove(kWakeAlarmFile);
      armedAt_.reset();
    }
    return;
  }
  if (Result r = arm(engine, *step); !r) {
    // Nothing else changes: the machine sleeps until something else wakes it.
    if (!warned_ && say_) say_("warning: " + r.message());
    warned_ = true;
    armedAt_.reset();
    return;
  }
  warned_ = false;
  armedAt_ = now + *step;
}

void ScheduledWakes::endCheckIn(Engine& engine) {
  checkInUntil_.reset();
  if (checkInHold_) engine.releaseHold(*checkInHold_);
  checkInHold_.reset();
  scheduleWake(engine);
  engine.evaluate();
}

void ScheduledWakes::checkScheduledWake(Engine& engine) {
  const Time now = engine.now();
  const bool woke = lastBeat_ && now - *lastBeat_ > kWakeSleptGap;
  lastBeat_ = now;
  const Config& c = engine.config();

  if (c.wakeAt && *c.wakeAt - now <= kReachedWithin) {
    const int minutes = c.wakeForMinutes;
    Config changed = c;
    changed.wakeAt.reset();
    engine.apply(changed, true);
    if (checkInHold_) {
      engine.releaseHold(*checkInHold_);
      checkInHold_.reset();
      checkInUntil_.reset();
    }
    engine.addHold(std::string(kScheduledWakeReason), minutes, std::nullopt, std::nullopt);
    if (say_) say_("Scheduled wake: staying awake for " + formatMinutes(minutes));
    scheduleWake(engine);
    engine.evaluate();
    return;
  }
  if (woke && !checkInHold_ && engine.lidClosed() && c.checkInMinutes > 0) {
    Hold h = engine.addHold(std::string(kCheckInReason), kCheckInSeconds / 60.0, std::nullopt, std::nullopt);
    checkInHold_ = h.id;
    checkInUntil_ = now + kCheckInSeconds;
    engine.evaluate();
    return;
  }
  if (checkInUntil_ && now >= *checkInUntil_) {
    endCheckIn(engine);
    return;
  }
  // The plan changed (a setting, a wake set or cleared), or the armed wake
  // is about to pass while the machine may still fall asleep.
  const bool planChanged = c.wakeAt != plannedWake_ || c.checkInMinutes != plannedCheckIn_;
  const bool due = armedAt_ && *armedAt_ - now < kReachedWithin;
  if (planChanged || due || (!armedAt_ && (c.wakeAt || c.checkInMinutes > 0) && !warned_)) scheduleWake(engine);
}

json ScheduledWakes::wake(Engine& engine, const json& args) {
  if (!engine.setupReady()) {
    // A machine whose sleep switch gives its own reason says that instead of
    // pointing to the Mac's setup window.
    const MachineWords& words = engine.platform().words();
    return failReply(words.sleepRefusedLead.empty() ? std::string(kNeedsSetup)
                                                     : words.sleepRefusedLead + engine.setupProblem());
  }
  const double minutes = numberArg(args, "minutes", 1440).value_or(engine.config().wakeForMinutes);
  std::string reason = textArg(args, "reason").value_or("");
  if (reason.empty()) reason = kPhoneWakeReason;
  const bool onlyCheckIn = checkInHold_ && engine.holdReason() == kCheckInReason;
  if (engine.holding() && !onlyCheckIn) return okReply(engine, {{"skipped", "already awake"}});
  if (checkInHold_) {
    engine.releaseHold(*checkInHold_);
    checkInHold_.reset();
    checkInUntil_.reset();
  }
  Hold h = engine.addHold(reason, std::max(1.0, minutes), std::nullopt, std::nullopt);
  engine.evaluate();
  return okReply(engine,
                 {{"hold", {{"id", h.id}, {"reason", h.reason}, {"end", h.until ? json(*h.until) : json(nullptr)}}}});
}

json ScheduledWakes::wakeAt(Engine& engine, const json& args) {
  std::optional<Time> at;
  const Time now = engine.now();
  bool cancel = false;
  auto it = args.find("time");
  if (it != args.end() && it->is_number()) {
    if (std::isfinite(it->get<double>())) at = std::floor(it->get<double>());
  } else if (auto text = textArg(args, "time")) {
    if (*text == "off" || *text == "none" || *text == "cancel") {
      cancel = true;
    } else if (!text->empty() && text->size() <= 12 && text->find_first_not_of("0123456789") == std::string::npos) {
      at = std::stod(*text);
    } else {
      at = clockTime(*text, now);
    }
  }
  if (!cancel && !at) return failReply(kBadTime);
  Config c = engine.config();
  if (cancel) {
    c.wakeAt.reset();
    engine.apply(c, true);
    scheduleWake(engine);
    return okReply(engine);
  }
  if (*at <= now) return failReply("That time has passed: give one still to come.");
  if (auto problem = scheduler_.unavailable()) return failReply(*problem);
  if (auto minutes = numberArg(args, "minutes", 1440))
    c.wakeForMinutes = std::clamp(static_cast<int>(*minutes), 5, 1440);
  c.wakeAt = *at;
  engine.apply(c, true);
  scheduleWake(engine);
  return okReply(engine, {{"wakeAt", *at}});
}

}  // namespace vigilo
