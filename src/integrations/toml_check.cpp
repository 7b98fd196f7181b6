#include "integrations/toml_check.h"

// The reader states some of its parser's assumptions as assertions, and a
// malformed table header ("[{", "[é]") breaks one: with assertions on that
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

TomlCheck checkToml(std::string_view text) {
  TomlCheck out;
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
