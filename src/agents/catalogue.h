#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agents/agent_types.h"
#include "engine/config.h"

namespace vigilo {

// The built-in agents, in the order that decides ties.
const std::vector<AgentKind>& builtInAgents();
// The Claude desktop app, matched by its bundle id when countClaudeApp is on.
const AgentKind& claudeAppKind();
// Its bundle id; the lid-closed savings never touch it either.
inline constexpr std::string_view kClaudeAppBundle = "com.anthropic.claudefordesktop";

// "node", "bun", "deno", "python", "python3", "Python", or any name that
// begins with "python".
bool isInterpreter(std::string_view executableName);

// The kind a process is, from its executable path and arguments, tried in
// this order, each over the built-in kinds and then `extra` (custom agents):
// - the path's last component is one of a kind's executables, or such a
//   name with a platform after a "-" ("codex-aarch64-apple-darwin");
// - argv[0]'s last component is one (a link named for the agent, or a
//   process title the agent set);
// - the path lies in "<executable>/versions/" (self-updating installs) and
//   argv[0] names no other program;
// - for an interpreter: one of a kind's hints in its first three arguments
//   joined with blanks, else in the script it runs, else the script's name
//   (less ".js" and the like) is an executable, else the script lies in a
//   versions folder.
// A package runner (npx, bunx, pnpm dlx) is no agent: the program it starts
// is. Nothing when it is no agent.
std::optional<AgentKind> matchKind(std::string_view path, const std::vector<std::string>& args,
                                   const std::vector<AgentKind>& extra = {});

// The kinds the person added: custom agents ("custom:<name>", idle at their
// own idleWatts) and watched apps ("app:<name>", 0.15 W).
AgentKind kindFor(const CustomAgent& agent);
AgentKind kindFor(const WatchedApp& app);

// Whether a process holding a sleep assertion is an app the person knows.
bool isUserFacing(std::string_view processName, std::string_view path);
// Requesters whose assertions never count.
bool isIgnoredRequester(std::string_view processName);
// "PreventUserIdleSystemSleep", "PreventSystemSleep", "NoIdleSleepAssertion".
bool isBlockingAssertionType(std::string_view type);

// The last path component.
std::string baseName(std::string_view path);

}  // namespace vigilo
