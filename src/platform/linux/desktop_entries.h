#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/processes.h"

namespace vigilo {

// The facts of one freedesktop.org desktop entry ("<id>.desktop") that tell
// an app apart: its name and the program it starts.
struct DesktopEntry {
  std::string id;       // the file name without ".desktop"
  std::string path;     // the file
  std::string name;     // Name=
  std::string program;  // the first word of Exec=, after any "env NAME=value"
};

// Parses the [Desktop Entry] group of a desktop file. Nothing for an entry
// that is not a shown application (Type other than Application,
// NoDisplay=true or Hidden=true), has no Exec=, or starts a generic runner
// (a shell, an interpreter, flatpak, env alone): matching processes by such
// a program would make every script an app.
std::optional<DesktopEntry> parseDesktopEntry(std::string_view text, const std::string& id, const std::string& path);

// The desktop entries of the applications folders under `dataDirs`
// (XDG_DATA_HOME first, then XDG_DATA_DIRS), the first of each id winning.
std::vector<DesktopEntry> readDesktopEntries(const std::vector<std::string>& dataDirs);

// The folders desktop entries live in for this user.
std::vector<std::string> xdgDataDirs();

// The entry whose program is the process's executable: the same resolved
// path, or the same file name.
const DesktopEntry* entryFor(const std::vector<DesktopEntry>& entries, const ProcessInfo& p);

}  // namespace vigilo
