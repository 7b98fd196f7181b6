#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/result.h"

namespace vigilo {

// What the kernel tells about one process.
struct ProcessInfo {
  std::int32_t pid = 0;
  std::int32_t ppid = 0;
  // Start time in microseconds since 1970: with the pid it names one process,
  // so a reused pid is recognised.
  std::uint64_t startMicros = 0;
  std::string path;                // executable path; empty when hidden
  std::vector<std::string> args;   // argv; empty when hidden
  std::string cwd;                 // working folder; empty when hidden
  std::uint64_t cpuMicros = 0;     // user + system CPU time used so far
  std::uint64_t energyNanojoules = 0;  // energy used so far, where known
  bool stopped = false;            // stopped by a signal
};

// An application bundle: the ".app" folder, its bundle identifier when it
// has one, and the name it is shown by.
struct AppBundle {
  std::string path;  // "/Applications/Spotify.app"
  std::optional<std::string> bundleId;
  std::string name;
};

// How much a listing reads of each process.
enum class ProcessDetail {
  // What names a process: pid, ppid, startMicros, path and args. A backend
  // may answer from what it learned when it first saw the process, so ppid
  // may lag behind a reparenting and path and args behind an exec for a
  // while (on Linux: until the process next runs and a Counters listing
  // sees it). cpuMicros, energyNanojoules, stopped and cwd are left empty.
  Identity,
  // The same, and cpuMicros and energyNanojoules read afresh, except for
  // kernel threads (no path and no arguments), which belong to no app.
  Counters,
  // Everything, afresh: what `list()` gives.
  Full,
};

// What grows while a process runs.
struct ProcessCounters {
  std::uint64_t cpuMicros = 0;
  std::uint64_t energyNanojoules = 0;
};

// Process information and control. Called on the main thread.
class Processes {
 public:
  Processes() = default;
  Processes(const Processes&) = delete;
  Processes& operator=(const Processes&) = delete;
  virtual ~Processes() = default;

  // The full record of `pid`, or nothing when it does not exist or cannot be
  // read.
  virtual std::optional<ProcessInfo> info(std::int32_t pid) = 0;
  // What names `pid` (pid, ppid, startMicros, path and args), read afresh;
  // a backend may leave the rest of the record empty to answer sooner.
  virtual std::optional<ProcessInfo> identity(std::int32_t pid) { return info(pid); }
  // Every process that can be seen.
  virtual std::vector<ProcessInfo> list() = 0;
  // Every process that can be seen, read to `detail`: a caller that needs
  // the counters of only a few processes lists their identities and asks
  // `counters` for those. The default reads everything.
  virtual std::vector<ProcessInfo> listing(ProcessDetail detail) {
    (void)detail;
    return list();
  }
  // Whether a listing of identities made now would show what the last
  // listing did: no process has started or ended since and none is known to
  // have changed, so the caller may keep the last one. A backend that can't
  // tell cheaply says no.
  virtual bool identitiesUnchanged() { return false; }
  // The counters of the process `pid` that started at `startMicros`, read
  // afresh; nothing when it has ended or the pid now names another process.
  virtual std::optional<ProcessCounters> counters(std::int32_t pid, std::uint64_t startMicros) {
    auto p = info(pid);
    if (!p || p->startMicros != startMicros) return std::nullopt;
    return ProcessCounters{p->cpuMicros, p->energyNanojoules};
  }

  // Stops (pauses) and continues a process.
  virtual Result stop(std::int32_t pid) = 0;
  virtual Result resume(std::int32_t pid) = 0;
  // Lowers a process to background priority, and puts it back exactly.
  virtual Result slow(std::int32_t pid) = 0;
  virtual Result unslow(std::int32_t pid) = 0;

  // The apps installed on the machine, for looking one up by name.
  virtual std::vector<AppBundle> installedApps() { return {}; }
  // The app a process belongs to where apps aren't bundle folders in the
  // path (Linux desktop entries: `path` is the entry's file, `bundleId` its
  // id); nothing otherwise.
  virtual std::optional<AppBundle> appOf(const ProcessInfo& p) {
    (void)p;
    return std::nullopt;
  }
  // What the bundle at `bundlePath` says about itself; nothing when the
  // backend knows no such bundle (the caller may then read it from disk).
  virtual std::optional<AppBundle> appBundle(const std::string& bundlePath) {
    (void)bundlePath;
    return std::nullopt;
  }
};

}  // namespace vigilo
