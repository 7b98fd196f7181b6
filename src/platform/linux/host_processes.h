#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "platform/processes.h"

namespace vigilo {

// One process of this machine as /proc shows it; nothing when it does not
// exist or cannot be read.
std::optional<ProcessInfo> hostProcessInfo(std::int32_t pid);

// This machine's process table, for the short-lived tools that only look at
// the processes around them (the hook finding its agent). It reads; it does
// not stop, continue or slow anything (that is the app's, with its records).
std::unique_ptr<Processes> makeHostProcesses();

}  // namespace vigilo
