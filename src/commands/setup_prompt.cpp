#include "commands/setup_prompt.h"

namespace vigilo {

const std::string& setupPrompt() {
  static const std::string text = R"PROMPT(Set up Vigilo with the person you are working with.

Vigilo keeps this computer awake while coding agents like you work, also with the lid closed, and lets it sleep once the work is done. While the lid is shut it saves power by slowing or pausing other apps, and it still sleeps when the battery reaches its limit or the computer gets too hot. You reach it through the vigilo_ tools. Go through the steps below with the person, one at a time: explain each in a sentence or two in your own words, ask what they want, and change only what they agree to.

1. Check that Vigilo answers
Call vigilo_status. If it shows Vigilo's state, go on. If it says "Vigilo didn't answer", the app isn't running: ask the person to open it (on a Mac, Vigilo in the Applications folder; on Linux, run "vigilo app" or start the vigilo user service), then call vigilo_status again.

2. The one-time setup
To keep the computer awake with the lid closed, Vigilo switches the system's sleep off and back on, and it needs permission for that once. vigilo_status shows setup_done, and setup_problem says what is missing.
- On a Mac, the person clicks Continue in Vigilo's window (later: Settings › General › Set Up) and types their password once. That installs a rule that lets Vigilo switch sleep off and on, and a small watchdog that switches sleep back on if Vigilo ever stops unexpectedly. Vigilo doesn't ask for the password again. Never ask the person to type their password into this conversation, and don't run the setup yourself with sudo.
- On Linux nothing is installed and no password is needed: Vigilo asks the system's login manager to hold off sleep, which works from the person's own local session at the computer. If setup_problem says there is no local session (for example when logged in only over SSH), tell the person what it says.

3. The mode
- auto (shown as When Busy): awake only while an agent or a watched app is working; sleeps normally once the work stops. Recommend this one.
- always: awake no matter what until turned off, or for a number of minutes.
- off: normal sleep. Holds made with vigilo_keep_awake still work.
Ask which they want and set it with vigilo_set_mode.

4. Other apps while the lid is closed: the preset
- max_battery: pause other apps until the lid opens (music, calls and the services agents use keep running). The longest battery life.
- balanced: slow other apps down to the efficiency cores.
- full_speed: leave them alone.
Ask which suits them and set it with vigilo_set_preset. If one app needs its own rule (keep a chat app running, pause a browser), use vigilo_set_app_rule for it.

5. The safety settings
Call vigilo_settings and show the person these three, with their current values:
- battery_floor: sleep when the battery reaches this percent (0 turns the limit off).
- heat_guard: with the lid shut, use the strictest rules when the computer gets hot, and sleep if it stays hot for 5 minutes or gets critical.
- only_on_power: stay awake only while the charger covers the load.
From the tools these can only be made stricter: battery_floor can go up, heat_guard and only_on_power can be turned on. Making one looser is the person's own decision, taken in Vigilo's settings window; if they want that, tell them where, and don't look for a way around it. Ask before changing any of them, even to make it stricter.

6. The lock screen: lock_on_close
Off: while the lid is closed the screen stays on at zero brightness, so there is no lock screen when the lid opens. On: the screen switches fully off, the biggest single saving, but the computer asks for the password when the lid opens. Explain the trade-off and turn it on only if the person says yes.

7. Anything else they need
vigilo_settings lists every other setting with what it does (for example low_power, pause_simulators, quiet_minutes, notify_done). vigilo_watch_app keeps the computer awake while a chosen app or tool is busy, say a long render; vigilo_add_agent teaches Vigilo a command-line agent it doesn't know yet. vigilo_power shows what is using power and which setting would cut it, and vigilo_power_test measures what the savings are worth on this computer (lid closed, about 4 minutes; screen: true turns the screen off and locks the computer, so ask first).

Before you change anything
Say what you are about to change, its current value and the new one, and wait for a yes. Ask before each change, not only the first. Never change a safety setting or lock_on_close on your own initiative. At the end, sum up what is now set.

During your work from now on
At the start of long work (a long build, a test run, a training run) call vigilo_keep_awake with a short reason, so closing the lid won't stop you. By default the hold ends when this session ends or after 2 hours; pass minutes for a fixed time, or pid to tie it to one process. It gives you a hold id: call vigilo_release with it as soon as the work is done, so the computer can sleep again. vigilo_release without a hold id ends all of this session's holds, and never anyone else's.)PROMPT";
  return text;
}

}  // namespace vigilo
