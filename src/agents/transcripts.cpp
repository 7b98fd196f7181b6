#include "agents/transcripts.h"

#include <algorithm>
#include <memory>
#include <dirent.h>
#include <sys/stat.h>

#include "platform/files.h"

namespace vigilo {
namespace {

// How many of the newest transcripts are looked at again between searches.
constexpr std::size_t kRecentTranscripts = 8;

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

bool transcriptIsOurs(const AgentKind& kind, const std::vector<std::string>& changed, const std::string& cwd,
                      const std::string& id, const std::set<std::string>& liveIds,
                      const std::set<std::string>& projectFolders) {
  if (kind.id != kClaudeCodeKind) return true;
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

void TranscriptWatch::step(Search& search) {
  int look = 0;
  while (!search.stack.empty() && look < kTranscriptEntriesPerLook && search.entries < kTranscriptEntryBudget) {
    Folder& folder = search.stack.back();
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
    Folder done = std::move(folder);
    search.stack.pop_back();
    std::sort(done.subfolders.begin(), done.subfolders.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (auto& [time, path] : done.subfolders) {
      Folder sub;
      sub.path = std::move(path);
      sub.depth = done.depth + 1;
      search.stack.push_back(std::move(sub));
    }
  }
}

std::vector<std::string> TranscriptWatch::changed(const AgentKind& kind, double monotonic) {
  if (kind.transcriptDirs.empty() || home_.empty()) return {};
  State& t = kinds_[kind.id];
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
    t.search.emplace(Search{});
    for (auto dir = kind.transcriptDirs.rbegin(); dir != kind.transcriptDirs.rend(); ++dir) {
      Folder top;
      top.path = home_ + "/" + *dir;
      t.search->stack.push_back(std::move(top));
    }
  }
  if (t.search) {
    Search& search = *t.search;
    step(search);
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
  std::vector<std::string> newer;
  for (const auto& [time, path] : looked) {
    if ((!t.newest || time > *t.newest) && std::find(newer.begin(), newer.end(), path) == newer.end()) {
      newer.push_back(path);
    }
  }
  t.newest = seen;
  return newer;
}

}  // namespace vigilo
