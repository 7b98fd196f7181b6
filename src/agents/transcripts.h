#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "agents/agent_types.h"
#include "platform/clock.h"

namespace vigilo {

// The search for the newest transcript of a kind: at most this many folder
// levels below a transcript folder and this many entries per search,
// subfolders changed last first (a folder's time moves when a file is added
// to it), so the budget goes where work happens. A search looks at no more
// than kTranscriptEntriesPerLook entries per call and goes on at the next,
// so that no tick pays for a whole search; a new search starts
// kTranscriptSearchInterval seconds after the last one ended. On every call
// the few newest transcripts found are looked at again: the file an agent is
// writing is almost always among them.
inline constexpr int kTranscriptDepth = 5;
inline constexpr int kTranscriptEntryBudget = 2000;
inline constexpr int kTranscriptEntriesPerLook = 250;
inline constexpr double kTranscriptSearchInterval = 10.0;

// The one agent whose transcript folders name the working folder.
inline constexpr std::string_view kClaudeCodeKind = "claude-code";

// The folder name under which Claude Code keeps the transcripts of a working
// folder: every character that is not an ASCII letter or digit becomes "-"
// ("/home/me/my_app" gives "-home-me-my-app").
std::string claudeProjectFolder(std::string_view cwd);

// Whether one of the `changed` transcripts belongs to a session of `kind`
// whose own id is `id` (may be empty) working in `cwd`. Claude Code names a
// transcript after its session: one named after a live session's id
// (`liveIds`) is that session's. Otherwise `projectFolders`, the transcript
// folders of all live Claude Code sessions, decide: a transcript in one of
// them belongs to the sessions working there, one elsewhere to every
// session. Other kinds' transcripts belong to all of their sessions.
bool transcriptIsOurs(const AgentKind& kind, const std::vector<std::string>& changed, const std::string& cwd,
                      const std::string& id, const std::set<std::string>& liveIds,
                      const std::set<std::string>& projectFolders);

// Finds the transcripts the agents write under the person's home folder
// that are newer than the newest seen before, a bounded step per call (see
// kTranscriptDepth). One per agent watcher, on the main thread.
class TranscriptWatch {
 public:
  explicit TranscriptWatch(std::string home) : home_(std::move(home)) {}

  // The transcripts of `kind` found newer since the last call (empty:
  // none), at `monotonic` seconds of the steady clock. The first complete
  // search only takes note of what is there.
  std::vector<std::string> changed(const AgentKind& kind, double monotonic);

 private:
  // A folder being searched: its entry names, read at once, are looked at
  // one by one, possibly over several calls.
  struct Folder {
    std::string path;
    int depth = 0;
    bool listed = false;
    std::vector<std::string> names;
    std::size_t next = 0;
    std::vector<std::pair<Time, std::string>> subfolders;
  };
  struct Search {
    std::vector<Folder> stack;  // the folder on top is searched first
    int entries = 0;
    std::optional<Time> newest;
    std::vector<std::pair<Time, std::string>> recent;  // newest first
  };
  struct State {
    bool looked = false;  // a first search has ended
    std::optional<Time> newest;
    std::optional<double> searchedAt;  // monotonic time the last search ended
    std::optional<Search> search;
    std::vector<std::pair<Time, std::string>> recent;  // the newest files of the last search
  };

  // Looks at up to kTranscriptEntriesPerLook more entries of the search.
  static void step(Search& search);

  std::string home_;
  std::map<std::string, State> kinds_;  // by kind id
};

}  // namespace vigilo
