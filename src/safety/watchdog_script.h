#pragma once

#include <string>

namespace vigilo {

// The label of the watchdog's launch agent, and on Linux the name of its
// systemd user units ("<name>.service", "<name>.timer").
inline constexpr const char* kWatchdogLabel = "com.tarnwell.vigilo.watchdog";
inline constexpr const char* kWatchdogUnit = "vigilo-watchdog";
inline constexpr const char* kWatchdogScriptFile = "watchdog.sh";
inline constexpr const char* kGoneFile = "gone";
// The executable Vigilo is, when the running one cannot be found.
inline constexpr const char* kDefaultMacExecutable = "/Applications/Vigilo.app/Contents/MacOS/Vigilo";

// `text` as one word for /bin/sh: itself when it holds only characters the
// shell leaves alone, else in single quotes.
std::string shellQuote(const std::string& text);

// The Mac's watchdog script. `folder` is the app folder; the default one is
// written as "$HOME/Library/Application Support/Vigilo" so the script names
// it the way launchd's environment sees it.
std::string macWatchdogScript(const std::string& home, const std::string& folder, const std::string& executable);

// The same watchdog for Linux, run by a systemd user timer: the inhibitor
// lock and a power-profile hold end with the app's process, so only the
// records, paused processes and "Approve everything" are left to put back.
// `linkPath` is the command link it removes once the app is gone.
std::string linuxWatchdogScript(const std::string& folder, const std::string& executable, const std::string& linkPath,
                                const std::string& unitFolder);

}  // namespace vigilo
