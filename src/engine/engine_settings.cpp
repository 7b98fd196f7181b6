#include "engine/engine.h"

#include <nlohmann/json.hpp>

#include "engine/log.h"
#include "engine/records.h"

// The engine's settings: read at launch, written on change, followed when
// the file is edited by hand, and held to the safety baseline.

namespace vigilo {

void Engine::loadConfigAtLaunch() {
  std::optional<std::string> brokenCopy;
  if (!options_.preview) brokenCopy = setAsideIfBroken(files_, now());
  auto bytes = files_.read(kConfigFile);
  std::optional<Config> read = bytes ? Config::decode(*bytes) : std::nullopt;
  config_ = read.value_or(Config{});
  if (bytes && !read) {
    // The defaults stand in for a file the person never meant to loosen:
    // they take the safety values last set in the app, so that no alert
    // blames an edit that was never made.
    if (auto baseline = Safety::load(files_)) {
      config_.heatGuard = baseline->heatGuard;
      config_.batteryFloor = baseline->batteryFloor;
      config_.onlyOnPower = baseline->onlyOnPower;
    }
  }
  if (brokenCopy) {
    tell("Settings file couldn't be read", "Vigilo is using its defaults. Your file was kept as " + *brokenCopy);
    writeConfig();
  } else if (bytes && !read && !options_.preview) {
    // Unreadable and not copied aside (too large to copy, say): the file
    // stays as it is and the defaults are used without overwriting it.
    tell("Settings file couldn't be read", "Vigilo is using its defaults and left your file as it is.");
  }
  configMTime_ = files_.modified(kConfigFile);
}

void Engine::writeConfig() {
  if (options_.preview) return;
  // A failed write is ignored: the record in memory stays valid and the next
  // change writes again.
  if (files_.writeDurably(kConfigFile, config_.encoded())) {
    configMTime_ = files_.modified(kConfigFile);
    configStamp_ = configMTime_;
  }
}

// ---------------------------------------------------------------- settings

void Engine::apply(const Config& config, bool save) {
  const Config before = config_;
  config_ = config;
  if (save) writeConfig();
  if (!options_.preview) Safety::of(config_).save(files_);
  settingsChanged(before);
}

void Engine::settingsChanged(const Config& before) {
  // A mode chosen again, however it was set, is the person back at the
  // controls: a snooze ends.
  if (config_.mode != before.mode) snoozed_ = false;
  const bool wasHolding = holding_;
  evaluate();
  // A session that goes on takes a new preset or rule at once; one that
  // just began or ended has done its own work.
  if (config_ != before && wasHolding && holding_ && lidClosed_ && closedLid_) closedLid_->reapply(*this, false);
}

void Engine::reloadConfigFromDisk(bool whole) {
  auto bytes = files_.read(kConfigFile);
  if (!bytes) return;
  auto j = nlohmann::json::parse(*bytes, nullptr, false);
  if (!j.is_object()) return;
  const Config before = config_;
  config_ = config_.mergedWith(j, whole);
  enforceSafety();
  settingsChanged(before);
}

void Engine::reloadConfigIfEdited() {
  auto mtime = files_.modified(kConfigFile);
  if (!mtime) return;
  if (configMTime_ && *mtime <= *configMTime_) return;
  reloadConfigFromDisk();
  configMTime_ = mtime;
}

void Engine::enforceSafety() {
  if (options_.preview) return;
  auto baseline = Safety::load(files_);
  if (!baseline) {
    Safety::of(config_).save(files_);
    return;
  }
  SafetyVerdict verdict = checkSafety(config_, *baseline);
  if (!verdict.phrases.empty()) {
    config_ = verdict.config;
    writeConfig();
    tell("Settings file change ignored", verdict.message());
  }
  if (verdict.baselineChanged) verdict.baseline.save(files_);
}

}  // namespace vigilo
