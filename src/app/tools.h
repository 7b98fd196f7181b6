#pragma once

#include <functional>
#include <string>

namespace vigilo {

// The commands that work on the machine itself, without the app: they
// compose the platform, the setup and the desktop, so they live beside the
// app. `has` tells whether a switch ("--yes") was given.
using SwitchTest = std::function<bool(const std::string&)>;

// With `json`, the same findings as {"ok", "checks": [{"name", "value",
// "details"}]}: each line "Name: value", with the indented lines under it.
int runDoctor(const std::string& folder, bool json = false);
int runRescue(const std::string& folder);
// Run by the watchdog script when the heartbeat went stale.
int runWatchdog(const std::string& folder);
int runSetup(const std::string& folder, const SwitchTest& has);

}  // namespace vigilo
