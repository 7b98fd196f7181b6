#include "engine/engine.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "engine/log.h"
#include "engine/records.h"

// Putting back what the records say was changed: at launch after a crash,
// for `vigilo rescue` and for the watchdog.

namespace vigilo {
namespace {

// How long a hold that a crashed run left is kept, so agents still working
// with the lid shut are not put to sleep in the gap.
constexpr double kAdoptGrace = 30.0;

}  // namespace

std::vector<std::string> Engine::putBackRecords() {
  std::vector<std::string> failed;
  // The app tells the person; rescue and the watchdog have only the log.
  const auto tellDamaged = [this](const std::string& message) {
    if (!notice_) logLine("Vigilo: " + message);
    tell("A record of Vigilo's was damaged", message);
  };
  journal_.undoLegacyFiles();
  const auto record = readRecord(files_, kTouchedFile);
  bool damaged = record.damaged;
  if (record.bytes) damaged = !nlohmann::json::parse(*record.bytes, nullptr, false).is_array();
  if (damaged) {
    // The list the watchdog reads still names the paused apps.
    const auto left = undoResumePids(files_, platform_.processes());
    for (const auto& line : left) failed.push_back("paused process " + line.substr(0, line.find('\t')));
    tellDamaged(setAsideDamaged(files_, kTouchedFile, "Vigilo's list of the apps it paused or slowed",
                                       left.empty() ? "any paused app still named in resume-pids was continued"
                                                    : "some paused apps couldn't be continued yet",
                                       now()));
    touched_.clear();
    if (left.empty()) files_.remove(kResumePidsFile);
  } else {
    touched_ = journal_.undo(journal_.load());
    journal_.save(touched_);
  }
  for (const Touched& t : touched_) {
    failed.push_back(std::string(t.paused ? "paused" : "slowed") + " process " + std::to_string(t.pid) + " (" +
                     t.path + ")");
  }

  PowerControl& power = platform_.power();
  if (const auto record = readRecord(files_, kPowerModeRestoreFile, 1024); record.bytes || record.damaged) {
    if (auto mode = record.bytes ? powerModeRecord(*record.bytes) : std::nullopt) {
      if (Result r = power.restorePowerMode(mode->first, mode->second)) {
        files_.remove(kPowerModeRestoreFile);
      } else {
        failed.push_back("the battery power mode (" + r.message() + ")");
      }
    } else {
      tellDamaged(setAsideDamaged(files_, kPowerModeRestoreFile, "Vigilo's record of the power mode to put back",
                                         "the power mode stays as it is now", now()));
    }
  }
  if (files_.exists(kTimeMachineRestoreFile)) {
    if (Result r = power.setAutomaticBackups(true)) {
      files_.remove(kTimeMachineRestoreFile);
    } else {
      failed.push_back("automatic backups (" + r.message() + ")");
    }
  }
  if (files_.exists(kDisplayOffFile)) {
    if (Result r = platform_.displays().setBuiltInEnabled(true)) {
      files_.remove(kDisplayOffFile);
    } else {
      failed.push_back("the built-in screen (" + r.message() + ")");
    }
  }
  if (const auto record = readRecord(files_, kBrightnessRestoreFile, 1024); record.bytes || record.damaged) {
    if (const auto level = record.bytes ? brightnessRecord(*record.bytes) : std::nullopt) {
      if (Result r = platform_.displays().setBrightness(*level)) {
        files_.remove(kBrightnessRestoreFile);
      } else {
        failed.push_back("the screen brightness (" + r.message() + ")");
      }
    } else {
      tellDamaged(setAsideDamaged(files_, kBrightnessRestoreFile, "Vigilo's record of the screen brightness to put back",
                                         "the brightness stays as it is now", now()));
    }
  }
  return failed;
}

void Engine::recoverFromCrash() {
  if (options_.preview) return;
  putBackRecords();

  // A "sleep-off-before" whose sleep someone has since switched back on
  // records nothing any more.
  if (platform_.registry().sleepDisabled() == std::optional<bool>(false)) files_.remove(kSleepOffBeforeMarker);
  noteOwner();
  auto disabled = platform_.registry().sleepDisabled();
  if (disabled && *disabled && files_.exists(kHoldMarker)) {
    // A previous run switched sleep off and did not switch it back on. Keep
    // it off for a short grace, so agents still working with the lid shut
    // are not put to sleep in the gap.
    adoptedHoldUntil_ = now() + kAdoptGrace;
    return;
  }
  files_.remove(kHoldMarker);
}

std::vector<std::string> Engine::outstandingChanges() const {
  std::vector<std::string> out;
  auto disabled = platform_.registry().sleepDisabled();
  if (files_.exists(kHoldMarker) && disabled.value_or(true) && !sleepNotOurs()) out.emplace_back(kHoldMarker);
  for (std::string_view f : {kTouchedFile, kResumePidsFile, kPowerModeRestoreFile, kTimeMachineRestoreFile,
                             kBrightnessRestoreFile, kDisplayOffFile}) {
    if (files_.exists(f)) out.emplace_back(f);
  }
  return out;
}

std::vector<std::string> Engine::rescue() {
  std::vector<std::string> failed = putBackRecords();
  // Sleep that was off before Vigilo switched it stays the person's;
  // releasing the switch knows that from "sleep-off-before".
  if (files_.exists(kHoldMarker) && !releaseSleepSwitch()) failed.push_back("sleep is still switched off");
  if (outstandingChanges().empty()) files_.remove(kAliveFile);
  return failed;
}

}  // namespace vigilo
