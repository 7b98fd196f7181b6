#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "engine/state_files.h"
#include "platform/processes.h"

namespace vigilo {

// What is found at a record's name in the app folder: nothing when it is
// missing, its bytes when it is a regular file of at most `limit` bytes, and
// `damaged` when something else is there (a folder or a link in its place, a
// file too large or unreadable). The caller also counts bytes that do not
// parse as the record as damaged.
struct RecordRead {
  std::optional<std::string> bytes;
  bool damaged = false;
};
RecordRead readRecord(const StateFiles& files, std::string_view name, std::size_t limit = 16 * 1024 * 1024);

// Renames a damaged record to "<stem>.broken-<n><extension>" (<n> the time
// in whole seconds, then "-2", "-3"… when taken), so that it is neither read
// again nor written over and the person can look at it; gives the new name,
// or nothing when it couldn't be moved.
std::optional<std::string> setRecordAside(const StateFiles& files, std::string_view name, Time now);

// Sets a damaged record aside and says so in plain English: "<what>
// (<name>) was damaged and was set aside as <copy>; <outcome>."
std::string setAsideDamaged(const StateFiles& files, std::string_view name, std::string_view what,
                            std::string_view outcome, Time now);

// The setting a "powermode-restore" record names ("<key> <value>" and a
// line end), or nothing when it holds anything Vigilo never writes.
std::optional<std::pair<std::string, int>> powerModeRecord(std::string_view text);
// The "powermode-restore" record of a setting, as powerModeRecord reads it.
std::string powerModeRecordText(const std::string& key, int value);

// The "brightness-restore" record of a level (0 to 1), and the level to put
// back that a record names: nothing when it names none; a level that was
// dark (a session that began on a dark screen) puts back a half-bright
// screen, never a black one.
std::string brightnessRecordText(double level);
std::optional<double> brightnessRecord(std::string_view text);

// Continues the paused processes that "resume-pids" names and that still
// run the recorded program (without a start time, the program's name is all
// that tells a reused pid, as for the watchdog script): what can still be
// put back when "touched.json" is damaged. Gives the lines of those that
// could not be continued.
std::vector<std::string> undoResumePids(const StateFiles& files, Processes& processes);

}  // namespace vigilo
