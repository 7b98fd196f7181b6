#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include "platform/result.h"
#include "platform/text.h"

namespace vigilo {

// Vigilo's own files and folders are private to the user who runs it.
inline constexpr mode_t kPrivateFileMode = 0600;
inline constexpr mode_t kPrivateFolderMode = 0700;

// Writes `data` to "<path>.<pid>.vigilo-tmp", created exclusively and never
// through a symbolic link, with `mode` permissions (0600 when not given),
// exactly, whatever the umask; flushes it to disk and renames it over
// `path`: a reader sees the old file or the new one, never half of one. The
// parent folder must exist.
Result writeFileDurably(const std::string& path, std::string_view data, std::optional<mode_t> mode = std::nullopt);
// The same without the flush to disk: whole or not at all for readers, but
// not meant to survive a power cut (replies read a moment later).
Result writeFileAtomically(const std::string& path, std::string_view data);

// Puts the file `from` in place of `to`, as rename does: a reader finds the
// old file or the new one, never neither. Where it can, it swaps the two
// names and removes the old file instead, since a rename over an existing
// file makes ext4 write the new, unflushed one out to disk at once (its
// guard for programs that forget to flush), which cost an agent's hook most
// of its time and a disk write on every prompt.
bool moveInto(const std::string& from, const std::string& to);

// Creates `path` and any missing parents as folders only the user can enter
// (0700), and makes `path` itself 0700 when it exists with other modes and
// belongs to the user. Fails with a plain-English reason.
Result makePrivateFolder(const std::string& path);

// The whole regular file, or nothing when it is missing, unreadable, not a
// regular file or larger than `limit` bytes (so a damaged file cannot
// exhaust memory).
std::optional<std::string> readWholeFile(const std::string& path, std::size_t limit = 16 * 1024 * 1024);

// Where an executable lives: `name` itself when it holds a "/", else the
// first match on PATH. Nothing when it cannot be found or run.
std::optional<std::string> findExecutable(const std::string& name);

// What follows the last "/" of `path` (all of it when there is none).
std::string_view lastComponent(std::string_view path);
// Whether `path` is a folder or a link to one; false when it can't be read.
bool isFolder(const std::string& path);
// Whether `path` names an entry, a link to nothing included.
bool entryExists(const std::string& path);

}  // namespace vigilo
