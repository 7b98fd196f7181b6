#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "agents/agent_types.h"
#include "agents/transcripts.h"
#include "engine/config.h"
#include "platform/bundles.h"
#include "platform/clock.h"
#include "platform/processes.h"
#include "platform/registry.h"

namespace vigilo {

// A requester counts for at most this long after its request was first
// seen, so that a forgotten assertion does not keep the machine awake for
// ever.
inline constexpr double kRequestLimitSeconds = 21600.0;

// A direct child of an agent that is not a shell counts as a tool only when
// it started this long after the agent: the helpers an agent starts with it
// (MCP and language servers) are part of the agent.
inline constexpr double kHelperStartWindow = 10.0;

// A tree counts as active when its measured power reaches its kind's idle
// watts, or when its CPU time does at kWattsPerBusyCore (idle watts 0.02 W:
// half a percent of a core), so that work is seen also where the machine
// measures no draw (a Linux laptop on its adapter). Where nothing is
// measured, the tree's watts are its CPU use at that rate: an estimate.

// Watches the process table for agents, watched apps and sleep requests.
// One per engine, on the main thread.
//
// Sessions. Each top-most process of an agent kind in its chain of parents
// (its root) is one session: the first, by start time, has the kind's id,
// others "<kind id>#<pid>". Processes of the same kind below a root are
// merged into it (`instances`), except one reached through a command shell:
// an agent run by another's shell tool is a root, and no part of the outer
// session's tree. A watched app or the Claude app is one
// session whatever its number of processes. A session's process tree is
// its roots and all their descendants.
//
// Power. A tree's watts are the growth of its processes' energy counters
// since the previous sample over the seconds between: a process seen last
// time counts its growth, one started since counts all its energy. Its CPU
// use is the same over the CPU-time counters. The first sample of a tree has
// no power yet.
//
// Transcripts. A newer transcript marks as active the sessions it belongs
// to. Claude Code names a transcript after its session and keeps it in a
// folder named after the working folder (claudeProjectFolder): it belongs to
// the session of that id (see setSessionIds), else to the sessions working
// in that folder. Where the path names no live session (other agents,
// unreadable working folders), it belongs to every session of the kind.
//
// Tools. A descendant runs a tool (a command the agent started) when it is
// a command shell (agents run their commands through one) or lives below
// one, or when it is a direct child of the agent that is neither an agent
// nor an interpreter and started more than kHelperStartWindow seconds after
// it (a command exec'd by `bash -c`). `toolSince` is the earliest start
// among them.
class AgentWatcher {
 public:
  // `home` is the person's home folder, under which the agents keep their
  // transcripts. `bundles` reads an app bundle's id and name.
  AgentWatcher(Processes& processes, Registry& registry, std::string home, const Clock& clock,
               BundleLookup bundles = readBundleMeta);

  // One sampling pass at `now`: sessions, blockers, protected pids and
  // bundles. `extraKinds` are the custom agents' kinds; the Claude app's
  // kind among them (claudeAppKind()) makes the Claude app count.
  // `requestsCount`: sleep requests become "request:<name>" sessions.
  void sample(const std::vector<WatchedApp>& watchedApps, bool requestsCount, const std::vector<AgentKind>& extraKinds,
              Time now);
  // The same over a process list already taken this tick; identities are
  // enough (ProcessDetail::Identity): the watcher reads the counters of its
  // sessions' trees, and the working folder of their first roots, itself.
  void sample(const std::vector<ProcessInfo>& processes, const std::vector<WatchedApp>& watchedApps,
              bool requestsCount, const std::vector<AgentKind>& extraKinds, Time now);

  // The agents' own session ids, by root process (pid and start time), as
  // their hook events gave them: used to attribute transcripts.
  void setSessionIds(std::map<std::pair<std::int32_t, std::uint64_t>, std::string> ids) {
    sessionIds_ = std::move(ids);
  }

  const std::vector<AgentSession>& sessions() const { return sessions_; }
  const std::vector<SleepBlocker>& blockers() const { return blockers_; }
  // Every process of every session, trees included, and their app bundles
  // (by id where the bundle tells it, and always by folder, "…/Foo.app").
  const std::set<std::int32_t>& protectedPids() const { return protectedPids_; }
  bool isProtected(std::int32_t pid) const { return protectedPids_.count(pid) != 0; }
  const std::set<std::string>& protectedBundles() const { return protectedBundles_; }
  std::optional<Time> lastSample() const { return lastSample_; }
  const std::vector<AgentKind>& extraKinds() const { return extraKinds_; }

  // The agent kind of a running process (reading its arguments when the
  // executable is an interpreter), with the extra kinds of the last sample.
  std::optional<AgentKind> match(std::int32_t pid, const std::string& path);
  // The last component of the process's working folder; nothing when it
  // can't be read or is the root folder.
  std::optional<std::string> workingDirectoryName(std::int32_t pid);
  // The processes holding sleep assertions that count: blocking types, not
  // ignored, user-facing. One blocker per process, oldest start of its
  // assertions.
  std::vector<SleepBlocker> sleepRequests();
  bool isUserFacing(std::int32_t pid, const std::string& name);
  // Whether a transcript of this kind is newer than the newest seen before.
  // The first complete search only takes note of what is there.
  bool transcriptsChanged(const AgentKind& kind);
  // The same, giving the transcripts found newer (empty: none).
  std::vector<std::string> changedTranscripts(const AgentKind& kind);

 private:
  // What carries over for one session between samples.
  struct RootState {
    std::optional<Time> lastActive;
    std::optional<Time> readAt;  // when the tree's energy was last read
  };
  // The shape of one process list: each process's kind, parent and
  // children (as one flat array, children of process i at
  // children[childAt[i] .. childAt[i + 1])), and the groups of roots that
  // make the sessions, in session order.
  struct Group {
    int kind;
    std::vector<int> roots;
  };
  // What a process's place in the table depends on; its path and
  // arguments (what an exec changes) by their hash.
  struct Identity {
    std::int32_t pid = 0;
    std::int32_t ppid = 0;
    std::uint64_t startMicros = 0;
    std::size_t program = 0;
    bool operator==(const Identity&) const = default;
  };
  struct Table {
    std::vector<Identity> of;  // the list it was made from
    std::vector<int> kindOf;
    std::vector<int> parent;
    std::vector<int> childAt;
    std::vector<int> children;
    std::vector<Group> groups;
    std::vector<char> root;  // the process is the root of a group
  };
  Table tableOf(const std::vector<ProcessInfo>& list, const std::vector<Identity>& identities);
  // The steps of tableOf: each process's kind, its parent and children, and
  // the groups of roots.
  void classifyAll(const std::vector<ProcessInfo>& list, const std::vector<Identity>& identities,
                   std::vector<int>& kindOf);
  static void linkFamilies(const std::vector<ProcessInfo>& list, Table& t);
  void findGroups(const std::vector<ProcessInfo>& list, Table& t) const;

  // The steps of one sample, in order: the working folders of the first
  // roots; per group its tree, what the tree used and ran, and its session;
  // the sleep requests; then what the next sample and the engine keep.
  struct Pass;
  struct TreeUse;
  void readWorkingFolders(Pass& pass);
  void collectTree(Pass& pass, std::size_t g) const;
  TreeUse measureTree(Pass& pass, const Group& group);
  void countEnergy(Pass& pass, const ProcessInfo& info, TreeUse& use);
  bool runsTool(const Pass& pass, const Group& group, int p) const;
  bool wroteTranscript(Pass& pass, std::size_t g);
  void addSession(Pass& pass, std::size_t g, const TreeUse& use);
  void addRequests(Pass& pass, bool requestsCount);
  void keep(Pass& pass);

  int classify(const ProcessInfo& p);
  // The requesting processes with the name of their first assertion.
  std::vector<std::pair<SleepBlocker, std::string>> requestsHeld();
  bool watchedAppMatches(const WatchedApp& app, const ProcessInfo& p, const std::optional<std::string_view>& bundle,
                         const BundleMeta& meta) const;
  const BundleMeta& bundleMeta(std::string_view bundle);
  void setKinds(const std::vector<WatchedApp>& watchedApps, const std::vector<AgentKind>& extraKinds);

  Processes& processes_;
  Registry& registry_;
  const Clock& clock_;
  BundleLookup bundles_;

  // The kinds of the current sample, in the order that decides ties:
  // built-in agents, custom agents, watched apps, the Claude app.
  std::vector<AgentKind> kinds_;
  std::vector<WatchedApp> watched_;
  std::size_t agentKinds_ = 0;  // kinds_[0, agentKinds_) are agents, the rest apps
  std::optional<std::size_t> claudeApp_;
  std::vector<AgentKind> extraKinds_;
  std::vector<AgentKind> customKinds_;  // the extra kinds that are agents

  // Classification per process, kept while the process (pid, start, path
  // and arguments) and the kinds stay the same.
  struct Classified {
    std::uint64_t start = 0;
    std::size_t program = 0;  // Identity::program
    int kind = -1;
    std::uint64_t generation = 0;  // the last sample that saw the process
  };
  std::unordered_map<std::int32_t, Classified> classified_;
  std::uint64_t generation_ = 0;
  // The table of the last sample's list, while the kinds stay the same:
  // a tick whose list shows the same processes builds nothing.
  std::optional<Table> table_;
  std::unordered_map<std::string, BundleMeta> bundleMeta_;

  // Energy per process at the previous sample, for the trees' power.
  struct Energy {
    std::int32_t pid = 0;
    std::uint64_t start = 0;
    std::uint64_t nanojoules = 0;
    std::uint64_t cpuMicros = 0;
  };
  std::vector<Energy> lastEnergy_;  // by pid
  // Per session key (root pid and start, or an app's kind id).
  std::map<std::string, RootState> roots_;
  TranscriptWatch transcripts_;
  std::map<std::string, Time> requestFirstSeen_;
  std::map<std::pair<std::int32_t, std::uint64_t>, std::string> sessionIds_;

  std::vector<AgentSession> sessions_;
  std::vector<SleepBlocker> blockers_;
  std::set<std::int32_t> protectedPids_;
  std::set<std::string> protectedBundles_;
  std::optional<Time> lastSample_;
};

}  // namespace vigilo
