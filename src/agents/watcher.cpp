#include "agents/watcher.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <memory>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unordered_map>

#include "agents/catalogue.h"

namespace vigilo {
namespace {

// How many of the newest transcripts are looked at again between searches.
constexpr std::size_t kRecentTranscripts = 8;

std::string_view lastComponent(std::string_view path) {
  const auto slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

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

Time mtimeOf(const struct stat& st) {
  return static_cast<double>(st.st_mtim.tv_sec) + static_cast<double>(st.st_mtim.tv_nsec) / 1e9;
}

// Keeps the few newest files, newest first.
void noteRecent(std::vector<std::pair<Time, std::string>>& recent, Time t, const std::string& path) {
  if (recent.size() == kRecentTranscripts && t <= recent.back().first) return;
  auto at = std::find_if(recent.begin(), recent.end(), [t](const auto& r) { return t > r.first; });
  recent.emplace(at, t, path);
  if (recent.size() > kRecentTranscripts) recent.pop_back();
}

// A hash of what an exec changes: the executable and the arguments.
std::size_t programOf(const ProcessInfo& p) {
  const std::hash<std::string_view> hash;
  std::size_t h = hash(p.path);
  for (const std::string& a : p.args) h = h * 1099511628211ULL ^ hash(a);
  return h;
}

// Closes a directory stream on every path out.
struct DirCloser {
  void operator()(DIR* d) const {
    if (d != nullptr) ::closedir(d);
  }
};

// The entry names of a folder, at most `limit`.
std::vector<std::string> folderNames(const std::string& path, int limit) {
  std::vector<std::string> names;
  std::unique_ptr<DIR, DirCloser> d(::opendir(path.c_str()));
  if (!d) return names;
  while (static_cast<int>(names.size()) < limit) {
    const dirent* e = ::readdir(d.get());
    if (e == nullptr) break;
    const std::string_view name = e->d_name;
    if (name == "." || name == "..") continue;
    // Links are not followed, so a link loop cannot trap the search.
    if (e->d_type != DT_REG && e->d_type != DT_DIR && e->d_type != DT_UNKNOWN) continue;
    names.emplace_back(name);
  }
  return names;
}

// The one agent whose transcript folders name the working folder.
constexpr std::string_view kClaudeCode = "claude-code";

// Whether one of the `changed` transcripts belongs to a Claude Code session
// whose own id is `id` (may be empty) working in `cwd`. A transcript is named
// after its session: one named after a live session's id is that session's.
// Otherwise `projectFolders`, the transcript folders of all live sessions,
// decide: a transcript in one of them belongs to the sessions working there,
// one elsewhere to every session. Other kinds' transcripts belong to all of
// their sessions.
bool transcriptIsOurs(const AgentKind& kind, const std::vector<std::string>& changed, const std::string& cwd,
                      const std::string& id, const std::set<std::string>& liveIds,
                      const std::set<std::string>& projectFolders) {
  if (kind.id != kClaudeCode) return true;
  const std::string ours = cwd.empty() ? std::string() : claudeProjectFolder(cwd);
  for (const std::string& path : changed) {
    std::string_view name = lastComponent(path);
    if (const auto dot = name.rfind('.'); dot != std::string_view::npos) name = name.substr(0, dot);
    if (liveIds.count(std::string(name))) {
      if (name == id) return true;
      continue;
    }
    std::string_view folder = path;
    const auto slash = folder.rfind('/');
    folder = slash == std::string_view::npos ? std::string_view() : lastComponent(folder.substr(0, slash));
    if (folder == ours || !projectFolders.count(std::string(folder))) return true;
  }
  return false;
}

}  // namespace

std::string claudeProjectFolder(std::string_view cwd) {
  std::string out;
  out.reserve(cwd.size());
  for (std::size_t i = 0; i < cwd.size(); ++i) {
    const auto c = static_cast<unsigned char>(cwd[i]);
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')) {
      out += static_cast<char>(c);
    } else if (c < 0x80 || (c & 0xC0) == 0xC0) {
      // One "-" per character, as the agent (JavaScript) counts them: a
      // UTF-8 sequence is one character, and one beyond U+FFFF two.
      out += (c & 0xF8) == 0xF0 ? "--" : "-";
    }
  }
  return out;
}

AgentWatcher::AgentWatcher(Processes& processes, Registry& registry, std::string home, const Clock& clock,
                           BundleLookup bundles)
    : processes_(processes), registry_(registry), home_(std::move(home)), clock_(clock), bundles_(std::move(bundles)) {
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
  const int n = static_cast<int>(list.size());
  Table t;
  t.of = identities;
  // Index by pid, kinds (cached per process), parents and children.
  std::vector<std::pair<std::int32_t, int>> indexOf;  // by pid
  indexOf.reserve(list.size());
  for (int i = 0; i < n; ++i) indexOf.emplace_back(list[i].pid, i);
  if (!std::is_sorted(indexOf.begin(), indexOf.end())) std::sort(indexOf.begin(), indexOf.end());
  auto find = [&indexOf](std::int32_t pid) {
    auto it = std::lower_bound(indexOf.begin(), indexOf.end(), std::pair(pid, -1));
    return it != indexOf.end() && it->first == pid ? it->second : -1;
  };
  std::vector<int>& kindOf = t.kindOf;
  kindOf.assign(list.size(), -1);
  ++generation_;
  for (int i = 0; i < n; ++i) {
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
  {
    std::vector<int> fill(childAt.begin(), childAt.end() - 1);
    for (int i = 0; i < n; ++i)
      if (parent[i] >= 0) t.children[fill[parent[i]]++] = i;
  }

  // Roots: processes of a kind with no ancestor of the same kind, or whose
  // nearest such ancestor is above a command shell: an agent started from
  // another's shell tool ("claude -p" from Claude Code's Bash) is a session
  // of its own, while helpers an agent starts itself belong to it. The walk
  // is bounded so that a damaged parent chain cannot loop.
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
    if (static_cast<std::size_t>(k) < agentKinds_) {
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
  return t;
}

void AgentWatcher::sample(const std::vector<ProcessInfo>& list, const std::vector<WatchedApp>& watchedApps,
                          bool requestsCount, const std::vector<AgentKind>& extraKinds, Time now) {
  setKinds(watchedApps, extraKinds);
  std::vector<Identity> identities;
  identities.reserve(list.size());
  for (const ProcessInfo& p : list) identities.push_back(Identity{p.pid, p.ppid, p.startMicros, programOf(p)});
  if (!table_ || table_->of != identities) table_ = tableOf(list, identities);
  const Table& table = *table_;
  const std::vector<int>& kindOf = table.kindOf;
  const std::vector<int>& parent = table.parent;
  const std::vector<int>& childAt = table.childAt;
  const std::vector<int>& children = table.children;
  const std::vector<Group>& groups = table.groups;

  // The working folder of each session's first root. A listing of
  // identities leaves it out: it is read for these processes alone.
  std::vector<std::string> firstCwd(groups.size());
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const ProcessInfo& first = list[groups[g].roots.front()];
    firstCwd[g] = first.cwd;
    if (firstCwd[g].empty()) {
      if (auto info = processes_.info(first.pid); info && info->startMicros == first.startMicros) firstCwd[g] = info->cwd;
    }
  }

  // Transcripts once per kind that has a session, and the folders in which
  // Claude Code keeps the transcripts of its live sessions.
  std::vector<std::optional<std::vector<std::string>>> transcripts(kinds_.size());
  std::set<std::string> projectFolders;
  std::set<std::string> liveIds;
  for (std::size_t g = 0; g < groups.size(); ++g) {
    const Group& group = groups[g];
    const ProcessInfo& first = list[group.roots.front()];
    if (kinds_[static_cast<std::size_t>(group.kind)].id != kClaudeCode) continue;
    if (!firstCwd[g].empty()) projectFolders.insert(claudeProjectFolder(firstCwd[g]));
    if (auto id = sessionIds_.find({first.pid, first.startMicros}); id != sessionIds_.end()) liveIds.insert(id->second);
  }
  const double monotonic = clock_.monotonic();

  std::vector<Energy> energy;
  std::map<std::string, RootState> roots;
  std::vector<AgentSession> sessions;
  std::vector<std::int32_t> protectedPids;
  std::vector<int> seenIn(list.size(), -1);     // the group that last visited a process
  std::vector<char> belowShell(list.size(), 0);  // within the current tree
  std::vector<int> tree;
  const double previousMicros = lastSample_ ? *lastSample_ * 1e6 : 0.0;

  for (std::size_t g = 0; g < groups.size(); ++g) {
    const Group& group = groups[g];
    const AgentKind& kind = kinds_[static_cast<std::size_t>(group.kind)];
    const bool isAgent = static_cast<std::size_t>(group.kind) < agentKinds_;

    // The tree, parents before children.
    tree.clear();
    for (int r : group.roots) {
      if (seenIn[r] == static_cast<int>(g)) continue;
      seenIn[r] = static_cast<int>(g);
      belowShell[r] = 0;
      tree.push_back(r);
    }
    for (std::size_t t = 0; t < tree.size(); ++t) {
      const int p = tree[t];
      for (int c = childAt[p]; c < childAt[p + 1]; ++c) {
        const int child = children[c];
        if (seenIn[child] == static_cast<int>(g)) continue;
        // A nested agent of the kind is a session of its own, with its tree.
        if (table.root[child] && kindOf[child] == group.kind) continue;
        seenIn[child] = static_cast<int>(g);
        belowShell[child] = belowShell[p] || isShell(executableName(list[child]));
        tree.push_back(child);
      }
    }

    AgentSession s;
    s.kind = kind;
    int instances = 0;
    std::uint64_t nanojoules = 0;
    std::uint64_t cpuMicros = 0;
    std::optional<std::uint64_t> toolStart;
    for (int p : tree) {
      const ProcessInfo& info = list[p];
      if (kindOf[p] == group.kind) ++instances;
      protectedPids.push_back(info.pid);

      // Energy and CPU time since the previous sample. A listing of
      // identities carries no counters: they are read for the sessions'
      // trees alone. Where they can't be read (the process ended since, or
      // the list came from elsewhere) the list's own stand.
      {
        const auto counters = processes_.counters(info.pid, info.startMicros);
        const std::uint64_t used = counters ? counters->energyNanojoules : info.energyNanojoules;
        const std::uint64_t cpu = counters ? counters->cpuMicros : info.cpuMicros;
        const auto last = std::lower_bound(lastEnergy_.begin(), lastEnergy_.end(), info.pid,
                                           [](const Energy& e, std::int32_t pid) { return e.pid < pid; });
        if (last != lastEnergy_.end() && last->pid == info.pid && last->start == info.startMicros) {
          if (used > last->nanojoules) nanojoules += used - last->nanojoules;
          if (cpu > last->cpuMicros) cpuMicros += cpu - last->cpuMicros;
        } else if (lastSample_ && static_cast<double>(info.startMicros) >= previousMicros) {
          nanojoules += used;
          cpuMicros += cpu;
        }
        energy.push_back(Energy{info.pid, info.startMicros, used, cpu});
      }

      // A running tool.
      if (!isAgent || std::find(group.roots.begin(), group.roots.end(), p) != group.roots.end()) continue;
      bool tool = belowShell[p] != 0;
      if (!tool && kindOf[p] < 0 && parent[p] >= 0 && kindOf[parent[p]] == group.kind) {
        const std::string_view name = executableName(info);
        const double after = toSeconds(info.startMicros) - toSeconds(list[parent[p]].startMicros);
        tool = !isInterpreter(name) && after > kHelperStartWindow;
      }
      if (tool && (!toolStart || info.startMicros < *toolStart)) toolStart = info.startMicros;
    }

    const ProcessInfo& first = list[group.roots.front()];
    const std::string key = isAgent ? rootKey(first) : kind.id;
    RootState state;
    if (auto it = roots_.find(key); it != roots_.end()) state = it->second;
    std::optional<double> watts;
    bool busyCpu = false;
    if (state.readAt && now > *state.readAt) {
      const double seconds = now - *state.readAt;
      const double cores = static_cast<double>(cpuMicros) / 1e6 / seconds;
      busyCpu = cores * kWattsPerBusyCore >= kind.idleWatts && cpuMicros > 0;
      watts = nanojoules > 0 ? static_cast<double>(nanojoules) / 1e9 / seconds : cores * kWattsPerBusyCore;
    }
    state.readAt = now;

    auto& changed = transcripts[static_cast<std::size_t>(group.kind)];
    if (!changed) changed = changedTranscripts(kind, monotonic);
    const auto id = sessionIds_.find({first.pid, first.startMicros});
    const bool wroteTranscript =
        !changed->empty() && transcriptIsOurs(kind, *changed, firstCwd[g], id != sessionIds_.end() ? id->second : "",
                                              liveIds, projectFolders);
    if ((watts && *watts >= kind.idleWatts) || busyCpu || wroteTranscript) state.lastActive = now;
    roots[key] = state;

    const bool firstOfKind = sessions.empty() || sessions.back().kind.id != kind.id;
    s.id = isAgent && !firstOfKind ? kind.id + "#" + std::to_string(first.pid) : kind.id;
    for (int r : group.roots) s.pids.push_back(list[r].pid);
    s.rootStart = first.startMicros;
    if (!firstCwd[g].empty()) {
      std::string_view cwd = firstCwd[g];
      while (cwd.size() > 1 && cwd.back() == '/') cwd.remove_suffix(1);
      if (cwd != "/") s.project = std::string(lastComponent(cwd));
    }
    s.lastActive = state.lastActive;
    s.watts = watts.value_or(0.0);
    s.instances = instances;
    s.toolRunning = toolStart.has_value();
    if (toolStart) s.toolSince = toSeconds(*toolStart);
    sessions.push_back(std::move(s));
  }

  // Sleep requests: noted whenever they are held, sessions when they count.
  std::vector<std::pair<SleepBlocker, std::string>> requests = requestsHeld();
  std::map<std::string, Time> firstSeen;
  for (const auto& [blocker, what] : requests) {
    auto it = requestFirstSeen_.find(blocker.name);
    firstSeen.emplace(blocker.name, it != requestFirstSeen_.end() ? it->second : now);
  }
  requestFirstSeen_ = std::move(firstSeen);
  blockers_.clear();
  for (const auto& [blocker, what] : requests) blockers_.push_back(blocker);
  if (requestsCount) {
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
      protectedPids.push_back(blocker.pid);
    }
  }

  std::sort(protectedPids.begin(), protectedPids.end());
  protectedPids.erase(std::unique(protectedPids.begin(), protectedPids.end()), protectedPids.end());
  std::sort(energy.begin(), energy.end(), [](const Energy& a, const Energy& b) { return a.pid < b.pid; });
  std::set<std::string> bundles;
  for (const ProcessInfo& p : list) {
    if (!std::binary_search(protectedPids.begin(), protectedPids.end(), p.pid)) continue;
    if (auto bundle = outermostBundle(p.path)) {
      bundles.emplace(*bundle);
      if (const BundleMeta& meta = bundleMeta(*bundle); meta.bundleID) bundles.insert(*meta.bundleID);
    }
  }

  lastEnergy_ = std::move(energy);
  roots_ = std::move(roots);
  sessions_ = std::move(sessions);
  protectedPids_ = std::set<std::int32_t>(protectedPids.begin(), protectedPids.end());
  protectedBundles_ = std::move(bundles);
  lastSample_ = now;
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
  return changedTranscripts(kind, clock_.monotonic());
}

std::vector<std::string> AgentWatcher::changedTranscripts(const AgentKind& kind, double monotonic) {
  if (kind.transcriptDirs.empty() || home_.empty()) return {};
  TranscriptState& t = transcripts_[kind.id];
  std::optional<Time> seen;
  auto see = [&seen](Time time) {
    if (!seen || time > *seen) seen = time;
  };
  // The files looked at with their times, to tell which are newer.
  std::vector<std::pair<Time, std::string>> looked;

  for (auto& [time, path] : t.recent) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
    time = mtimeOf(st);
    see(time);
    looked.emplace_back(time, path);
  }

  if (!t.search && (!t.searchedAt || monotonic - *t.searchedAt >= kTranscriptSearchInterval ||
                    monotonic < *t.searchedAt)) {
    // From a value: clang 14 takes the nested aggregate for not default
    // constructible here.
    t.search.emplace(TranscriptSearch{});
    for (auto dir = kind.transcriptDirs.rbegin(); dir != kind.transcriptDirs.rend(); ++dir) {
      TranscriptFolder top;
      top.path = home_ + "/" + *dir;
      t.search->stack.push_back(std::move(top));
    }
  }
  if (t.search) {
    TranscriptSearch& search = *t.search;
    int look = 0;
    while (!search.stack.empty() && look < kTranscriptEntriesPerLook && search.entries < kTranscriptEntryBudget) {
      TranscriptFolder& folder = search.stack.back();
      if (!folder.listed) {
        folder.names = folderNames(folder.path, kTranscriptEntryBudget - search.entries);
        folder.listed = true;
        ++look;  // reading a folder costs about as much as looking at an entry
      }
      if (folder.next < folder.names.size()) {
        const std::string path = folder.path + "/" + folder.names[folder.next++];
        ++look;
        ++search.entries;
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) continue;
        if (S_ISREG(st.st_mode)) {
          const Time time = mtimeOf(st);
          if (!search.newest || time > *search.newest) search.newest = time;
          noteRecent(search.recent, time, path);
        } else if (S_ISDIR(st.st_mode) && folder.depth < kTranscriptDepth) {
          folder.subfolders.emplace_back(mtimeOf(st), path);
        }
        continue;
      }
      // The folder is done: its subfolders next, the one changed last first.
      TranscriptFolder done = std::move(folder);
      search.stack.pop_back();
      std::sort(done.subfolders.begin(), done.subfolders.end(),
                [](const auto& a, const auto& b) { return a.first < b.first; });
      for (auto& [time, path] : done.subfolders) {
        TranscriptFolder sub;
        sub.path = std::move(path);
        sub.depth = done.depth + 1;
        search.stack.push_back(std::move(sub));
      }
    }
    if (search.newest) see(*search.newest);
    looked.insert(looked.end(), search.recent.begin(), search.recent.end());
    if (search.stack.empty() || search.entries >= kTranscriptEntryBudget) {
      t.recent = std::move(search.recent);
      t.search.reset();
      t.searchedAt = monotonic;
      if (!t.looked) {
        // The first search takes note of what is there.
        t.looked = true;
        t.newest = seen;
        return {};
      }
    }
  }
  if (!t.looked || !seen || (t.newest && *seen <= *t.newest)) return {};
  std::vector<std::string> changed;
  for (const auto& [time, path] : looked) {
    if ((!t.newest || time > *t.newest) && std::find(changed.begin(), changed.end(), path) == changed.end()) {
      changed.push_back(path);
    }
  }
  t.newest = seen;
  return changed;
}

}  // namespace vigilo
