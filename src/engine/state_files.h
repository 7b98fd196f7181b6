#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/clock.h"
#include "platform/files.h"

namespace vigilo {

// The app folder and its files. Every file Vigilo keeps lives here; each
// system change has one record here, written before the change and removed
// only after it has been put back.
class StateFiles {
 public:
  explicit StateFiles(std::string dir);

  const std::string& dir() const { return dir_; }
  std::string path(std::string_view name) const;

  // Creates the folder (and its parents) when missing, private to the user
  // (0700). False when it cannot.
  bool ensureDir() const;

  // Writes `data` to "<name>.<pid>.vigilo-tmp" beside the target (created
  // afresh, never through a link), with `mode` permissions (0600 when not
  // given), flushes it to disk and renames it over the
  // target: a reader sees the old file or the new one, never half of one.
  bool writeDurably(std::string_view name, std::string_view data, std::optional<mode_t> mode = std::nullopt) const;
  // Creates the file empty when missing, else sets its modification time to
  // now. False when it cannot.
  bool touch(std::string_view name) const;
  // Removes the file; a missing file is not an error. False when it exists
  // and cannot be removed.
  bool remove(std::string_view name) const;
  bool exists(std::string_view name) const;
  // The whole file, or nothing when it is missing or unreadable. Files larger
  // than `limit` bytes count as unreadable so a damaged file cannot exhaust
  // memory.
  std::optional<std::string> read(std::string_view name, std::size_t limit = 16 * 1024 * 1024) const;
  // Modification time in seconds since 1970, or nothing when missing.
  std::optional<Time> modified(std::string_view name) const;

 private:
  std::string dir_;
};

// A file touched on every tick (the heartbeat). It stays open, so that a
// beat sets the time through the descriptor rather than walking the path
// again; a file removed or replaced meanwhile is opened, or created, anew
// within five beats.
class KeptTouch {
 public:
  KeptTouch(const StateFiles& files, std::string name);
  ~KeptTouch();
  KeptTouch(const KeptTouch&) = delete;
  KeptTouch& operator=(const KeptTouch&) = delete;

  // As StateFiles::touch.
  bool touch();

 private:
  void close();

  const StateFiles& files_;
  std::string name_;
  int fd_ = -1;
  unsigned beats_ = 0;
};

}  // namespace vigilo
