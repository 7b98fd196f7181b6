#include "closedlid/app_lookup.h"

#include <algorithm>
#include <cctype>
#include <set>

#include "platform/bundles.h"

namespace vigilo {
namespace {

std::string lower(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

std::string trimSlash(std::string s) {
  while (s.size() > 1 && s.back() == '/') s.pop_back();
  return s;
}

}  // namespace

std::vector<AppBundle> runningApps(Platform& platform) {
  std::vector<AppBundle> out;
  std::set<std::string> seen;
  for (const ProcessInfo& p : platform.processes().listing(ProcessDetail::Identity)) {
    auto bundle = outermostBundle(p.path);
    if (!bundle) {
      auto app = platform.processes().appOf(p);
      if (app && seen.emplace(app->path).second) out.push_back(*app);
      continue;
    }
    if (!seen.emplace(*bundle).second) continue;
    const std::string path(*bundle);
    if (auto app = platform.processes().appBundle(path)) {
      out.push_back(*app);
      continue;
    }
    BundleMeta meta = readBundleMeta(path);
    const auto slash = path.rfind('/');
    std::string name = path.substr(slash + 1, path.size() - slash - 5);
    out.push_back(AppBundle{path, meta.bundleID, meta.displayName.value_or(name)});
  }
  return out;
}

std::optional<AppBundle> findApp(Platform& platform, const std::string& query) {
  const std::string q = lower(trimSlash(query));
  if (q.empty()) return std::nullopt;
  std::vector<AppBundle> apps = runningApps(platform);
  for (AppBundle& a : platform.processes().installedApps()) apps.push_back(std::move(a));
  // An exact id or path first, then a name: "Code" must not shadow an id.
  for (const AppBundle& a : apps) {
    if ((a.bundleId && lower(*a.bundleId) == q) || lower(a.path) == q) return a;
  }
  for (const AppBundle& a : apps) {
    if (lower(a.name) == q || lower(a.name) + ".app" == q) return a;
  }
  return std::nullopt;
}

}  // namespace vigilo
