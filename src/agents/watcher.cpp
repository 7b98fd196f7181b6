#include "agents/watcher.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <unordered_map>

#include "agents/catalogue.h"
#include "power/energy_sampler.h"
#include "platform/files.h"

namespace vigilo {
namespace {

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](unsigned char x, unsigned char y) {
           return std::tolower(x) == std::tolower(y);
         });
}

// The executable name of a process; a login shell's "-zsh" counts as "zsh".
std::string_view executableName(const ProcessInfo& p) {
  if (!p.path.empty()) return lastComponent(p.path);
  if (p.args.empty()) return {};
  std::string_view a = lastComponent(p.args.front());
  if (!a.empty() && a.front() == '-') a.remove_prefix(1);
  return a;
}

bool isShell(std::string_view name) {
  static constexpr std::string_view kShells[] = {"sh",  "bash", "zsh", "dash", "fish", "ksh",
                                                 "mksh", "tcsh", "csh", "nu",   "pwsh"};
  return std::find(std::begin(kShells), std::end(kShells), name) != std::end(kShells);
}

Time toSeconds(std::uint64_t micros) { return static_cast<double>(micros) / 1e6; }

std::string rootKey(const ProcessInfo& p) { return std::to_string(p.pid) + ":" + std::to_string(p.startMicros); }

// A hash of what an exec changes: the executable and the arguments.
std::size_t programOf(const ProcessInfo& p) {
  const std::hash<std::string_view> hash;
  std::size_t h = hash(p.path);
  for (const std::string& a : p.args) h = h * 1099511628211ULL ^ hash(a);
  return h;
}

}  // namespace

// What the steps of one sample share: the list and its table, and what the
// pass has found so far.
struct AgentWatcher::Pass {
  Pass(const std::vector<ProcessInfo>& list, const Table& table, Time now) : list(list), table(table), now(now) {}

  const std::vector<ProcessInfo>& list;
  const Table& table;
  Time now;
  double monotonic = 0;
  // The previous sample's time: a process started since did all its work
  // within the interval.
  double previousMicros = 0;
  std::vector<std::string> firstCwd;  // per group, of its first root
  // The folders in which Claude Code keeps the transcripts of its live
  // sessions, and those sessions' own ids.
  std::set<std::string> projectFolders;
  std::set<std::string> liveIds;
  std::vector<std::optional<std::vector<std::string>>> transcripts;  // per kind, read once
  std::vector<Energy> energy;
  std::map<std::string, RootState> roots;
  std::vector<AgentSession> sessions;
  std::vector<std::int32_t> protectedPids;
  std::vector<int> seenIn;       // the group that last visited a process
  std::vector<char> belowShell;  // within the current tree
  std::vector<int> tree;         // the current group's, parents before children
};

// What one tree used since the previous sample.
struct AgentWatcher::TreeUse {
  int instances = 0;  // processes of the group's kind
  std::uint64_t nanojoules = 0;
  std::uint64_t cpuMicros = 0;
  std::optional<std::uint64_t> toolStart;  // the earliest running tool
};

AgentWatcher::AgentWatcher(Processes& processes, Registry& registry, std::string home, const Clock& clock,
                           BundleLookup bundles)
    : processes_(processes),
      registry_(registry),
      clock_(clock),
      bundles_(std::move(bundles)),
      transcripts_(std::move(home)) {
  setKinds({}, {});
}

void AgentWatcher::setKinds(const std::vector<WatchedApp>& watchedApps, const std::vector<AgentKind>& extraKinds) {
  // The settings rarely change: a tick with the same ones builds nothing.
  if (!kinds_.empty() && extraKinds == extraKinds_ && watchedApps == watched_) return;
  std::vector<AgentKind> kinds = builtInAgents();
  std::vector<AgentKind> custom;
  bool claudeApp = false;
  for (const AgentKind& k : extraKinds) {
    if (k.id == claudeAppKind().id) {
      claudeApp = true;
    } else {
      custom.push_back(k);
      kinds.push_back(k);
    }
  }
  const std::size_t agents = kinds.size();
  for (const WatchedApp& app : watchedApps) kinds.push_back(kindFor(app));
  std::optional<std::size_t> claudeIndex;
  if (claudeApp) {
    claudeIndex = kinds.size();
    kinds.push_back(claudeAppKind());
  }
  extraKinds_ = extraKinds;
  customKinds_ = std::move(custom);
  if (kinds == kinds_ && watchedApps == watched_) return;
  kinds_ = std::move(kinds);
  watched_ = watchedApps;
  agentKinds_ = agents;
  claudeApp_ = claudeIndex;
  classified_.clear();  // what a process is depends on the kinds
  table_.reset();
}

const BundleMeta& AgentWatcher::bundleMeta(std::string_view bundle) {
  const std::string key(bundle);
  auto it = bundleMeta_.find(key);
  if (it == bundleMeta_.end()) it = bundleMeta_.emplace(key, bundles_ ? bundles_(key) : BundleMeta{}).first;
  return it->second;
}

bool AgentWatcher::watchedAppMatches(const WatchedApp& app, const ProcessInfo& p,
                                     const std::optional<std::string_view>& bundle, const BundleMeta& meta) const {
  std::string_view want = app.name;
  while (want.size() > 1 && want.back() == '/') want.remove_suffix(1);
  if (want.empty()) return false;
  const std::string_view name = executableName(p);
  if (want.front() == '/') {
    // A path: the bundle the process lives in, or the executable itself.
    if (want.size() > 4 && equalsIgnoreCase(want.substr(want.size() - 4), ".app")) {
      return p.path.size() > want.size() && p.path.compare(0, want.size(), want) == 0 && p.path[want.size()] == '/';
    }
    return p.path == want;
  }
  if (equalsIgnoreCase(name, want)) return true;
  if (!bundle) return false;
  const std::string_view folder = lastComponent(*bundle);  // "Foo.app"
  return equalsIgnoreCase(folder, want) || equalsIgnoreCase(folder.substr(0, folder.size() - 4), want) ||
         (meta.bundleID && equalsIgnoreCase(*meta.bundleID, want)) ||
         (meta.displayName && equalsIgnoreCase(*meta.displayName, want));
}

int AgentWatcher::classify(const ProcessInfo& p) {
  if (p.path.empty() && p.args.empty()) return -1;
  if (auto kind = matchKind(p.path.empty() ? std::string(executableName(p)) : p.path, p.args, customKinds_)) {
    for (std::size_t i = 0; i < agentKinds_; ++i)
      if (kinds_[i].id == kind->id) return static_cast<int>(i);
  }
  const auto bundle = outermostBundle(p.path);
  static const BundleMeta kNone;
  const BundleMeta& meta = bundle ? bundleMeta(*bundle) : kNone;
  for (std::size_t i = 0; i < watched_.size(); ++i) {
    if (watchedAppMatches(watched_[i], p, bundle, meta)) return static_cast<int>(agentKinds_ + i);
  }
  if (claudeApp_ && bundle) {
    // Where the bundle can't tell its id (no Info.plist to read), its folder
    // name stands in.
    const bool isClaude = meta.bundleID ? *meta.bundleID == kClaudeAppBundle : lastComponent(*bundle) == "Claude.app";
    if (isClaude) return static_cast<int>(*claudeApp_);
  }
  return -1;
}

void AgentWatcher::sample(const std::vector<WatchedApp>& watchedApps, bool requestsCount,
                          const std::vector<AgentKind>& extraKinds, Time now) {
  sample(processes_.listing(ProcessDetail::Identity), watchedApps, requestsCount, extraKinds, now);
}

AgentWatcher::Table AgentWatcher::tableOf(const std::vector<ProcessInfo>& list,
                                          const std::vector<Identity>& identities) {
  Table t;
  t.of = identities;
  classifyAll(list, identities, t.kindOf);
  linkFamilies(list, t);
  findGroups(list, t);
  return t;
}

void AgentWatcher::classifyAll(const std::vector<ProcessInfo>& list, const std::vector<Identity>& identities,
                               std::vector<int>& kindOf) {
  kindOf.assign(list.size(), -1);
  ++generation_;
  for (std::size_t i = 0; i < list.size(); ++i) {
    const ProcessInfo& p = list[i];
    Classified& c = classified_[p.pid];
    // exec() keeps pid and start but changes the path or the arguments (an
    // interpreter that runs another script): classify again then.
    if (c.generation == 0 || c.start != p.startMicros || c.program != identities[i].program) {
      c.start = p.startMicros;
      c.program = identities[i].program;
      c.kind = classify(p);
    }
    c.generation = generation_;
    kindOf[i] = c.kind;
  }
  std::erase_if(classified_, [this](const auto& entry) { return entry.second.generation != generation_; });
}

void AgentWatcher::linkFamilies(const std::vector<ProcessInfo>& list, Table& t) {
  const int n = static_cast<int>(list.size());
  std::vector<std::pair<std::int32_t, int>> indexOf;  // by pid
  indexOf.reserve(list.size());
  for (int i = 0; i < n; ++i) indexOf.emplace_back(list[i].pid, i);
  if (!std::is_sorted(indexOf.begin(), indexOf.end())) std::sort(indexOf.begin(), indexOf.end());
  auto find = [&indexOf](std::int32_t pid) {
    auto it = std::lower_bound(indexOf.begin(), indexOf.end(), std::pair(pid, -1));
    return it != indexOf.end() && it->first == pid ? it->second : -1;
  };
  std::vector<int>& parent = t.parent;
  std::vector<int>& childAt = t.childAt;
  parent.assign(list.size(), -1);
  childAt.assign(list.size() + 1, 0);
  for (int i = 0; i < n; ++i) {
    const int at = find(list[i].ppid);
    if (at >= 0 && at != i) {
      parent[i] = at;
      ++childAt[at + 1];
    }
  }
  for (int i = 0; i < n; ++i) childAt[i + 1] += childAt[i];
  t.children.assign(static_cast<std::size_t>(childAt[n]), 0);
  std::vector<int> fill(childAt.begin(), childAt.end() - 1);
  for (int i = 0; i < n; ++i)
    if (parent[i] >= 0) t.children[fill[parent[i]]++] = i;
}

void AgentWatcher::findGroups(const std::vector<ProcessInfo>& list, Table& t) const {
  // Roots: processes of a kind with no ancestor of the same kind, or whose
  // nearest such ancestor is above a command shell: an agent started from
  // another's shell tool ("claude -p" from Claude Code's Bash) is a session
  // of its own, while helpers an agent starts itself belong to it. The walk
  // is bounded so that a damaged parent chain cannot loop.
  const int n = static_cast<int>(list.size());
  const std::vector<int>& kindOf = t.kindOf;
  const std::vector<int>& parent = t.parent;
  std::vector<Group>& groups = t.groups;
  t.root.assign(list.size(), 0);
  std::vector<int> appGroup(kinds_.size(), -1);
  for (int i = 0; i < n; ++i) {
    const int k = kindOf[i];
    if (k < 0) continue;
    const bool agent = static_cast<std::size_t>(k) < agentKinds_;
    bool root = true;
    bool shellBetween = false;
    int steps = 0;
    for (int a = parent[i]; a >= 0 && a != i && steps < n; a = parent[a], ++steps) {
      if (kindOf[a] == k) {
        root = agent && shellBetween;
        break;
      }
      shellBetween = shellBetween || isShell(executableName(list[a]));
    }
    if (!root) continue;
    t.root[i] = 1;
    if (agent) {
      groups.push_back(Group{k, {i}});
    } else if (appGroup[k] < 0) {
      appGroup[k] = static_cast<int>(groups.size());
      groups.push_back(Group{k, {i}});
    } else {
      groups[appGroup[k]].roots.push_back(i);
    }
  }
  auto earlier = [&](int a, int b) {
    return std::pair(list[a].startMicros, list[a].pid) < std::pair(list[b].startMicros, list[b].pid);
  };
  for (Group& g : groups) std::sort(g.roots.begin(), g.roots.end(), earlier);
  std::stable_sort(groups.begin(), groups.end(), [&](const Group& a, const Group& b) {
    return a.kind != b.kind ? a.kind < b.kind : earlier(a.roots.front(), b.roots.front());
  });
}

void AgentWatcher::sample(const std::vector<ProcessInfo>& list, const std::vector<WatchedApp>& watchedApps,
                          bool requestsCount, const std::vector<AgentKind>& extraKinds, Time now) {
  setKinds(watchedApps, extraKinds);
  std::vector<Identity> identities;
  identities.reserve(list.size());
  for (const ProcessInfo& p : list) identities.push_back(Identity{p.pid, p.ppid, p.startMicros, programOf(p)});
  if (!table_ || table_->of != identities) table_ = tableOf(list, identities);

  Pass pass(list, *table_, now);
  readWorkingFolders(pass);
  pass.monotonic = clock_.monotonic();
  pass.previousMicros = lastSample_ ? *lastSample_ * 1e6 : 0.0;
  pass.transcripts.resize(kinds_.size());
  pass.seenIn.assign(list.size(), -1);
  pass.belowShell.assign(list.size(), 0);
  for (std::size_t g = 0; g < pass.table.groups.size(); ++g) {
    collectTree(pass, g);
    addSession(pass, g, measureTree(pass, pass.table.groups[g]));
  }
  addRequests(pass, requestsCount);
  keep(pass);
}

void AgentWatcher::readWorkingFolders(Pass& pass) {
  // A listing of identities leaves the working folder out: it is read for
  // the first roots alone.
  const std::vector<Group>& groups = pass.table.groups;
  pass.firstCwd.resize(groups.size());
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const ProcessInfo& first = pass.list[groups[g].roots.front()];
    std::string& cwd = pass.firstCwd[g];
    cwd = first.cwd;
    if (cwd.empty()) {
      if (auto info = processes_.info(first.pid); info && info->startMicros == first.startMicros) cwd = info->cwd;
    }
  }
  for (std::size_t g = 0; g < groups.size(); ++g) {
    if (kinds_[static_cast<std::size_t>(groups[g].kind)].id != kClaudeCodeKind) continue;
    const ProcessInfo& first = pass.list[groups[g].roots.front()];
    if (!pass.firstCwd[g].empty()) pass.projectFolders.insert(claudeProjectFolder(pass.firstCwd[g]));
    if (auto id = sessionIds_.find({first.pid, first.startMicros}); id != sessionIds_.end()) {
      pass.liveIds.insert(id->second);
    }
  }
}

void AgentWatcher::collectTree(Pass& pass, std::size_t g) const {
  const Table& table = pass.table;
  const Group& group = table.groups[g];
  const int mark = static_cast<int>(g);
  std::vector<int>& tree = pass.tree;
  tree.clear();
  for (int r : group.roots) {
    if (pass.seenIn[r] == mark) continue;
    pass.seenIn[r] = mark;
    pass.belowShell[r] = 0;
    tree.push_back(r);
  }
  for (std::size_t t = 0; t < tree.size(); ++t) {
    const int p = tree[t];
    for (int c = table.childAt[p]; c < table.childAt[p + 1]; ++c) {
      const int child = table.children[c];
      if (pass.seenIn[child] == mark) continue;
      // A nested agent of the kind is a session of its own, with its tree.
      if (table.root[child] && table.kindOf[child] == group.kind) continue;
      pass.seenIn[child] = mark;
      pass.belowShell[child] = pass.belowShell[p] || isShell(executableName(pass.list[child]));
      tree.push_back(child);
    }
  }
}

AgentWatcher::TreeUse AgentWatcher::measureTree(Pass& pass, const Group& group) {
  const bool isAgent = static_cast<std::size_t>(group.kind) < agentKinds_;
  TreeUse use;
  for (int p : pass.tree) {
    const ProcessInfo& info = pass.list[p];
    if (pass.table.kindOf[p] == group.kind) ++use.instances;
    pass.protectedPids.push_back(info.pid);
    countEnergy(pass, info, use);
    if (!isAgent || std::find(group.roots.begin(), group.roots.end(), p) != group.roots.end()) continue;
    if (runsTool(pass, group, p) && (!use.toolStart || info.startMicros < *use.toolStart)) {
      use.toolStart = info.startMicros;
    }
  }
  return use;
}

void AgentWatcher::countEnergy(Pass& pass, const ProcessInfo& info, TreeUse& use) {
  // A listing of identities carries no counters: they are read for the
  // sessions' trees alone. Where they can't be read (the process ended
  // since, or the list came from elsewhere) the list's own stand.
  const auto counters = processes_.counters(info.pid, info.startMicros);
  const std::uint64_t used = counters ? counters->energyNanojoules : info.energyNanojoules;
  const std::uint64_t cpu = counters ? counters->cpuMicros : info.cpuMicros;
  const auto last = std::lower_bound(lastEnergy_.begin(), lastEnergy_.end(), info.pid,
                                     [](const Energy& e, std::int32_t pid) { return e.pid < pid; });
  if (last != lastEnergy_.end() && last->pid == info.pid && last->start == info.startMicros) {
    if (used > last->nanojoules) use.nanojoules += used - last->nanojoules;
    if (cpu > last->cpuMicros) use.cpuMicros += cpu - last->cpuMicros;
  } else if (lastSample_ && static_cast<double>(info.startMicros) >= pass.previousMicros) {
    use.nanojoules += used;
    use.cpuMicros += cpu;
  }
  pass.energy.push_back(Energy{info.pid, info.startMicros, used, cpu});
}

bool AgentWatcher::runsTool(const Pass& pass, const Group& group, int p) const {
  if (pass.belowShell[p] != 0) return true;
  const std::vector<int>& kindOf = pass.table.kindOf;
  const int parent = pass.table.parent[p];
  if (kindOf[p] >= 0 || parent < 0 || kindOf[parent] != group.kind) return false;
  const ProcessInfo& info = pass.list[p];
  const double after = toSeconds(info.startMicros) - toSeconds(pass.list[parent].startMicros);
  return !isInterpreter(executableName(info)) && after > kHelperStartWindow;
}

bool AgentWatcher::wroteTranscript(Pass& pass, std::size_t g) {
  const Group& group = pass.table.groups[g];
  const AgentKind& kind = kinds_[static_cast<std::size_t>(group.kind)];
  auto& changed = pass.transcripts[static_cast<std::size_t>(group.kind)];
  if (!changed) changed = transcripts_.changed(kind, pass.monotonic);
  if (changed->empty()) return false;
  const ProcessInfo& first = pass.list[group.roots.front()];
  const auto id = sessionIds_.find({first.pid, first.startMicros});
  return transcriptIsOurs(kind, *changed, pass.firstCwd[g], id != sessionIds_.end() ? id->second : "", pass.liveIds,
                          pass.projectFolders);
}

void AgentWatcher::addSession(Pass& pass, std::size_t g, const TreeUse& use) {
  const Group& group = pass.table.groups[g];
  const AgentKind& kind = kinds_[static_cast<std::size_t>(group.kind)];
  const bool isAgent = static_cast<std::size_t>(group.kind) < agentKinds_;
  const ProcessInfo& first = pass.list[group.roots.front()];
  const std::string key = isAgent ? rootKey(first) : kind.id;
  RootState state;
  if (auto it = roots_.find(key); it != roots_.end()) state = it->second;
  std::optional<double> watts;
  bool busyCpu = false;
  if (state.readAt && pass.now > *state.readAt) {
    const double seconds = pass.now - *state.readAt;
    const double cores = static_cast<double>(use.cpuMicros) / 1e6 / seconds;
    busyCpu = cores * kWattsPerBusyCore >= kind.idleWatts && use.cpuMicros > 0;
    watts = use.nanojoules > 0 ? static_cast<double>(use.nanojoules) / 1e9 / seconds : cores * kWattsPerBusyCore;
  }
  state.readAt = pass.now;
  // Looked at whatever the draw says, so that the transcripts' newest time
  // moves on with every sample.
  const bool wrote = wroteTranscript(pass, g);
  if ((watts && *watts >= kind.idleWatts) || busyCpu || wrote) state.lastActive = pass.now;
  pass.roots[key] = state;

  AgentSession s;
  s.kind = kind;
  const bool firstOfKind = pass.sessions.empty() || pass.sessions.back().kind.id != kind.id;
  s.id = isAgent && !firstOfKind ? kind.id + "#" + std::to_string(first.pid) : kind.id;
  for (int r : group.roots) s.pids.push_back(pass.list[r].pid);
  s.rootStart = first.startMicros;
  if (!pass.firstCwd[g].empty()) {
    std::string_view cwd = pass.firstCwd[g];
    while (cwd.size() > 1 && cwd.back() == '/') cwd.remove_suffix(1);
    if (cwd != "/") s.project = std::string(lastComponent(cwd));
  }
  s.lastActive = state.lastActive;
  s.watts = watts.value_or(0.0);
  s.instances = use.instances;
  s.toolRunning = use.toolStart.has_value();
  if (use.toolStart) s.toolSince = toSeconds(*use.toolStart);
  pass.sessions.push_back(std::move(s));
}

void AgentWatcher::addRequests(Pass& pass, bool requestsCount) {
  // Noted whenever they are held, sessions when they count.
  const Time now = pass.now;
  std::vector<std::pair<SleepBlocker, std::string>> requests = requestsHeld();
  std::map<std::string, Time> firstSeen;
  for (const auto& [blocker, what] : requests) {
    auto it = requestFirstSeen_.find(blocker.name);
    firstSeen.emplace(blocker.name, it != requestFirstSeen_.end() ? it->second : now);
  }
  requestFirstSeen_ = std::move(firstSeen);
  blockers_.clear();
  for (const auto& [blocker, what] : requests) blockers_.push_back(blocker);
  if (!requestsCount) return;
  std::vector<AgentSession>& sessions = pass.sessions;
  for (const auto& [blocker, what] : requests) {
    if (now - requestFirstSeen_[blocker.name] > kRequestLimitSeconds) continue;
    const std::string id = "request:" + blocker.name;
    auto same = std::find_if(sessions.begin(), sessions.end(), [&](const AgentSession& s) { return s.id == id; });
    if (same == sessions.end()) {
      AgentSession s;
      s.id = id;
      s.kind.id = id;
      s.kind.name = blocker.name;
      s.kind.idleWatts = 0;
      s.detail = what;
      s.lastActive = now;
      sessions.push_back(std::move(s));
      same = sessions.end() - 1;
    }
    same->pids.push_back(blocker.pid);
    ++same->instances;
    pass.protectedPids.push_back(blocker.pid);
  }
}

void AgentWatcher::keep(Pass& pass) {
  std::vector<std::int32_t>& protectedPids = pass.protectedPids;
  std::sort(protectedPids.begin(), protectedPids.end());
  protectedPids.erase(std::unique(protectedPids.begin(), protectedPids.end()), protectedPids.end());
  std::sort(pass.energy.begin(), pass.energy.end(), [](const Energy& a, const Energy& b) { return a.pid < b.pid; });
  std::set<std::string> bundles;
  for (const ProcessInfo& p : pass.list) {
    if (!std::binary_search(protectedPids.begin(), protectedPids.end(), p.pid)) continue;
    if (auto bundle = outermostBundle(p.path)) {
      bundles.emplace(*bundle);
      if (const BundleMeta& meta = bundleMeta(*bundle); meta.bundleID) bundles.insert(*meta.bundleID);
    }
  }

  lastEnergy_ = std::move(pass.energy);
  roots_ = std::move(pass.roots);
  sessions_ = std::move(pass.sessions);
  protectedPids_ = std::set<std::int32_t>(protectedPids.begin(), protectedPids.end());
  protectedBundles_ = std::move(bundles);
  lastSample_ = pass.now;
}

std::vector<std::pair<SleepBlocker, std::string>> AgentWatcher::requestsHeld() {
  std::vector<std::pair<SleepBlocker, std::string>> out;
  std::unordered_map<std::int32_t, std::optional<ProcessInfo>> infos;
  for (const PowerAssertion& a : registry_.powerAssertions()) {
    if (!isBlockingAssertionType(a.type)) continue;
    // An assertion taken on behalf of another process is that process's.
    const bool onBehalf = a.onBehalfOf && *a.onBehalfOf > 0;
    const std::int32_t pid = onBehalf ? *a.onBehalfOf : a.pid;
    auto info = infos.find(pid);
    if (info == infos.end()) info = infos.emplace(pid, processes_.info(pid)).first;
    const std::string path = info->second ? info->second->path : std::string();
    std::string name = onBehalf && !path.empty() ? std::string(lastComponent(path)) : a.processName;
    if (name.empty()) name = std::string(lastComponent(path));
    if (name.empty() || isIgnoredRequester(name) || !vigilo::isUserFacing(name, path)) continue;

    auto same = std::find_if(out.begin(), out.end(), [pid](const auto& r) { return r.first.pid == pid; });
    if (same == out.end()) {
      SleepBlocker b;
      b.pid = pid;
      b.name = name;
      b.sinceUnknown = true;
      out.emplace_back(std::move(b), a.name);
      same = out.end() - 1;
    }
    SleepBlocker& b = same->first;
    if (a.since && std::isfinite(*a.since)) {
      if (!b.since || *a.since < *b.since) b.since = *a.since;
      b.sinceUnknown = false;
    }
    if (same->second.empty()) same->second = a.name;
  }
  return out;
}

std::vector<SleepBlocker> AgentWatcher::sleepRequests() {
  std::vector<SleepBlocker> out;
  for (auto& [blocker, what] : requestsHeld()) out.push_back(std::move(blocker));
  return out;
}

std::optional<AgentKind> AgentWatcher::match(std::int32_t pid, const std::string& path) {
  // argv[0] tells a versioned or linked install, and an interpreter's
  // arguments its script; a process whose arguments can't be read is judged
  // by its path alone.
  auto info = processes_.identity(pid);
  return matchKind(path, info ? info->args : std::vector<std::string>{}, customKinds_);
}

std::optional<std::string> AgentWatcher::workingDirectoryName(std::int32_t pid) {
  auto info = processes_.info(pid);
  if (!info || info->cwd.empty()) return std::nullopt;
  std::string_view cwd = info->cwd;
  while (cwd.size() > 1 && cwd.back() == '/') cwd.remove_suffix(1);
  if (cwd == "/") return std::nullopt;
  return std::string(lastComponent(cwd));
}

bool AgentWatcher::isUserFacing(std::int32_t pid, const std::string& name) {
  auto info = processes_.info(pid);
  return vigilo::isUserFacing(name, info ? info->path : std::string());
}

bool AgentWatcher::transcriptsChanged(const AgentKind& kind) { return !changedTranscripts(kind).empty(); }

std::vector<std::string> AgentWatcher::changedTranscripts(const AgentKind& kind) {
  return transcripts_.changed(kind, clock_.monotonic());
}

}  // namespace vigilo
