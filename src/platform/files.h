#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/result.h"

namespace vigilo {

// Writes `data` to "<path>.vigilo-tmp" (with `mode` permissions when given,
// exactly, whatever the umask), flushes it to disk and renames it over
// `path`: a reader sees the old file or the new one, never half of one. The
// parent folder must exist.
Result writeFileDurably(const std::string& path, std::string_view data, std::optional<mode_t> mode = std::nullopt);
// The same without the flush to disk: whole or not at all for readers, but
// not meant to survive a power cut (replies read a moment later).
Result writeFileAtomically(const std::string& path, std::string_view data);

// The whole regular file, or nothing when it is missing, unreadable, not a
// regular file or larger than `limit` bytes (so a damaged file cannot
// exhaust memory).
std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit = 16 * 1024 * 1024);

// Where an executable lives: `name` itself when it holds a "/", else the
// first match on PATH. Nothing when it cannot be found or run.
std::optional<std::string> findExecutable(const std::string& name);

}  // namespace vigilo
