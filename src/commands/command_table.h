#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vigilo {

struct MachineWords;

// What a command's words after its name complete to, one entry per
// position (the last repeats).
enum class WordKind {
  None,      // nothing to offer
  Fixed,     // the entry's `choices`
  Setting,   // a settings key (from the settings schema)
  Command,   // a command name (`help <command>`)
  File,      // a file name
  Program,   // a program on PATH, then its arguments (`run -- cmd`)
};

struct WordSlot {
  WordKind kind = WordKind::None;
  std::vector<std::string> choices;  // for Fixed
};

// One command of the `vigilo` executable. Every front end that names the
// commands reads this table: the dispatcher (an unlisted name is unknown),
// `vigilo help <command>`, `<command> --help`, the man page and the shell
// completions.
struct CommandDoc {
  std::string name;
  // The arguments after the name, as the man page and the per-command help
  // show them ("[--for 90m] [--reason text] [--pid N]").
  std::string usage;
  // One line for commands the overview help leaves out; the ones it lists
  // take their line(s) from it, so the two can't disagree.
  std::string summary;
  std::vector<std::string> flags;  // the flags it takes ("--json", "--for"...)
  std::vector<WordSlot> words;
  // In the overview (`vigilo help`); the rest are still documented, with
  // `internal` ones (run by Vigilo itself) left out of the completions.
  bool listed = true;
  bool internal = false;
  // Parses its own arguments (the app, pairing, the panel): flags are not
  // checked against `flags` here.
  bool ownArguments = false;
};

// Every command, in the order the help lists them.
const std::vector<CommandDoc>& commandTable();
// The command named `name`, or null.
const CommandDoc* findCommand(std::string_view name);

// One flag's value placeholder ("D" for --for; empty for a switch) and what
// it does.
struct FlagDoc {
  std::string flag;
  std::string value;
  std::string text;
};
const std::vector<FlagDoc>& flagTable();

// The lines of the overview help that describe `name` (its line and any
// continuation), exactly as `vigilo help` prints them; empty when unlisted.
std::vector<std::string> overviewLines(const std::string& help, const std::string& name);

// `vigilo help <command>` and `vigilo <command> --help`.
std::string commandHelp(const CommandDoc& command, const std::string& help);

// Answers `--version` ("vigilo " and `version`), `help [command]`, `-h`,
// `--help` and `<command> --help`/`-h` (before any "--"), printing to
// standard output; the exit status when the arguments asked for one of them.
std::optional<int> answerHelp(const std::vector<std::string>& args, const std::string& version,
                              const MachineWords& words);

// The man page vigilo(1) in roff, and the completion scripts; `vigilo
// manpage` and `vigilo completion bash|zsh|fish` print them, and the build
// installs what they print.
std::string manPage(const std::string& help);
std::string bashCompletion();
std::string zshCompletion(const std::string& help);
std::string fishCompletion(const std::string& help);

}  // namespace vigilo
