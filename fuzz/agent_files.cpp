// The agents' own settings files as a person may have left them, edited by
// connecting and disconnecting Vigilo and by turning Approve everything on
// and off. The first byte of the input picks the file, the rest is its
// content; the TOML line editor and the JSON edits also see the bytes
// directly.
#include <array>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "agents/claude_hooks.h"
#include "agents/careful_file.h"
#include "fuzz_target.h"
#include "integrations/ai_connect.h"
#include "integrations/auto_approve.h"
#include "integrations/toml_top.h"
#include "platform/clock.h"

VIGILO_FUZZ_TARGET(agent_files) {
  using namespace vigilo;
  if (input.empty()) return;
  const std::string& folder = vigilo::fuzz::scratchFolder("agent_files");
  AgentPlaces places;
  places.home = folder + "/home";
  places.configHome = folder + "/home/.config";
  places.systemClaudePaths = {};
  const std::array<std::string, 4> paths = {places.claudeSettings(), places.claudeJson(), places.codexConfig(),
                                            places.claudeAppConfig()};
  const std::string content(input.substr(1));
  vigilo::fuzz::put(paths[static_cast<unsigned char>(input[0]) % paths.size()], content);
  // The other agents are installed with no settings yet.
  for (const std::string& p : paths) std::filesystem::create_directories(std::filesystem::path(p).parent_path());

  // The pure edits, straight over the bytes.
  (void)TOMLTop::check(content, {"approval_policy", "sandbox_mode"});
  (void)TOMLTop::set(content, "approval_policy", std::string("approval_policy = \"never\""));
  (void)TOMLTop::set(content, "sandbox_mode", std::nullopt);
  (void)TOMLTop::value(content, "approval_policy");
  (void)AutoApprove::codexOn(content);
  (void)AIConnect::codexInlineVigilo(content);
  (void)AIConnect::withoutCodexTable(content);
  if (auto settings = parseJsonObject(content)) {
    (void)AutoApprove::claudeOn(*settings);
    (void)ClaudeHooks::installed(*settings, "vigilo event claude-code");
    (void)ClaudeHooks::without(*settings);
  }

  // Connecting and disconnecting, with the claude tool failing so the files
  // are edited directly.
  AIConnect connect(places, [](const std::string&, const std::vector<std::string>&) { return 1; });
  ServerCommand server{"/usr/local/bin/vigilo", {"mcp"}, {}};
  (void)AIConnect::withCodexTable(content, server);
  (void)connect.connectClaudeCode(server, "/usr/local/bin/vigilo event claude-code");
  (void)connect.connectCodex(server);
  (void)connect.connectClaudeApp(server);
  (void)connect.claudeCodeConnected();
  (void)connect.codexConnected();
  (void)connect.claudeAppConnected();
  (void)connect.disconnectAll();

  // Approve everything on and off over the same files.
  ManualClock clock;
  AutoApprove approve(folder + "/app", places, clock);
  std::filesystem::create_directories(folder + "/app");
  (void)approve.turnOn(AutoApprove::Ends::Manual, std::nullopt);
  (void)approve.status();
  (void)approve.turnOff();
}
