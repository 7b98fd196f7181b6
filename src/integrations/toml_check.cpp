#include "integrations/toml_check.h"

#include <algorithm>
#include <string>

// The reader states some of its parser's assumptions as assertions, and a
// malformed table header ("[{", "[=") breaks one: with assertions on that
// aborts, and under NDEBUG it becomes an optimiser assumption, undefined
// behaviour. The parser reports those inputs as errors right after, so here
// its assertions check nothing and assume nothing.
#undef NDEBUG
#define TOML_ASSERT(expr) static_cast<void>(0)
// Only this file parses whole TOML documents; the library is compiled in
// here rather than linked, so the executable needs nothing more at run time.
#define TOML_HEADER_ONLY 1
#include <toml++/toml.h>

namespace vigilo {
namespace {

// The line of the first byte beyond ASCII that stands outside strings and
// comments, or 0 for none. TOML allows such characters only inside those,
// and the reader reaches a point it marks unreachable on some of them
// ("aȾ = 1"), so they are refused before it sees them.
std::size_t strayNonAscii(std::string_view t) {
  std::size_t line = 1;
  for (std::size_t i = 0; i < t.size(); ++i) {
    const char c = t[i];
    if (c == '\n') {
      ++line;
    } else if (c == '#') {
      while (i + 1 < t.size() && t[i + 1] != '\n') ++i;
    } else if (c == '"' || c == '\'') {
      const bool multi = t.compare(i, 3, std::string(3, c)) == 0;
      for (i += multi ? 3 : 1; i < t.size(); ++i) {
        if (t[i] == '\n') {
          ++line;
          if (!multi) break;  // not TOML; the reader says where
        } else if (c == '"' && t[i] == '\\' && i + 1 < t.size()) {
          if (t[++i] == '\n') ++line;
        } else if (t[i] == c) {
          std::size_t run = 1;
          while (i + run < t.size() && t[i + run] == c) ++run;
          // A multi-line string's closing three may follow up to two quotes
          // of its content.
          if (!multi || run >= 3) {
            i += (multi ? std::min<std::size_t>(run, 5) : 1) - 1;
            break;
          }
          i += run - 1;
        }
      }
    } else if (static_cast<unsigned char>(c) >= 0x80) {
      return line;
    }
  }
  return 0;
}

}  // namespace

TomlCheck checkToml(std::string_view text) {
  TomlCheck out;
  if (const std::size_t line = strayNonAscii(text)) {
    out.problem = "line " + std::to_string(line) + ": a character beyond ASCII stands outside quotes";
    return out;
  }
  try {
    const toml::table doc = toml::parse(text);
    out.valid = true;
    const toml::node* vigilo = doc.at_path("mcp_servers.vigilo").node();
    out.hasVigilo = vigilo != nullptr;
    if (const toml::table* t = vigilo ? vigilo->as_table() : nullptr) {
      if (auto command = (*t)["command"].value<std::string>()) out.vigiloCommand = *command;
    }
  } catch (const toml::parse_error& e) {
    out.problem = "line " + std::to_string(e.source().begin.line) + ": " + std::string(e.description());
  }
  return out;
}

}  // namespace vigilo
