#include "integrations/toml_check.h"

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
