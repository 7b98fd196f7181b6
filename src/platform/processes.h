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
  // Every process that can be seen.
  virtual std::vector<ProcessInfo> list() = 0;

  // Stops (pauses) and continues a process.
  virtual Result stop(std::int32_t pid) = 0;
  virtual Result resume(std::int32_t pid) = 0;
  // Lowers a process to background priority, and puts it back exactly.
  virtual Result slow(std::int32_t pid) = 0;
  virtual Result unslow(std::int32_t pid) = 0;
};

}  // namespace vigilo
