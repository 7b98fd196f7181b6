#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

#include <nlohmann/json_fwd.hpp>

#include "platform/result.h"
#include "platform/text.h"

namespace vigilo {

// An edit of a file that belongs to another program (an agent's settings):
// read the exact bytes, keep a copy of them beside the file, and write the
// new content only if the file still holds those bytes, so that nothing the
// user or the program wrote meanwhile is lost. A file reached through a
// symbolic link is edited where it lives and the link is kept.
class CarefulFile {
 public:
  // How a replacement ended.
  enum class Outcome {
    Written,
    Changed,  // the file no longer holds the bytes read; nothing was written
    Failed,   // reading, backing up or writing failed; `message` says why
  };
  struct WriteResult {
    Outcome outcome = Outcome::Failed;
    std::string message;  // plain English, for Failed
  };

  // Reads `path`. A missing file (or folder) reads as missing and empty.
  // Nothing when it exists but can't be read; `problem` then holds the
  // system's reason ("Permission denied").
  static std::optional<CarefulFile> read(const std::string& path, std::string* problem = nullptr);

  const std::string& path() const { return path_; }
  bool existed() const { return existed_; }
  const std::string& bytes() const { return bytes_; }
  // "<path>.vigilo-backup".
  std::string backupPath() const { return path_ + ".vigilo-backup"; }

  // Writes the bytes read to backupPath(), durably, replacing an older copy,
  // with the file's own permissions (settings may hold secrets). Nothing to
  // do when the file was missing.
  Result backUp() const;

  // Replaces the file with `data`, durably and keeping its permissions, when
  // it still holds exactly the bytes read (or, when it was missing, is still
  // missing: then the folders are created and the file appears whole or not
  // at all). `beforeWrite`, when given, runs just before that check, once the
  // new content waits synced beside the file: tests use it to change the
  // file under the edit.
  WriteResult replace(std::string_view data, const std::function<void()>& beforeWrite = {}) const;
  // Removes the file when it still holds exactly the bytes read (a file
  // Vigilo made that holds nothing else any more).
  WriteResult remove() const;

 private:
  std::string path_;    // as named
  std::string target_;  // where the content lives (the link followed)
  bool existed_ = false;
  std::string bytes_;
  std::optional<mode_t> mode_;
};

// The JSON object in `bytes` with its keys in their order; blank text is an
// empty object. Nothing when `bytes` is anything else (comments, trailing
// text, another JSON type, bad UTF-8, more than 512 levels deep).
std::optional<nlohmann::ordered_json> parseJsonObject(std::string_view bytes);

// `value` indented by two spaces, ending in a newline when `like` (the text
// it replaces) did.
std::string prettyJson(const nlohmann::ordered_json& value, std::string_view like = {});

// `original` (a JSON object's text) changed so that it holds `after`: only
// the members whose values differ are rewritten, removed or added, the new
// text laid out like the file around it; every other byte stays. Blank text
// gives jsonFresh(after).
std::string jsonEdited(std::string_view original, const nlohmann::ordered_json& after);
// `value` as a new file: two spaces per level and a final newline.
std::string jsonFresh(const nlohmann::ordered_json& value);

}  // namespace vigilo
