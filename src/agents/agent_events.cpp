#include "agents/agent_events.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <limits>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "agents/careful_file.h"
#include "agents/catalogue.h"
#include "platform/files.h"
#include "platform/private_folder.h"

namespace vigilo {
namespace {

using json = nlohmann::json;
using ordered_json = nlohmann::ordered_json;

constexpr std::size_t kMaxSessionId = 64;
// A hook's input is two levels deep; anything far deeper is not a hook's,
// and the limit keeps a hostile input from costing stack or time.
constexpr int kMaxEventDepth = 32;
// An event file is a few hundred bytes.
constexpr std::size_t kMaxEventFile = 64 * 1024;
// The agent's message kept in an event file, well inside kMaxEventFile.
constexpr std::size_t kMaxDetail = 2000;
// How far up from the hook's parent the agent may be: the hook runs under a
// shell, which may itself run under a wrapper or two.
constexpr int kWalkLevels = 6;
// Claude Code reports an idle prompt about a minute after the agent stopped.
constexpr double kIdleReportDelay = 60;
constexpr double kAnsweredAfter = 5;
constexpr double kStalePrompt = 1800;
// The socket layer drops empty payloads, so the post carries an empty object.
constexpr const char* kPostPayload = "{}";

// The JSON object in `text`, or a discarded value.
json parseObject(std::string_view text) {
  if (!jsonNestingWithin(text, kMaxEventDepth)) return json(json::value_t::discarded);
  json j = json::parse(text.begin(), text.end(), nullptr, false);
  if (!j.is_object()) return json(json::value_t::discarded);
  return j;
}

std::optional<std::string> stringField(const json& j, const char* key) {
  auto it = j.find(key);
  if (it == j.end() || !it->is_string()) return std::nullopt;
  return it->get<std::string>();
}

std::string lowered(std::string text) {
  // ASCII only, so that UTF-8 stays whole.
  for (char& c : text) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return text;
}

bool contains(const std::string& text, std::string_view part) { return text.find(part) != std::string::npos; }

std::string folderOf(const std::string& appFolder) { return appFolder + "/" + kAgentEventsFolder; }

// The event file `name` in the folder open as `dir`, never through a link:
// a link planted there could point anywhere.
std::optional<AgentEvent> readEvent(int dir, const std::string& name) {
  const int fd = ::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) return std::nullopt;
  struct stat st {};
  std::string text;
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && static_cast<std::size_t>(st.st_size) <= kMaxEventFile;
  char buf[8192];
  while (ok) {
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = n == 0;
      break;
    }
    text.append(buf, static_cast<std::size_t>(n));
    ok = text.size() <= kMaxEventFile;
  }
  ::close(fd);
  if (!ok) return std::nullopt;
  return AgentEvents::decode(text);
}

// The events folder, opened only when it and the app folder belong to this
// user alone; -1 otherwise.
int openEventsFolder(const std::string& appFolder, const std::string& folder) {
  if (!checkPrivateFolder(appFolder) || !checkPrivateFolder(folder)) return -1;
  return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// What one hook input asks for.
struct Change {
  enum class Kind { Nothing, Write, Remove } kind = Kind::Nothing;
  AgentState state = AgentState::Idle;
  Time at = 0;
  std::optional<std::string> detail;
};

// What an agent's lifecycle event means for its session.
enum class Meaning {
  Start,         // a session begins (idle); a compaction inside one changes nothing
  Working,       // the person submitted a prompt, or a tool ran
  Finished,      // the turn is done
  End,           // the session is over: its file goes
  AskedToAllow,  // the agent waits for the person's permission
  ClaudeNotice,  // Claude Code's notification, read by its type and message
  GeminiNotice,  // Gemini CLI's notification: only a permission prompt counts
};

struct HookMapping {
  std::string_view agent;  // empty: any agent without a table of its own
  std::string_view event;
  Meaning meaning;
};

// Every agent's events in its own words. Claude Code's vocabulary is also
// what an agent without a table of its own is read in. Codex's legacy
// `notify` payload names its event in "type".
constexpr HookMapping kHookMappings[] = {
    {"", "SessionStart", Meaning::Start},
    {"", "UserPromptSubmit", Meaning::Working},
    {"", "Stop", Meaning::Finished},
    {"", "SessionEnd", Meaning::End},
    {"", "Notification", Meaning::ClaudeNotice},
    {"codex", "SessionStart", Meaning::Start},
    {"codex", "UserPromptSubmit", Meaning::Working},
    {"codex", "PreToolUse", Meaning::Working},
    {"codex", "PostToolUse", Meaning::Working},
    {"codex", "PermissionRequest", Meaning::AskedToAllow},
    {"codex", "Stop", Meaning::Finished},
    {"codex", "SessionEnd", Meaning::End},
    {"codex", "agent-turn-complete", Meaning::Finished},
    {"gemini", "SessionStart", Meaning::Start},
    {"gemini", "BeforeAgent", Meaning::Working},
    {"gemini", "AfterTool", Meaning::Working},
    {"gemini", "AfterAgent", Meaning::Finished},
    {"gemini", "SessionEnd", Meaning::End},
    {"gemini", "Notification", Meaning::GeminiNotice},
};

bool hasOwnTable(std::string_view agent) {
  return std::any_of(std::begin(kHookMappings), std::end(kHookMappings),
                     [&](const HookMapping& m) { return m.agent == agent; });
}

std::optional<Meaning> meaningOf(std::string_view agent, std::string_view event) {
  const std::string_view table = hasOwnTable(agent) ? agent : std::string_view();
  for (const HookMapping& m : kHookMappings) {
    if (m.agent == table && m.event == event) return m.meaning;
  }
  return std::nullopt;
}

// The event's name: hooks give it in "hook_event_name", Codex's notify in "type".
std::string eventName(const json& input) {
  if (auto name = stringField(input, "hook_event_name")) return *name;
  return stringField(input, "type").value_or("");
}

// What the person is asked to allow, from a permission request's tool.
std::string permissionDetail(const json& input) {
  auto tool = input.find("tool_input");
  if (tool != input.end() && tool->is_object()) {
    for (const char* key : {"description", "command"}) {
      if (auto text = stringField(*tool, key); text && !text->empty()) return lowered(*text);
    }
  }
  if (auto name = stringField(input, "tool_name"); name && !name->empty()) return "permission to use " + *name;
  return "permission_request";
}

Change changeFor(std::string_view agent, const json& input, const std::optional<AgentEvent>& previous, Time now) {
  Change c;
  auto write = [&](AgentState state, Time at) {
    c.kind = Change::Kind::Write;
    c.state = state;
    c.at = at;
  };
  const auto meaning = meaningOf(agent, eventName(input));
  if (!meaning) return c;
  switch (*meaning) {
    case Meaning::Working:
      write(AgentState::Working, now);
      break;
    case Meaning::Finished:
      write(AgentState::Finished, now);
      break;
    case Meaning::Start:
      // A compaction happens inside a running session; its state stands.
      if (stringField(input, "source") != "compact") write(AgentState::Idle, now);
      break;
    case Meaning::End:
      c.kind = Change::Kind::Remove;
      break;
    case Meaning::AskedToAllow:
      write(AgentState::Waiting, now);
      c.detail = permissionDetail(input);
      break;
    case Meaning::GeminiNotice: {
      if (stringField(input, "notification_type") != "ToolPermission") break;
      const std::string message = lowered(stringField(input, "message").value_or(""));
      write(AgentState::Waiting, now);
      c.detail = message.empty() ? std::string("ToolPermission") : message;
      break;
    }
    case Meaning::ClaudeNotice: {
      auto type = stringField(input, "notification_type");
      if (!type) type = stringField(input, "matcher");
      const std::string kind = type.value_or("");
      const std::string message = lowered(stringField(input, "message").value_or(""));
      const bool needsYou = kind == "permission_prompt" || kind == "elicitation_dialog" ||
                            kind == "agent_needs_input" ||
                            (kind.empty() && (contains(message, "permission") || contains(message, "approve")));
      const bool idle = kind == "idle_prompt" || (kind.empty() && contains(message, "waiting for your input"));
      if (needsYou) {
        write(AgentState::Waiting, now);
        c.detail = message.empty() ? kind : message;
      } else if (idle) {
        const bool alreadyFinished = previous && previous->state == AgentState::Finished;
        write(AgentState::Finished, alreadyFinished ? previous->at : now - kIdleReportDelay);
      }
      break;
    }
  }
  return c;
}

struct AgentProcess {
  std::int32_t pid;
  std::uint64_t start;
};

std::optional<AgentProcess> findAgent(Processes& procs, std::int32_t pid, std::string_view agent) {
  for (int level = 0; level < kWalkLevels && pid >= 2; ++level) {
    auto info = procs.identity(pid);
    if (!info || info->path.empty()) return std::nullopt;
    auto kind = matchKind(info->path, info->args);
    if (kind && kind->id == agent) return AgentProcess{pid, info->startMicros};
    pid = info->ppid;
  }
  return std::nullopt;
}

// Replaces `path` atomically through a temporary file of this process's own,
// so two hooks of one session never write into the same temporary file. Not
// flushed to disk: an event is stale within minutes, and a file torn by a
// power cut is deleted by the next load.
bool replaceFile(const std::string& folder, const std::string& name, const std::string& data) {
  const std::string path = folder + "/" + name;
  const std::string tmp = folder + "/." + name + ".tmp-" + std::to_string(::getpid());
  // Created afresh, never through a link planted at the temporary name.
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW;
  int fd = ::open(tmp.c_str(), flags, kPrivateFileMode);
  if (fd < 0 && errno == EEXIST && ::unlink(tmp.c_str()) == 0) fd = ::open(tmp.c_str(), flags, kPrivateFileMode);
  if (fd < 0) return false;
  std::string_view rest = data;
  bool ok = true;
  while (ok && !rest.empty()) {
    const ssize_t n = ::write(fd, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      ok = false;
    } else {
      rest.remove_prefix(static_cast<std::size_t>(n));
    }
  }
  ok = (::close(fd) == 0) && ok;
  ok = ok && moveInto(tmp, path);
  if (!ok) ::unlink(tmp.c_str());
  return ok;
}

void post(const std::string& appFolder, Notifications* notifications) {
  if (notifications != nullptr) {
    notifications->post(kAgentEventNotification, kPostPayload);
    return;
  }
  // Fails at once when no app listens, which is fine: the app reads the
  // folder when it starts.
  makeSocketNotifications(appFolder, nullptr)->post(kAgentEventNotification, kPostPayload);
}

void recordOrThrow(const std::string& appFolder, std::string_view agent, std::string_view input, Time now,
                   Processes* procs, std::int32_t parentPid, Notifications* notifications) {
  if (agent.empty() || agent.size() > AgentEvents::kMaxAgentName) return;
  if (input.size() > AgentEvents::kMaxInput) return;
  const json j = parseObject(input);
  if (j.is_discarded()) return;

  // Codex's notify names the session "thread-id".
  auto rawSession = stringField(j, "session_id");
  if (!rawSession) rawSession = stringField(j, "thread-id");
  const std::string session = AgentEvents::sanitiseSessionId(rawSession.value_or("unknown"));
  if (session.empty()) return;
  const std::string folder = folderOf(appFolder);
  const std::string name = session + ".json";
  // Nothing is read, written or removed in a folder someone else could
  // have swapped for a link into the person's files.
  if (!makePrivateFolder(folder)) return;
  const int dir = openEventsFolder(appFolder, folder);
  if (dir < 0) return;
  // A damaged previous file counts as none; this event replaces it.
  const std::optional<AgentEvent> previous = readEvent(dir, name);
  const Change change = changeFor(agent, j, previous, now);
  if (change.kind == Change::Kind::Remove) ::unlinkat(dir, name.c_str(), 0);
  ::close(dir);
  if (change.kind == Change::Kind::Nothing) return;
  if (change.kind == Change::Kind::Remove) {
    post(appFolder, notifications);
    return;
  }

  AgentEvent event;
  event.agent = std::string(agent);
  event.session = session;
  event.state = change.state;
  event.at = change.at;
  event.detail = change.detail;
  std::optional<AgentProcess> found;
  if (procs != nullptr) found = findAgent(*procs, parentPid, agent);
  if (found) {
    event.pid = found->pid;
    event.pidStart = found->start;
  } else if (previous) {
    event.pid = previous->pid;
    event.pidStart = previous->pidStart;
  }

  // The app reads event files up to kMaxEventFile: the one free text, the
  // agent's message, is cut so the file always fits.
  if (event.detail && event.detail->size() > kMaxDetail) event.detail = cutUtf8(*event.detail, kMaxDetail);
  if (!replaceFile(folder, name, AgentEvents::encode(event))) return;
  post(appFolder, notifications);
}

}  // namespace

void AgentEvents::record(const std::string& appFolder, std::string_view agent, std::string_view input, Time now,
                         Processes* procs, std::int32_t parentPid, Notifications* notifications) noexcept {
  try {
    recordOrThrow(appFolder, agent, input, now, procs, parentPid, notifications);
  } catch (...) {
    // The hook must never fail; whatever went wrong, nothing more is done.
  }
}

std::string AgentEvents::sanitiseSessionId(std::string_view raw) {
  std::string out;
  for (char c : raw) {
    if (out.size() == kMaxSessionId) break;
    const bool keep = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                      c == '_';
    if (keep) out += c;
  }
  return out;
}

std::string AgentEvents::encode(const AgentEvent& e) {
  ordered_json j;
  j["agent"] = e.agent;
  j["session"] = e.session;
  j["state"] = std::string(toText(e.state));
  j["at"] = e.at;
  if (e.pid) j["pid"] = *e.pid;
  if (e.pidStart) j["pidStart"] = *e.pidStart;
  if (e.detail) j["detail"] = *e.detail;
  // The agent name comes from a command line and may not be UTF-8.
  return dumpJson(j) + "\n";
}

std::optional<AgentEvent> AgentEvents::decode(std::string_view text) {
  const json j = parseObject(text);
  if (j.is_discarded()) return std::nullopt;
  auto agent = stringField(j, "agent");
  auto session = stringField(j, "session");
  auto stateText = stringField(j, "state");
  auto at = j.find("at");
  if (!agent || !session || !stateText || at == j.end() || !at->is_number()) return std::nullopt;
  auto state = parseAgentState(*stateText);
  const double when = at->get<double>();
  if (!state || !std::isfinite(when)) return std::nullopt;

  AgentEvent e;
  e.agent = *agent;
  e.session = *session;
  e.state = *state;
  e.at = when;
  // Optional keys may be missing or null; any other wrong type spoils the file.
  if (auto pid = j.find("pid"); pid != j.end() && !pid->is_null()) {
    if (!pid->is_number_integer()) return std::nullopt;
    constexpr auto kMin = std::numeric_limits<std::int32_t>::min();
    constexpr auto kMax = std::numeric_limits<std::int32_t>::max();
    if (pid->is_number_unsigned() ? pid->get<std::uint64_t>() > std::uint64_t{kMax}
                                  : (pid->get<std::int64_t>() < kMin || pid->get<std::int64_t>() > kMax)) {
      return std::nullopt;
    }
    const auto v = pid->get<std::int64_t>();
    e.pid = static_cast<std::int32_t>(v);
  }
  if (auto start = j.find("pidStart"); start != j.end() && !start->is_null()) {
    if (!start->is_number_integer()) return std::nullopt;
    if (!start->is_number_unsigned() && start->get<std::int64_t>() < 0) return std::nullopt;
    e.pidStart = start->get<std::uint64_t>();
  }
  if (auto detail = j.find("detail"); detail != j.end() && !detail->is_null()) {
    if (!detail->is_string()) return std::nullopt;
    e.detail = detail->get<std::string>();
  }
  return e;
}

std::vector<AgentEvent> AgentEvents::load(const std::string& appFolder, Time now) {
  std::vector<AgentEvent> events;
  const int fd = openEventsFolder(appFolder, folderOf(appFolder));
  if (fd < 0) return events;
  DIR* dir = ::fdopendir(fd);
  if (dir == nullptr) {
    ::close(fd);
    return events;
  }
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.size() <= 5 || name.compare(name.size() - 5, 5, ".json") != 0) continue;
    auto event = readEvent(fd, name);
    if (!event || now - event->at > kExpirySeconds) {
      // Removes a planted link itself, never what it points at.
      ::unlinkat(fd, name.c_str(), 0);
      continue;
    }
    events.push_back(std::move(*event));
  }
  ::closedir(dir);
  std::sort(events.begin(), events.end(),
            [](const AgentEvent& a, const AgentEvent& b) { return a.session < b.session; });
  return events;
}

std::optional<FoldedAgentState> AgentEvents::state(std::string_view sessionId, const std::vector<AgentEvent>& events,
                                                   std::optional<Time> lastActive, Time now) {
  std::optional<FoldedAgentState> best;
  for (const AgentEvent& e : events) {
    if (e.session != sessionId) continue;
    AgentState state = e.state;
    if (state == AgentState::Waiting) {
      // Activity well after the question means the user answered it.
      if (lastActive && *lastActive - e.at > kAnsweredAfter) state = AgentState::Working;
    } else if (state == AgentState::Working) {
      const Time reference = std::max(lastActive.value_or(e.at), e.at);
      if (now - reference > kStalePrompt) continue;
    }
    const FoldedAgentState candidate{state, e.at};
    if (!best || rank(state) > rank(best->state) || (rank(state) == rank(best->state) && e.at > best->since)) {
      best = candidate;
    }
  }
  return best;
}

std::optional<std::string> AgentEvents::readHookInput(int fd, double limitSeconds) {
  if (::isatty(fd)) return std::nullopt;
  using Clock = std::chrono::steady_clock;
  const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(limitSeconds));
  std::string data;
  bool tooLong = false;
  char buf[65536];
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    if (left <= 0) return std::nullopt;
    pollfd p{fd, POLLIN, 0};
    const int ready = ::poll(&p, 1, static_cast<int>(left));
    if (ready < 0 && errno == EINTR) continue;
    if (ready <= 0) return std::nullopt;
    const ssize_t n = ::read(fd, buf, sizeof buf);
    if (n < 0) {
      if (errno == EINTR || errno == EAGAIN) continue;
      return std::nullopt;
    }
    if (n == 0) break;
    if (tooLong) continue;
    data.append(buf, static_cast<std::size_t>(n));
    if (data.size() > kMaxInput) {
      tooLong = true;
      std::string().swap(data);
    }
  }
  if (tooLong) return std::nullopt;
  return data;
}

}  // namespace vigilo
