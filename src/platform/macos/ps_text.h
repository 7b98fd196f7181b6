#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Pure readers of what /bin/ps prints for the process table (mac_commands.h
// gives the exact argv): each line is one process, its fixed-width columns
// first and its free text last, so a command with spaces can't shift a
// column. Lines that don't fit are skipped, never guessed at.

namespace vigilo {

// "lstart": the start time as ps prints it in the C locale ("Mon Jun 16
// 14:23:09 2025"), in the Mac's local time.
struct PsStart {
  int year = 0;
  int month = 0;  // 1-12
  int day = 0;
  int hour = 0;
  int minute = 0;
  int second = 0;
};

// One line of `ps -axww -o pid=,ppid=,lstart=,time=,stat=,command=`.
struct PsRow {
  std::int32_t pid = 0;
  std::int32_t ppid = 0;
  PsStart started;
  std::uint64_t cpuMicros = 0;  // "time": user + system CPU
  bool stopped = false;         // "stat" begins with T
  std::string command;          // the arguments joined by spaces, as ps shows them
};

std::vector<PsRow> parsePsListing(std::string_view text);

// "time" as ps prints it: "MM:SS.cc" with minutes past 59 as needed, or
// "[DD-]HH:MM:SS[.cc]"; nothing otherwise.
std::optional<std::uint64_t> parsePsCpuTime(std::string_view text);

// `ps -axww -o pid=,comm=`: the executable's full path by pid. A name that
// isn't a full path ("(kernel_task)", a zombie's "<defunct>") is left out.
std::map<std::int32_t, std::string> parsePsPaths(std::string_view text);

// The argv of a process whose executable is `path`: ps joins the arguments
// with spaces, so a path with spaces in it (".../Google Chrome.app/...") is
// taken whole when the command begins with it, and the rest is split at
// spaces; without a path the whole command is split.
std::vector<std::string> splitPsCommand(std::string_view command, std::string_view path);

// The start in microseconds since 1970, read as the Mac's local time;
// nothing for a date that can't be.
std::optional<std::uint64_t> startMicros(const PsStart& start);

}  // namespace vigilo
