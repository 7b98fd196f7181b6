#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "engine/config.h"
#include "platform/processes.h"
#include "platform/registry.h"

namespace vigilo {

// The fixed classes of processes the lid-closed savings know about.
namespace AppClasses {
// Music, video and call apps: never paused under max_battery, never touched
// by the background-audio rule.
bool isMediaOrCall(std::string_view bundleId);
// Services agents use (containers, local models, databases, browsers,
// Xcode, VMs): slowed, never paused, under max_battery.
bool isAgentServiceBundle(std::string_view bundleId);
// The same by process name, for processes without a bundle id.
bool isAgentService(std::string_view name);
bool isSimulatorProcess(std::string_view name, std::string_view path);
bool isTestProcess(std::string_view name);
bool isPreviewProcess(std::string_view name);
bool isBuildTool(std::string_view name);
// Where the operating system keeps its own apps; never a target.
bool isSystemApp(std::string_view path);
}  // namespace AppClasses

// One process to change while the lid is shut.
struct ClosedTarget {
  std::int32_t pid = 0;
  std::uint64_t start = 0;  // start time in microseconds, against a reused pid
  std::string path;
  std::optional<std::string> bundleId;
  std::string name;
  AppRule rule = AppRule::Slow;  // Slow or Pause
  bool operator==(const ClosedTarget&) const = default;
};

// The classes a call can leave out, one at a time (the power test measures
// each saving on its own).
inline constexpr std::string_view kSkipApps = "apps";
inline constexpr std::string_view kSkipSimulators = "simulators";
inline constexpr std::string_view kSkipAudio = "audio";
inline constexpr std::string_view kSkipBuilds = "builds";

// The background-work scan.
struct BackgroundWork {
  int simulators = 0;  // booted simulator devices
  int previews = 0;
  std::vector<std::int32_t> audio;  // processes holding the speakers
  bool testsRunning = false;
  bool agentUsesXcode = false;
  std::vector<std::int32_t> simulatorDevices;
};

// The rule one app follows: its own rule when it has one, else the preset's.
AppRule ruleFor(const std::optional<std::string>& bundleId, Preset preset,
                const std::map<std::string, AppRule>& rules);

// Everything selection reads, gathered once so that selection itself is a
// pure function.
struct TargetInputs {
  std::vector<ProcessInfo> processes;
  // The app bundle of each process that lies in one, by pid.
  std::map<std::int32_t, AppBundle> bundles;
  std::vector<PowerAssertion> assertions;
  // Processes and bundles (paths or ids) the agents depend on.
  std::set<std::int32_t> agentPids;
  std::set<std::string> agentBundles;
  // Pids that pid-bound holds name; their process trees are protected.
  std::vector<std::int32_t> holdPids;
  std::int32_t self = 0;
  Preset preset = Preset::Balanced;
  std::map<std::string, AppRule> rules;
  bool pauseSimulators = true;
  bool pauseBackgroundAudio = true;
  bool slowBuilds = false;
};

// The processes nothing may touch: the trees of pid-bound holds, what the
// agents use, and Vigilo itself.
std::set<std::int32_t> protectedPidSet(const TargetInputs& in);
// Who holds the speakers open: an assertion that uses "audio-out", or one of
// coreaudiod's naming "pid <n>". coreaudiod itself and Vigilo are left out.
std::map<std::int32_t, std::string> audioHolders(const TargetInputs& in);
BackgroundWork scanBackgroundWork(const TargetInputs& in);
// The selection: which process gets which change. No side effects.
std::map<std::int32_t, ClosedTarget> closedTargets(const TargetInputs& in, const std::set<std::string>& skip);

}  // namespace vigilo
