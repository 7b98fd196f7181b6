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

// The whole regular file, or nothing when it is missing, unreadable, not a
// regular file or larger than `limit` bytes (so a damaged file cannot
// exhaust memory).
std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit = 16 * 1024 * 1024);

}  // namespace vigilo
