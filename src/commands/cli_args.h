#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace vigilo {

// A duration for --for in minutes: a bare number is minutes; otherwise
// numbers (a decimal point allowed) each followed by h or m, in either case,
// summed ("90m", "2h", "1h30m"). Cut to 10080. Nothing when malformed.
std::optional<double> parseDuration(const std::string& text);

namespace cli {

// One command line after its subcommand: flags may stand anywhere; a flag
// that takes a value takes the next argument.
struct Invocation {
  std::vector<std::string> words;              // positional arguments
  std::map<std::string, std::string> values;   // --for, --reason, --pid, --where
  std::map<std::string, bool> switches;        // --json, --detailed, --screen
  std::vector<std::string> command;            // after "--" (run)
  bool sawDashDash = false;
  std::string error;

  bool has(const std::string& flag) const { return switches.count(flag) > 0; }
  std::optional<std::string> value(const std::string& flag) const {
    auto it = values.find(flag);
    if (it == values.end()) return std::nullopt;
    return it->second;
  }
};

// The arguments after the subcommand; `error` says what was wrong with them.
Invocation parse(const std::vector<std::string>& args);

}  // namespace cli
}  // namespace vigilo
