#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "engine/state_files.h"
#include "platform/processes.h"

namespace vigilo {

// One process paused or slowed while the lid was shut.
struct Touched {
  std::int32_t pid = 0;
  std::uint64_t start = 0;  // start time in microseconds, to recognise a reused pid
  std::string path;
  bool paused = false;      // paused when true, slowed when false
  bool operator==(const Touched&) const = default;
};

inline constexpr std::string_view kTouchedFile = "touched.json";
inline constexpr std::string_view kResumePidsFile = "resume-pids";

// The record of paused and slowed processes: "touched.json" for the app and
// "resume-pids" (pid, a tab, the path) for the watchdog script, which cannot
// read JSON. Written before a process is touched, rewritten after it is put
// back.
class Journal {
 public:
  Journal(const StateFiles& files, Processes& processes) : files_(files), processes_(processes) {}

  // Writes both files; with an empty list removes them. False when a write
  // failed (the caller then must not touch the process).
  bool save(const std::vector<Touched>& touched);
  // The records on disk; an unreadable or damaged file reads as empty, and
  // malformed entries are skipped.
  std::vector<Touched> load() const;
  // Continues every paused process and restores every slowed one that is
  // still the same process; returns the records that could not be put back.
  // A process that is gone or whose pid now names another process has
  // nothing left to put back.
  std::vector<Touched> undo(const std::vector<Touched>& touched);
  // Puts back what files of an older layout recorded. Vigilo has had one
  // layout so far, so there is nothing to read; upgrades that change the
  // layout add their readers here.
  void undoLegacyFiles() {}

 private:
  const StateFiles& files_;
  Processes& processes_;
};

}  // namespace vigilo
