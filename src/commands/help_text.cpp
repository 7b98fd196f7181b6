#include "commands/cli.h"

#include <utility>

namespace vigilo {

const char* const kHelpText = R"HELP(vigilo: keep your Mac awake with the lid closed, without wasting battery.

  vigilo status [--json]              what it's doing and why
  vigilo auto | off                   switch mode
  vigilo on|always [--for 2h]         keep awake no matter what
  vigilo sleep                        let it sleep now (agents wait until the lid opens again)
  vigilo hold [--for 90m] [--reason "training"] [--pid N]
                                    keep awake until time runs out, the process exits, or release
  vigilo release [id]                 end one hold, or all of them
  vigilo wake-at 07:00 [--for 30m]    wake from sleep at that time and stay awake a while (off cancels)
  vigilo check-in 0|15|30|60          while asleep with the lid shut, wake this often to pick up a wake from the phone
  vigilo run [--reason text] -- cmd   keep awake exactly as long as cmd runs
  vigilo preset max_battery|balanced|full_speed
  vigilo rule <app> leave|slow|pause  what an app does while the lid is closed
  vigilo watch|unwatch <app>          keep awake while an app is busy
  vigilo set <key> <value>            change any setting (vigilo settings lists them all, with what each does)
  vigilo settings [--json]            every setting, its value, allowed values and what it does
  vigilo power [--json]               whole-Mac watts and what to switch off to save more
  vigilo power test [--detailed]      lid closed: measure what Vigilo saves on this Mac (~4 min; --detailed ~12 min)
  vigilo connect [claude|codex|gemini|claude-app]   add Vigilo's MCP server and status hooks to your agents
  vigilo prompt                       the prompt that has your agent set Vigilo up with you
  vigilo anyway off                   stop going below the battery limit (allowing it is done in Vigilo)
  vigilo measure                      estimate what slowing apps saves, in ~7 s
  vigilo doctor                       health check: watchdog, permission, what Vigilo has changed right now
  vigilo rescue                       put back everything Vigilo changed, even if the app is stuck
  vigilo energy                       apps using the most power right now
  vigilo config                       settings (also editable at the printed path)
  vigilo open                         drop the panel down from the menu bar
  vigilo mcp                          run as an MCP server for Claude
  vigilo event claude-code|codex|gemini   used by the agents' hooks (reads the hook's JSON on stdin)

Connect your agents: vigilo connect     Then paste: vigilo prompt
)HELP";

std::string helpText(const MachineWords& words) {
  // The text above is the Mac's; another machine has its own words put in
  // place of the phrases that name the Mac and its menu bar.
  const std::pair<std::string, std::string> swaps[] = {
      {"keep your Mac awake", "keep your " + words.machine + " awake"},
      {"whole-Mac watts", words.wholeMachine + " watts"},
      {"saves on this Mac", "saves on this " + words.machine},
      {"drop the panel down from the menu bar", words.openPanel},
  };
  std::string text = kHelpText;
  for (const auto& [mac, own] : swaps) {
    if (const auto at = text.find(mac); at != std::string::npos) text.replace(at, mac.size(), own);
  }
  return text;
}

}  // namespace vigilo
