#include "commands/command_table.h"

#include <cstdio>

#include "commands/cli.h"
#include "commands/settings_schema.h"

namespace vigilo {
namespace {

WordSlot fixed(std::vector<std::string> choices) { return {WordKind::Fixed, std::move(choices)}; }
WordSlot any() { return {}; }
WordSlot of(WordKind kind) { return {kind, {}}; }

std::vector<CommandDoc> makeTable() {
  const std::vector<std::string> json{"--json"};
  std::vector<CommandDoc> t;
  auto add = [&t](CommandDoc d) { t.push_back(std::move(d)); };
  add({"status", "[--json]", "", json, {}});
  add({"auto", "[--json]", "", json, {}});
  add({"off", "[--json]", "", json, {}});
  add({"on", "[--for 2h] [--json]", "", {"--for", "--json"}, {}});
  add({"always", "[--for 2h] [--json]", "", {"--for", "--json"}, {}});
  add({"sleep", "[--json]", "", json, {}});
  add({"hold", "[--for 90m] [--reason text] [--pid N] [--json]", "", {"--for", "--reason", "--pid", "--json"}, {}});
  add({"release", "[id] [--json]", "", json, {}});
  add({"wake-at", "HH:MM [--for 30m] | off [--json]", "", {"--for", "--json"}, {fixed({"off"})}});
  add({"check-in", "0|15|30|60 [--json]", "", json, {fixed({"0", "15", "30", "60"})}});
  add({"run", "[--reason text] -- cmd [args...]", "", {"--reason"}, {of(WordKind::Program)}});
  add({"preset", "max_battery|balanced|full_speed [--json]", "what other apps do while the lid is closed", json,
       {fixed({"max_battery", "balanced", "full_speed"})}});
  add({"rule", "<app> leave|slow|pause|default [--json]", "", json, {any(), fixed({"leave", "slow", "pause", "default"})}});
  add({"watch", "<app> [--json]", "", json, {}});
  add({"unwatch", "<app> [--json]", "", json, {}});
  add({"set", "<key> <value> [--json]", "", json, {of(WordKind::Setting), any()}});
  add({"settings", "[--json]", "", json, {}});
  add({"power", "[--json] | test [--detailed] [--screen] [--json] | test stop", "",
       {"--json", "--detailed", "--screen"}, {fixed({"test"}), fixed({"stop"})}});
  add({"connect", "[claude|codex|gemini|claude-app]", "", {}, {fixed({"claude", "codex", "gemini", "claude-app"})}});
  add({"prompt", "[--json]", "", json, {}});
  add({"anyway", "off [--json]", "", json, {fixed({"off"})}});
  add({"measure", "[--json]", "", json, {}});
  add({"doctor", "[--json]", "", json, {}});
  add({"rescue", "", "", {}, {}});
  add({"energy", "[--json]", "", json, {}});
  add({"config", "[--json]", "", json, {}});
  add({"open", "[now|power|settings|setup] [--json]", "", json, {fixed({"now", "power", "settings", "setup"})}});
  add({"mcp", "", "", {}, {}});
  add({"event", "claude-code|codex|gemini [json]", "", {}, {fixed({"claude-code", "codex", "gemini"})}});
  // Left out of the overview, documented here and in the man page.
  auto unlisted = [&add](CommandDoc d) {
    d.listed = false;
    add(std::move(d));
  };
  unlisted({"app", "[--simulate FILE] [--preview]", "run Vigilo itself in the foreground until Ctrl-C",
            {"--simulate", "--preview"}, {}, false, false, true});
  unlisted({"apps", "[--json]", "what the closed-lid session slows or pauses right now, and what isn't put back yet",
            json, {}});
  unlisted({"approve", "[on [--for 2h] | until-done | off] [--json]",
            "Approve everything: Claude Code and Codex stop asking for permission; alone, whether it is on",
            {"--for", "--json"}, {fixed({"on", "until-done", "off"})}});
  unlisted({"disconnect", "", "take Vigilo's MCP server out of your agents' settings again", {}, {}});
  unlisted({"setup", "[--yes] | --remove [--yes]",
            "the one-time setup: the watchdog, the command link and the sleep permission; --remove takes it away",
            {"--yes", "--remove"}, {}});
  unlisted({"pair", "[--relay URL] [--page URL] [--no-qr] | --list [--json] | --revoke <id> | --all | --off | --on",
            "pair a phone that then controls Vigilo over an encrypted channel, or list, revoke and pause phones",
            {"--relay", "--page", "--no-qr", "--list", "--json", "--revoke", "--all", "--off", "--on"}, {},
            false, false, true});
  unlisted({"snapshot", "<file.png> [--json]", "draw the panel into a PNG, without a window", json,
            {of(WordKind::File)}});
  unlisted({"island", "<title> [subtitle] [--json]", "show one short announcement (a desktop notification)", json, {}});
  unlisted({"help", "[command]", "the list of commands, or one command's help", {}, {of(WordKind::Command)}});
  unlisted({"completion", "bash|zsh|fish", "print the shell completion script for that shell", {},
            {fixed({"bash", "zsh", "fish"})}});
  unlisted({"manpage", "", "print the manual page vigilo(1) in roff", {}, {}});
  // Run by Vigilo itself.
  unlisted({"panel", "[--page now|power|settings|setup] [--snapshot FILE]",
            "the panel window's own process, started by the app", {}, {}, false, true, true});
  unlisted({"watchdog", "", "what the watchdog runs when the app stopped beating: puts everything back", {}, {},
            false, true});
  return t;
}

// The overview line's command column and description.
struct OverviewLine {
  std::string command;      // "vigilo hold [--for 90m] ..."
  std::string description;  // may be empty
};

// Splits the help into its command lines; a continuation line adds its
// text to the description of the line above.
std::vector<std::pair<std::vector<std::string>, OverviewLine>> overview(const std::string& help) {
  std::vector<std::pair<std::vector<std::string>, OverviewLine>> out;
  std::size_t start = 0;
  while (start < help.size()) {
    std::size_t end = help.find('\n', start);
    if (end == std::string::npos) end = help.size();
    const std::string line = help.substr(start, end - start);
    start = end + 1;
    const std::string lead = "  vigilo ";
    if (line.rfind(lead, 0) == 0) {
      const std::size_t gap = line.find("  ", lead.size());
      OverviewLine entry;
      entry.command = line.substr(2, gap == std::string::npos ? std::string::npos : gap - 2);
      if (gap != std::string::npos) entry.description = line.substr(line.find_first_not_of(' ', gap));
      // The names: "status", "on|always", "auto | off", "watch|unwatch".
      std::vector<std::string> names;
      std::string rest = entry.command.substr(lead.size() - 2);
      std::size_t i = 0;
      auto word = [&] {
        std::size_t j = rest.find_first_of(" |", i);
        std::string w = rest.substr(i, j == std::string::npos ? std::string::npos : j - i);
        i = j == std::string::npos ? rest.size() : j;
        return w;
      };
      names.push_back(word());
      while (i < rest.size()) {
        if (rest.compare(i, 3, " | ") == 0) {
          i += 3;
        } else if (rest[i] == '|') {
          i += 1;
        } else {
          break;
        }
        names.push_back(word());
      }
      out.push_back({names, entry});
    } else if (!out.empty() && line.size() > 4 && line.rfind("    ", 0) == 0 && line.find_first_not_of(' ') != std::string::npos) {
      auto& d = out.back().second.description;
      d += (d.empty() ? "" : " ") + line.substr(line.find_first_not_of(' '));
    }
  }
  return out;
}

std::string roffEscape(const std::string& text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '\\') {
      out += "\\e";
    } else if (c == '-') {
      out += "\\-";
    } else if ((c == '.' || c == '\'') && (i == 0 || text[i - 1] == '\n')) {
      out += "\\&";
      out += c;
    } else {
      out += c;
    }
  }
  return out;
}

// The names the completions offer: every command but Vigilo's own.
std::vector<const CommandDoc*> offered() {
  std::vector<const CommandDoc*> out;
  for (const CommandDoc& c : commandTable()) {
    if (!c.internal) out.push_back(&c);
  }
  return out;
}

std::string joined(const std::vector<std::string>& words, const std::string& by = " ") {
  std::string out;
  for (const auto& w : words) out += (out.empty() ? "" : by) + w;
  return out;
}

bool takesValue(const std::string& flag) {
  for (const FlagDoc& f : flagTable()) {
    if (f.flag == flag) return !f.value.empty();
  }
  return false;
}

std::string valuedFlags() {
  std::vector<std::string> out;
  for (const FlagDoc& f : flagTable()) {
    if (!f.value.empty()) out.push_back(f.flag);
  }
  return joined(out, "|");
}

}  // namespace

const std::vector<CommandDoc>& commandTable() {
  static const std::vector<CommandDoc> table = makeTable();
  return table;
}

const CommandDoc* findCommand(std::string_view name) {
  for (const CommandDoc& c : commandTable()) {
    if (c.name == name) return &c;
  }
  return nullptr;
}

const std::vector<FlagDoc>& flagTable() {
  static const std::vector<FlagDoc> flags = {
      {"--json", "", "print the whole answer as JSON, for scripts"},
      {"--for", "D", "for how long: 90m, 2h or 1h30m (a bare number is minutes)"},
      {"--reason", "text", "the reason shown while it keeps awake"},
      {"--pid", "N", "also end when process N exits"},
      {"--detailed", "", "the longer power test (~12 min) that measures each saving on its own"},
      {"--screen", "", "let the power test also switch the screen"},
      {"--yes", "", "don't ask before installing what needs the administrator"},
      {"--remove", "", "take the setup away again"},
      {"--simulate", "FILE", "run on the simulated laptop whose state lives in FILE"},
      {"--preview", "", "decide and show, but switch nothing and write no state files"},
      {"--relay", "URL", "the ntfy server the phone channel goes through"},
      {"--page", "URL", "the phone page the pairing link opens"},
      {"--no-qr", "", "print the pairing link without its QR code"},
      {"--list", "", "the paired phones"},
      {"--revoke", "id", "unpair one phone"},
      {"--all", "", "unpair every phone"},
      {"--off", "", "stop reading phone commands"},
      {"--on", "", "read phone commands again"},
  };
  return flags;
}

std::vector<std::string> overviewLines(const std::string& help, const std::string& name) {
  std::vector<std::string> out;
  bool inside = false;
  std::size_t start = 0;
  while (start < help.size()) {
    std::size_t end = help.find('\n', start);
    if (end == std::string::npos) end = help.size();
    const std::string line = help.substr(start, end - start);
    start = end + 1;
    if (line.rfind("  vigilo ", 0) == 0) {
      inside = false;
      for (const auto& [names, entry] : overview(line + "\n")) {
        for (const auto& n : names) inside = inside || n == name;
      }
      if (inside) out.push_back(line);
    } else if (inside && line.rfind("    ", 0) == 0 && line.find_first_not_of(' ') != std::string::npos) {
      out.push_back(line);
    } else {
      inside = false;
    }
  }
  return out;
}

std::string commandHelp(const CommandDoc& command, const std::string& help) {
  std::string out;
  auto lines = overviewLines(help, command.name);
  if (lines.empty()) {
    std::string head = "  vigilo " + command.name + (command.usage.empty() ? "" : " " + command.usage);
    out += head + "\n" + std::string(36, ' ') + command.summary + "\n";
  } else {
    for (const auto& l : lines) out += l + "\n";
  }
  out += "\nUsage: vigilo " + command.name + (command.usage.empty() ? "" : " " + command.usage) + "\n";
  if (!command.flags.empty()) {
    out += "\nOptions:\n";
    for (const std::string& flag : command.flags) {
      for (const FlagDoc& f : flagTable()) {
        if (f.flag != flag) continue;
        std::string left = "  " + f.flag + (f.value.empty() ? "" : " " + f.value);
        left.resize(std::max<std::size_t>(left.size() + 2, 18), ' ');
        out += left + f.text + "\n";
      }
    }
  }
  return out;
}

std::optional<int> answerHelp(const std::vector<std::string>& args, const std::string& version,
                              const MachineWords& words) {
  const std::string help = helpText(words);
  auto print = [](const std::string& text) {
    std::fputs(text.c_str(), stdout);
    std::fflush(stdout);
  };
  if (args.empty()) return std::nullopt;
  const std::string& first = args[0];
  if (first == "--version") {
    print("vigilo " + version + "\n");
    return 0;
  }
  if (first == "help" || first == "-h" || first == "--help") {
    if (first != "help" || args.size() == 1) {
      print(help);
      return 0;
    }
    const CommandDoc* c = findCommand(args[1] == "--help" || args[1] == "-h" ? "help" : args[1]);
    if (c == nullptr) {
      std::fprintf(stderr, "vigilo: unknown command \"%s\". Run \"vigilo help\" for the commands.\n", args[1].c_str());
      return 2;
    }
    print(commandHelp(*c, help));
    return 0;
  }
  const CommandDoc* c = findCommand(first);
  if (c == nullptr) return std::nullopt;
  // What the build installs, printed from this table without touching the
  // app folder.
  if (first == "completion" || first == "manpage") {
    const std::string shell = args.size() == 2 ? args[1] : "";
    if (first == "manpage" && args.size() == 1) {
      print(manPage(help));
    } else if (first == "completion" && (shell == "bash" || shell == "zsh" || shell == "fish")) {
      print(shell == "bash" ? bashCompletion() : shell == "zsh" ? zshCompletion(help) : fishCompletion(help));
    } else if (args.size() == 2 && (args[1] == "--help" || args[1] == "-h")) {
      print(commandHelp(*c, help));
    } else {
      std::fprintf(stderr, "vigilo: usage: vigilo %s\n", (c->name + (c->usage.empty() ? "" : " " + c->usage)).c_str());
      return 2;
    }
    return 0;
  }
  for (std::size_t i = 1; i < args.size(); ++i) {
    if (args[i] == "--") break;
    // A valued flag's value may itself read "--help" (a hold's reason).
    if (takesValue(args[i])) {
      ++i;
      continue;
    }
    if (args[i] == "--help" || args[i] == "-h") {
      print(commandHelp(*c, help));
      return 0;
    }
  }
  return std::nullopt;
}

std::string manPage(const std::string& help) {
  std::string m;
  m += ".TH VIGILO 1 \"\" \"Vigilo\" \"User Commands\"\n";
  m += ".SH NAME\nvigilo \\- keep a laptop awake while coding agents work, and let it sleep when they are done\n";
  m += ".SH SYNOPSIS\n.B vigilo\n.I command\n.RI [ arguments ]\n.br\n.B vigilo app\n.RB [ \\-\\-simulate\n"
       ".IR FILE ]\n.RB [ \\-\\-preview ]\n.br\n.B vigilo \\-\\-version\n";
  m += ".SH DESCRIPTION\n";
  const std::string first = help.substr(0, help.find('\n'));
  m += roffEscape(first.rfind("vigilo: ", 0) == 0 ? first.substr(8) : first) + "\n";
  m += ".PP\n"
       "The same executable is the app (\\fBvigilo app\\fR), the command-line tool that talks to it, the MCP server "
       "for agents (\\fBvigilo mcp\\fR) and the hook agents run (\\fBvigilo event\\fR). Nearly every command is one "
       "request to the running app, which the tool starts when none answers.\n";
  m += ".SH COMMANDS\n";
  for (const auto& [names, entry] : overview(help)) {
    std::string description = entry.description;
    if (description.empty()) {
      if (const CommandDoc* c = findCommand(names[0])) description = c->summary;
    }
    m += ".TP\n\\fB" + roffEscape(entry.command) + "\\fR\n" + roffEscape(description) + "\n";
  }
  m += ".SH OTHER COMMANDS\n";
  for (const CommandDoc& c : commandTable()) {
    if (c.listed) continue;
    m += ".TP\n\\fB" + roffEscape("vigilo " + c.name + (c.usage.empty() ? "" : " " + c.usage)) + "\\fR\n" +
         roffEscape(c.summary) + "\n";
  }
  m += ".SH OPTIONS\nFlags may stand anywhere after the command; \\fBvigilo help\\fR \\fIcommand\\fR (or "
       "\\fIcommand\\fR \\fB\\-\\-help\\fR) lists the ones each command takes.\n";
  for (const FlagDoc& f : flagTable()) {
    m += ".TP\n.B " + roffEscape(f.flag) + (f.value.empty() ? "" : " \\fI" + roffEscape(f.value) + "\\fR") + "\n" +
         roffEscape(f.text) + "\n";
  }
  m += ".TP\n.B \\-\\-help\\fR, \\fB\\-h\nthe command's help\n";
  m += ".TP\n.B \\-\\-version\nthe version, and the commit it was built from\n";
  m += ".SH EXIT STATUS\n0 on success; 1 when the app refused (the reason is printed); 2 for a usage error; "
       "\\fBvigilo run\\fR exits with its command's status, or 127 when the command can't start.\n";
  m += ".SH ENVIRONMENT\n"
       ".TP\n.B VIGILO_HOME\nthe app folder (default \\fI${XDG_DATA_HOME:\\-~/.local/share}/vigilo\\fR)\n"
       ".TP\n.B VIGILO_SIMULATE\nthe simulated laptop's state file for an app the tool starts\n"
       ".TP\n.B VIGILO_NO_AUTOSTART\nwhen 1, the tool never starts the app\n";
  m += ".SH FILES\n"
       ".TP\n.I ~/.local/share/vigilo/config.json\nthe settings (\\fBvigilo config\\fR prints its path)\n"
       ".TP\n.I ~/.local/share/vigilo/\nthe app folder: state, the records of every change Vigilo made, replies\n";
  m += ".SH SEE ALSO\n.BR systemctl (1),\n.BR journalctl (1)\n";
  return m;
}

std::string bashCompletion() {
  std::string names;
  for (const CommandDoc* c : offered()) names += (names.empty() ? "" : " ") + c->name;
  std::string s;
  s += "# bash completion for vigilo, written by `vigilo completion bash`.\n";
  s += "_vigilo() {\n";
  s += "  local cur=\"${COMP_WORDS[COMP_CWORD]}\" prev=\"${COMP_WORDS[COMP_CWORD-1]}\"\n";
  s += "  COMPREPLY=()\n";
  s += "  if [ \"$COMP_CWORD\" -eq 1 ]; then\n";
  s += "    COMPREPLY=($(compgen -W \"" + names + " --help --version\" -- \"$cur\"))\n";
  s += "    return 0\n  fi\n";
  s += "  local i command=\"${COMP_WORDS[1]}\" pos=0\n";
  // Words after "--" belong to the command `run` starts.
  s += "  for ((i = 2; i < COMP_CWORD; i++)); do\n";
  s += "    case \"${COMP_WORDS[i]}\" in\n";
  s += "      --) [ \"$command\" = run ] && { COMPREPLY=($(compgen -c -- \"$cur\" | sort -u)); [ $((COMP_CWORD - i)) -gt 1 ] "
       "&& COMPREPLY=($(compgen -f -- \"$cur\")); return 0; } ;;\n";
  s += "      " + valuedFlags() + ") ((i++)) ;;\n";
  s += "      -*) ;;\n";
  s += "      *) ((pos++)) ;;\n";
  s += "    esac\n  done\n";
  s += "  case \"$prev\" in\n";
  s += "    --simulate) COMPREPLY=($(compgen -f -- \"$cur\")); return 0 ;;\n";
  s += "    " + valuedFlags() + ") return 0 ;;\n";
  s += "  esac\n";
  s += "  case \"$command\" in\n";
  for (const CommandDoc* c : offered()) {
    std::string flags = joined(c->flags);
    s += "    " + c->name + ")\n";
    s += "      if [[ \"$cur\" == -* ]]; then COMPREPLY=($(compgen -W \"" + flags + " --help\" -- \"$cur\")); return 0; fi\n";
    if (c->words.empty()) {
      s += "      ;;\n";
      continue;
    }
    s += "      case $pos in\n";
    for (std::size_t p = 0; p < c->words.size(); ++p) {
      const WordSlot& w = c->words[p];
      std::string action;
      switch (w.kind) {
        case WordKind::None: continue;
        case WordKind::Fixed: action = "COMPREPLY=($(compgen -W \"" + joined(w.choices) + "\" -- \"$cur\"))"; break;
        case WordKind::Setting: action = "COMPREPLY=($(compgen -W \"" + joined(SettingsSchema::keys()) + "\" -- \"$cur\"))"; break;
        case WordKind::Command: action = "COMPREPLY=($(compgen -W \"" + names + "\" -- \"$cur\"))"; break;
        case WordKind::File:
          action = "compopt -o filenames 2>/dev/null; COMPREPLY=($(compgen -f -- \"$cur\"))";
          break;
        case WordKind::Program: action = "COMPREPLY=($(compgen -W \"--\" -- \"$cur\"))"; break;
      }
      s += "        " + std::to_string(p) + ") " + action + " ;;\n";
    }
    s += "      esac\n      ;;\n";
  }
  s += "  esac\n  return 0\n}\n";
  s += "complete -F _vigilo vigilo\n";
  return s;
}

// A command's one-line summary: its own, else its last description in the
// help's overview.
static std::string summaryOf(const CommandDoc& c, const std::string& help) {
  if (!c.summary.empty()) return c.summary;
  std::string text;
  for (const auto& [names, entry] : overview(help)) {
    for (const auto& n : names) {
      if (n == c.name) text = entry.description;
    }
  }
  return text;
}

std::string zshCompletion(const std::string& help) {
  std::string s = "#compdef vigilo\n# zsh completion for vigilo, written by `vigilo completion zsh`.\n\n";
  s += "_vigilo() {\n  local -a commands\n  commands=(\n";
  for (const CommandDoc* c : offered()) {
    std::string text = summaryOf(*c, help);
    if (text.empty()) text = c->usage;
    std::string escaped;
    for (char ch : text) {
      if (ch == '\'') {
        escaped += "'\\''";
      } else if (ch == ':') {
        escaped += "\\:";
      } else {
        escaped += ch;
      }
    }
    s += "    '" + c->name + ":" + escaped + "'\n";
  }
  s += "  )\n";
  s += "  if (( CURRENT == 2 )); then\n    _describe -t commands 'vigilo command' commands\n    return\n  fi\n";
  s += "  local command=${words[2]}\n";
  s += "  if [[ $PREFIX == -* ]]; then\n    case $command in\n";
  for (const CommandDoc* c : offered()) {
    if (!c->flags.empty()) s += "      " + c->name + ") compadd -- " + joined(c->flags) + " --help ;;\n";
  }
  s += "    esac\n    return\n  fi\n";
  s += "  case ${words[CURRENT-1]} in\n    --simulate) _files; return ;;\n    " + valuedFlags() +
       ") return ;;\n  esac\n";
  s += "  local -i pos=0 i\n  for (( i = 3; i < CURRENT; i++ )); do\n    case ${words[i]} in\n"
       "      --) [[ $command == run ]] && { (( CURRENT == i + 1 )) && _command_names || _files; return; } ;;\n      " +
       valuedFlags() + ") (( i++ )) ;;\n      -*) ;;\n      *) (( pos++ )) ;;\n    esac\n  done\n";
  s += "  case $command in\n";
  for (const CommandDoc* c : offered()) {
    if (c->words.empty()) continue;
    s += "    " + c->name + ")\n      case $pos in\n";
    for (std::size_t p = 0; p < c->words.size(); ++p) {
      const WordSlot& w = c->words[p];
      std::string what;
      switch (w.kind) {
        case WordKind::None: continue;
        case WordKind::Fixed: what = "compadd -- " + joined(w.choices); break;
        case WordKind::Setting: what = "compadd -- " + joined(SettingsSchema::keys()); break;
        case WordKind::Command: what = "_describe -t commands 'vigilo command' commands"; break;
        case WordKind::File: what = "_files"; break;
        case WordKind::Program: what = "compadd -- --"; break;
      }
      s += "        " + std::to_string(p) + ") " + what + " ;;\n";
    }
    s += "      esac\n      ;;\n";
  }
  s += "  esac\n}\n\n_vigilo \"$@\"\n";
  return s;
}

std::string fishCompletion(const std::string& help) {
  std::string s = "# fish completion for vigilo, written by `vigilo completion fish`.\n";
  std::string names;
  for (const CommandDoc* c : offered()) names += (names.empty() ? "" : " ") + c->name;
  s += "complete -c vigilo -f\n";
  s += "complete -c vigilo -n '__fish_use_subcommand' -l version -d 'the version'\n";
  for (const CommandDoc* c : offered()) {
    const std::string text = summaryOf(*c, help);
    std::string escaped;
    for (char ch : text) escaped += ch == '\'' ? std::string("\\'") : std::string(1, ch);
    s += "complete -c vigilo -n '__fish_use_subcommand' -a " + c->name + " -d '" + escaped + "'\n";
    const std::string when = "'__fish_seen_subcommand_from " + c->name + "'";
    for (const std::string& flag : c->flags) {
      s += "complete -c vigilo -n " + when + " -l " + flag.substr(2) + (takesValue(flag) ? " -r" : "") + "\n";
    }
    // Fish offers each word slot's choices after the command; the first
    // slot is what people complete most.
    if (!c->words.empty()) {
      const WordSlot& w = c->words[0];
      switch (w.kind) {
        case WordKind::Fixed:
          s += "complete -c vigilo -n " + when + " -a '" + joined(w.choices) + "'\n";
          break;
        case WordKind::Setting:
          s += "complete -c vigilo -n " + when + " -a '" + joined(SettingsSchema::keys()) + "'\n";
          break;
        case WordKind::Command:
          s += "complete -c vigilo -n " + when + " -a '" + names + "'\n";
          break;
        case WordKind::File:
          s += "complete -c vigilo -n " + when + " -F\n";
          break;
        case WordKind::Program:
        case WordKind::None:
          break;
      }
      if (c->words.size() > 1 && c->words[1].kind == WordKind::Fixed) {
        s += "complete -c vigilo -n " + when + " -a '" + joined(c->words[1].choices) + "'\n";
      }
    }
  }
  return s;
}

}  // namespace vigilo
