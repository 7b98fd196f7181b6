#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vigilo {

// A full TOML parse of Codex's config.toml, beside the line editor: Vigilo
// edits only a file that parses, and checks that its edit parses too.
struct TomlCheck {
  bool valid = false;
  std::string problem;  // why it doesn't parse: "line 3: …", for Failed
  // mcp_servers.vigilo.command when it is a string.
  std::optional<std::string> vigiloCommand;
  bool hasVigilo = false;  // mcp_servers.vigilo is there in any form
};

TomlCheck checkToml(std::string_view text);

}  // namespace vigilo
