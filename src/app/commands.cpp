#include "app/commands.h"

#include <cstdio>
#include <string_view>

namespace vigilo {
namespace {

struct Subcommand {
  std::string_view name;
  int (*run)(const std::vector<std::string>& args);
  std::string_view summary;
};

int printHelp(const std::vector<std::string>&);

constexpr Subcommand kSubcommands[] = {
    {"app", runApp, "run Vigilo itself in the foreground (--simulate FILE, --preview)"},
    {"help", printHelp, "show this help"},
};

int printHelp(const std::vector<std::string>&) {
  std::printf("Vigilo keeps the computer awake while your coding agents work.\n\nUsage: vigilo <command> [options]\n\n");
  for (const Subcommand& c : kSubcommands) {
    std::printf("  %-6s %.*s\n", std::string(c.name).c_str(), static_cast<int>(c.summary.size()), c.summary.data());
  }
  return 0;
}

}  // namespace

int vigiloMain(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  if (args.empty() || args[0] == "--help" || args[0] == "-h") return printHelp({});
  const std::string name = args[0];
  args.erase(args.begin());
  for (const Subcommand& c : kSubcommands) {
    if (c.name == name) return c.run(args);
  }
  std::fprintf(stderr, "vigilo: unknown command \"%s\". Run \"vigilo help\" for the list.\n", name.c_str());
  return 2;
}

}  // namespace vigilo
