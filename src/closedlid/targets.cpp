#include "closedlid/targets.h"

#include <algorithm>
#include <array>

#include "agents/catalogue.h"
#include "platform/bundles.h"

namespace vigilo {
namespace {

constexpr std::array<std::string_view, 11> kMediaAndCalls = {
    "com.apple.Music",    "com.spotify.client",  "com.apple.podcasts", "com.apple.TV",
    "org.videolan.vlc",   "com.colliderli.iina", "us.zoom.xos",        "com.microsoft.teams2",
    "com.apple.FaceTime", "com.tinyspeck.slackmacgap.huddle", "com.apple.VoiceMemos"};

constexpr std::array<std::string_view, 14> kAgentServiceBundles = {
    "com.docker.docker",          "dev.kdrag0n.MacVirt",  "com.electron.ollama",    "ai.elementlabs.lmstudio",
    "com.postgresapp.Postgres2",  "com.google.Chrome",    "com.apple.Safari",       "company.thebrowser.Browser",
    "org.mozilla.firefox",        "com.brave.Browser",    "com.microsoft.edgemac",  "com.apple.dt.Xcode",
    "com.utmapp.UTM",             "com.parallels.desktop.console"};

constexpr std::array<std::string_view, 8> kAgentServiceNames = {"Docker", "OrbStack", "Ollama",  "LM Studio",
                                                                "Postgres", "Redis", "UTM", "Parallels"};

constexpr std::array<std::string_view, 4> kTestNames = {"xcodebuild", "xctest", "simctl", "XCTestAgent"};
constexpr std::array<std::string_view, 4> kPreviewNames = {"PreviewShellMac", "previewsd", "XCPreviewAgent",
                                                           "PreviewShell"};
constexpr std::array<std::string_view, 25> kBuildTools = {
    "swift-frontend", "swiftc", "swift-build", "swift-driver", "clang", "clang++", "cc",    "c++",  "ld",
    "ld64",           "lld",    "rustc",       "cargo",        "go",    "javac",   "kotlinc", "xcodebuild",
    "XCBBuildService", "make",  "gmake",       "ninja",        "cmake", "esbuild", "gcc",   "g++"};

constexpr std::string_view kXcode = "com.apple.dt.Xcode";

template <std::size_t N>
bool among(const std::array<std::string_view, N>& list, std::string_view s) {
  return std::find(list.begin(), list.end(), s) != list.end();
}

bool startsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }
bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

std::string nameOf(const ProcessInfo& p) {
  std::string_view path = p.path.empty() && !p.args.empty() ? std::string_view(p.args.front()) : p.path;
  const auto slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

// The stricter change wins when two classes name one process.
void put(std::map<std::int32_t, ClosedTarget>& out, ClosedTarget t) {
  auto [it, added] = out.emplace(t.pid, t);
  if (!added && t.rule == AppRule::Pause) it->second.rule = AppRule::Pause;
}

ClosedTarget targetOf(const ProcessInfo& p, AppRule rule, const AppBundle* bundle) {
  ClosedTarget t;
  t.pid = p.pid;
  t.start = p.startMicros;
  t.path = p.path;
  t.name = bundle != nullptr ? bundle->name : nameOf(p);
  if (bundle != nullptr) t.bundleId = bundle->bundleId;
  t.rule = rule;
  return t;
}

}  // namespace

namespace AppClasses {
bool isMediaOrCall(std::string_view id) { return among(kMediaAndCalls, id); }
bool isAgentServiceBundle(std::string_view id) { return among(kAgentServiceBundles, id); }
bool isAgentService(std::string_view name) {
  return std::any_of(kAgentServiceNames.begin(), kAgentServiceNames.end(),
                     [&](std::string_view n) { return startsWith(name, n); });
}
bool isSimulatorProcess(std::string_view name, std::string_view path) {
  // "launchd_sim" is only how booted devices are counted: it is not paused.
  return name == "CoreSimulatorService" || startsWith(name, "com.apple.CoreSimulator.") ||
         name == "SimulatorTrampoline" || endsWith(path, "/Simulator.app/Contents/MacOS/Simulator");
}
bool isTestProcess(std::string_view name) { return among(kTestNames, name) || endsWith(name, "-Runner"); }
bool isPreviewProcess(std::string_view name) { return among(kPreviewNames, name); }
bool isBuildTool(std::string_view name) { return among(kBuildTools, name); }
bool isSystemApp(std::string_view path) {
  if (path.find("/Cryptexes/App/System/Applications/") != std::string_view::npos) return false;
  if (startsWith(path, "/System/Applications/")) return false;
  return startsWith(path, "/System/") || startsWith(path, "/Library/Apple/");
}
}  // namespace AppClasses

AppRule ruleFor(const std::optional<std::string>& bundleId, Preset preset,
                const std::map<std::string, AppRule>& rules) {
  if (bundleId) {
    if (auto it = rules.find(*bundleId); it != rules.end()) return it->second;
  }
  switch (preset) {
    case Preset::Balanced:
      return AppRule::Slow;
    case Preset::FullSpeed:
      return AppRule::Leave;
    case Preset::MaxBattery:
      if (!bundleId) return AppRule::Slow;
      if (AppClasses::isMediaOrCall(*bundleId)) return AppRule::Leave;
      if (AppClasses::isAgentServiceBundle(*bundleId)) return AppRule::Slow;
      return AppRule::Pause;
  }
  return AppRule::Leave;
}

namespace {

// The trees of pid-bound holds and Vigilo itself: what the person named,
// kept whole whatever the class.
std::set<std::int32_t> holdTrees(const TargetInputs& in) {
  std::map<std::int32_t, std::vector<std::int32_t>> children;
  for (const ProcessInfo& p : in.processes) children[p.ppid].push_back(p.pid);
  std::set<std::int32_t> out;
  std::vector<std::int32_t> todo(in.holdPids.begin(), in.holdPids.end());
  while (!todo.empty()) {
    const std::int32_t pid = todo.back();
    todo.pop_back();
    if (!out.insert(pid).second) continue;
    if (auto it = children.find(pid); it != children.end()) todo.insert(todo.end(), it->second.begin(), it->second.end());
  }
  if (in.self > 0) out.insert(in.self);
  return out;
}

}  // namespace

std::set<std::int32_t> protectedPidSet(const TargetInputs& in) {
  std::set<std::int32_t> out = holdTrees(in);
  out.insert(in.agentPids.begin(), in.agentPids.end());
  // An agent also depends on what it runs inside: the terminal or editor
  // whose pty it writes to would block it once paused.
  std::map<std::int32_t, std::int32_t> parent;
  for (const ProcessInfo& p : in.processes) parent[p.pid] = p.ppid;
  for (std::int32_t pid : in.agentPids) {
    for (int depth = 0; depth < 64; ++depth) {
      auto it = parent.find(pid);
      if (it == parent.end() || it->second <= 1) break;
      pid = it->second;
      out.insert(pid);
    }
  }
  return out;
}

std::map<std::int32_t, std::string> audioHolders(const TargetInputs& in) {
  std::map<std::int32_t, std::string> names;
  for (const ProcessInfo& p : in.processes) names[p.pid] = nameOf(p);
  std::map<std::int32_t, std::string> out;
  auto add = [&](std::int32_t pid) {
    auto it = names.find(pid);
    if (it == names.end() || it->second == "coreaudiod" || pid == in.self) return;
    out[pid] = it->second;
  };
  for (const PowerAssertion& a : in.assertions) {
    if (std::find(a.resources.begin(), a.resources.end(), "audio-out") != a.resources.end()) add(a.pid);
    if (a.processName == "coreaudiod" && a.name.find(".context.preventuseridlesleep") != std::string::npos) {
      // coreaudiod takes the assertion for a client and names it "pid <n>".
      const auto at = a.name.find("pid ");
      if (at != std::string::npos) {
        const long pid = std::strtol(a.name.c_str() + at + 4, nullptr, 10);
        if (pid > 0 && pid <= INT32_MAX) add(static_cast<std::int32_t>(pid));
      }
    }
  }
  return out;
}

BackgroundWork scanBackgroundWork(const TargetInputs& in) {
  BackgroundWork w;
  for (const ProcessInfo& p : in.processes) {
    const std::string name = nameOf(p);
    if (name == "launchd_sim") {
      ++w.simulators;
      w.simulatorDevices.push_back(p.pid);
    }
    if (AppClasses::isPreviewProcess(name)) ++w.previews;
    if (AppClasses::isTestProcess(name)) w.testsRunning = true;
    if (in.agentPids.count(p.pid) && p.path.find("/Xcode.app/") != std::string::npos) w.agentUsesXcode = true;
  }
  if (in.agentBundles.count(std::string(kXcode))) w.agentUsesXcode = true;
  for (const auto& [pid, name] : audioHolders(in)) w.audio.push_back(pid);
  return w;
}

std::map<std::int32_t, ClosedTarget> closedTargets(const TargetInputs& in, const std::set<std::string>& skip) {
  std::map<std::int32_t, ClosedTarget> out;
  std::set<std::int32_t> kept = protectedPidSet(in);
  std::set<std::string> keptBundles = in.agentBundles;
  // The app an agent runs inside is kept whole (an editor's other helpers
  // serve its terminal too).
  for (std::int32_t pid : kept) {
    if (in.agentPids.count(pid) || std::find(in.holdPids.begin(), in.holdPids.end(), pid) != in.holdPids.end()) continue;
    if (auto b = in.bundles.find(pid); b != in.bundles.end()) keptBundles.insert(b->second.path);
  }
  const BackgroundWork work = scanBackgroundWork(in);
  if (work.agentUsesXcode) {
    keptBundles.insert(std::string(kXcode));
    for (const ProcessInfo& p : in.processes) {
      const std::string name = nameOf(p);
      if (AppClasses::isSimulatorProcess(name, p.path) || AppClasses::isPreviewProcess(name)) kept.insert(p.pid);
    }
  }
  auto touchable = [&](const ProcessInfo& p) { return p.pid >= 2 && p.pid != in.self && !kept.count(p.pid); };

  if (!skip.count(std::string(kSkipApps))) {
    for (const ProcessInfo& p : in.processes) {
      auto b = in.bundles.find(p.pid);
      if (b == in.bundles.end() || !touchable(p)) continue;
      const AppBundle& app = b->second;
      if (AppClasses::isSystemApp(app.path) || AppClasses::isSystemApp(p.path)) continue;
      if (keptBundles.count(app.path) || (app.bundleId && keptBundles.count(*app.bundleId))) continue;
      if (app.bundleId == kClaudeAppBundle) continue;  // the Claude app is never a target
      AppRule rule = ruleFor(app.bundleId, in.preset, in.rules);
      if (rule == AppRule::Leave) continue;
      if (rule == AppRule::Pause && AppClasses::isAgentService(nameOf(p))) rule = AppRule::Slow;
      put(out, targetOf(p, rule, &app));
    }
  }
  if (in.slowBuilds && !skip.count(std::string(kSkipBuilds))) {
    // The agents' own builds too: the setting trades longer builds for a
    // lower draw, and an agent's tree is where builds run.
    const std::set<std::int32_t> named = holdTrees(in);
    for (const ProcessInfo& p : in.processes) {
      if (p.pid >= 2 && !named.count(p.pid) && AppClasses::isBuildTool(nameOf(p))) {
        put(out, targetOf(p, AppRule::Slow, nullptr));
      }
    }
  }
  if (in.pauseSimulators && !work.testsRunning && !work.agentUsesXcode && !skip.count(std::string(kSkipSimulators))) {
    for (const ProcessInfo& p : in.processes) {
      const std::string name = nameOf(p);
      if (!touchable(p)) continue;
      if (AppClasses::isSimulatorProcess(name, p.path) || AppClasses::isPreviewProcess(name)) {
        put(out, targetOf(p, AppRule::Pause, nullptr));
      }
    }
  }
  if (in.pauseBackgroundAudio && !skip.count(std::string(kSkipAudio))) {
    for (std::int32_t pid : work.audio) {
      auto p = std::find_if(in.processes.begin(), in.processes.end(), [&](const ProcessInfo& q) { return q.pid == pid; });
      if (p == in.processes.end() || !touchable(*p) || isSystemLocation(p->path)) continue;
      auto b = in.bundles.find(pid);
      const AppBundle* app = b == in.bundles.end() ? nullptr : &b->second;
      if (app && app->bundleId && AppClasses::isMediaOrCall(*app->bundleId)) continue;
      put(out, targetOf(*p, AppRule::Pause, app));
    }
  }
  return out;
}

}  // namespace vigilo
