#include "safety/watchdog_script.h"

#include "platform/runtime_folder.h"

namespace vigilo {
namespace {

// The steps the Mac and Linux scripts share: reading the heartbeat and the
// time the app went missing. "stat -c" is GNU's, "stat -f" the BSD one.
constexpr const char* kHeartbeatAge = R"SH(    now=$(date +%s)
    beat=$(stat -c %Y "$D/alive" 2>/dev/null || stat -f %m "$D/alive" 2>/dev/null)
    case "$beat" in '' | *[!0-9]*) exit 0 ;; esac
    [ $((now - beat)) -lt 40 ] && exit 0
)SH";

constexpr const char* kGoneFor = R"SH([ -f "$D/gone" ] || date +%s >"$D/gone" 2>/dev/null
since=$(cat "$D/gone" 2>/dev/null)
now=$(date +%s)
case "$since" in '' | *[!0-9]* | 0?* | ????????????????*) since=$now ;; esac
[ $((now - since)) -lt 600 ] && exit 0
)SH";

// "Approve everything": `sum` is the command that prints a file's SHA-256.
std::string restoreApprove(const std::string& sum) {
  return R"SH(# "Approve everything": put back each agent's settings file that still holds
# exactly what Vigilo left there; one changed since is left for the app. The
# restore copies are all written before the first edit and each ".target"
# last, so a file whose copy has no ".target", or that still holds the bytes
# to put back, was never changed.
restore_approve() {
  [ -f "$D/auto-approve.json" ] || return 0
  R="$D/approve-restore"
  if [ ! -d "$R" ]; then
    # Stopped before the restore copies were written: no edit happened.
    grep -q -e '"claudeTouched": true' -e '"codexTouched": true' "$D/auto-approve.json" 2>/dev/null &&
      rm -f "$D/auto-approve.json"
    return 0
  fi
  left=0
  for name in claude codex; do
    if [ ! -f "$R/$name.target" ]; then
      rm -f "$R/$name.sha" "$R/$name.restored"
      continue
    fi
    target=$(cat "$R/$name.target")
    sum=$()SH" + sum + R"SH( "$target" 2>/dev/null)
    sum=${sum%% *}
    was=$()SH" + sum + R"SH( "$R/$name.restored" 2>/dev/null)
    was=${was%% *}
    tmp=
    # The copy is made under a fresh name, so a link planted beside the file
    # is never written through, and starts as the target itself, so the file
    # keeps its mode.
    if [ -n "$target" ] && { [ ! -e "$target" ] || { [ -n "$sum" ] && [ "$sum" = "$was" ]; }; }; then
      # Never edited, or already as it was.
      rm -f "$R/$name.target" "$R/$name.sha" "$R/$name.restored"
    elif [ -f "$target" ] && [ -n "$sum" ] && [ "$sum" = "$(cat "$R/$name.sha" 2>/dev/null)" ] &&
      tmp=$(mktemp "$target.vigilo-tmp.XXXXXX") && cp -p "$target" "$tmp" && cat "$R/$name.restored" >"$tmp" &&
      mv -f "$tmp" "$target"; then
      # Done: a later run must not mistake the restored file for a changed one.
      rm -f "$R/$name.target" "$R/$name.sha" "$R/$name.restored"
    else
      # A fresh name of our own (mktemp), never a fixed one a link could be
      # planted at.
      [ -n "$tmp" ] && rm -f "$tmp"
      left=1
    fi
  done
  if [ "$left" = 0 ]; then
    rm -rf "$R" && rm -f "$D/auto-approve.json"
  fi
}
)SH";
}

}  // namespace

std::string shellQuote(const std::string& text) {
  bool plain = !text.empty();
  for (char c : text) {
    const bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '/' || c == '.' || c == '_' || c == '-' || c == '+' || c == ',' || c == ':' || c == '@';
    if (!safe) plain = false;
  }
  if (plain) return text;
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

std::string macWatchdogScript(const std::string& home, const std::string& folder, const std::string& executable) {
  const std::string defaultFolder = home + "/Library/Application Support/Vigilo";
  const std::string d = folder == defaultFolder ? "\"$HOME/Library/Application Support/Vigilo\"" : shellQuote(folder);
  const std::string exe = executable.empty() ? std::string(kDefaultMacExecutable) : executable;
  std::string s;
  s += "#!/bin/sh\n";
  s += "# Vigilo watchdog (written by Vigilo; refreshed each launch).\n";
  s += "D=" + d + "\n";
  s += "EXE=" + shellQuote(exe) + "\n";
  s += "LABEL=" + std::string(kWatchdogLabel) + "\n";
  s += "S=/usr/bin/sudo\n";
  s += "TAB=$(printf '\\t')\n";
  // An app run with its own folder is found through VIGILO_HOME, which
  // launchd does not set.
  if (folder != defaultFolder) s += "VIGILO_HOME=$D\nexport VIGILO_HOME\n";
  s += R"SH(
# Sleep the app switched off and never switched back on. Sleep that was
# already off before the app took over is not the app's to switch on.
release_hold() {
  [ -e "$D/hold" ] || return 0
  if [ -e "$D/sleep-off-before" ]; then
    rm -f "$D/hold"
  elif "$S" -n /usr/bin/pmset -a disablesleep 0 >/dev/null 2>&1; then
    rm -f "$D/hold"
  fi
}

)SH";
  s += restoreApprove("/usr/bin/shasum -a 256");
  s += R"SH(
restore_all() {
  if [ -e "$D/resume-pids" ]; then
    while IFS="$TAB" read -r pid path || [ -n "$pid" ]; do
      case "$pid" in '' | *[!0-9]*) continue ;; esac
      # A pid now used by another program is not continued.
      cmd=$(ps -p "$pid" -o comm= 2>/dev/null) || continue
      [ -n "$cmd" ] && [ "${cmd##*/}" = "${path##*/}" ] && kill -CONT "$pid" 2>/dev/null
    done <"$D/resume-pids"
    rm -f "$D/resume-pids" "$D/touched.json"
  fi
  if [ -e "$D/powermode-restore" ]; then
    line=$(cat "$D/powermode-restore" 2>/dev/null)
    case "$line" in
      "powermode 0" | "powermode 1" | "powermode 2" | "lowpowermode 0" | "lowpowermode 1")
        "$S" -n /usr/bin/pmset -b "${line% *}" "${line#* }" >/dev/null 2>&1 && rm -f "$D/powermode-restore"
        ;;
      *) rm -f "$D/powermode-restore" ;;
    esac
  fi
  if [ -e "$D/timemachine-restore" ]; then
    "$S" -n /usr/bin/tmutil enable >/dev/null 2>&1 && rm -f "$D/timemachine-restore"
  fi
  release_hold
  restore_approve
}

if [ -e "$EXE" ]; then
  rm -f "$D/gone"
  if [ -e "$D/alive" ]; then
)SH";
  s += kHeartbeatAge;
  s += R"SH(    # The app died or hangs: it undoes everything from the records.
    exec "$EXE" cli watchdog
  fi
  # The app quit cleanly; only a hold it could not release is left.
  release_hold
  exit 0
fi

# The app is gone: put everything back, and once it has been gone ten
# minutes, remove the setup too.
restore_all
)SH";
  s += kGoneFor;
  s += R"SH("$S" -n /bin/rm -f /private/etc/sudoers.d/vigilo >/dev/null 2>&1
if [ -L /usr/local/bin/vigilo ] && [ ! -e /usr/local/bin/vigilo ]; then
  "$S" -n /bin/rm -f /usr/local/bin/vigilo >/dev/null 2>&1
fi
rm -f "$HOME/Library/LaunchAgents/$LABEL.plist" "$D/gone" "$D/alive" "$D/watchdog.sh" >/dev/null 2>&1
/bin/launchctl bootout "gui/$(/usr/bin/id -u)/$LABEL" >/dev/null 2>&1
exit 0
)SH";
  return s;
}

std::string linuxWatchdogScript(const std::string& folder, const std::string& executable, const std::string& linkPath,
                                const std::string& unitFolder) {
  std::string s;
  s += "#!/bin/sh\n";
  s += "# Vigilo watchdog (written by Vigilo; refreshed each launch).\n";
  s += "D=" + shellQuote(folder) + "\n";
  s += "# The heartbeat and the hold marker, in the runtime folder (a tmpfs) where there is one.\n";
  const std::string beats = beatFolderFor(folder);
  s += "R=" + shellQuote(beats.empty() ? folder : beats) + "\n";
  s += "EXE=" + shellQuote(executable) + "\n";
  s += "UNIT=" + std::string(kWatchdogUnit) + "\n";
  s += "LINK=" + shellQuote(linkPath) + "\n";
  s += "UNITS=" + shellQuote(unitFolder) + "\n";
  s += "TAB=$(printf '\\t')\n";
  s += "# The executable finds the folder through VIGILO_HOME, which a timer does not set.\n";
  s += "VIGILO_HOME=$D\nexport VIGILO_HOME\n";
  s += R"SH(
# The records of a simulated laptop name simulated processes: only Vigilo
# itself can put those back.
simulated() { grep -q '"sim"' "$D/machine.json" 2>/dev/null; }

)SH";
  s += restoreApprove("sha256sum");
  s += R"SH(
# The logind inhibitor lock and a power-profile hold end with the app's
# process, so sleep and the power profile are already back; their records
# are all that is left. Brightness can only be set from the person's
# session, so its record waits for the app.
restore_all() {
  if ! simulated; then
    if [ -e "$D/resume-pids" ]; then
      while IFS="$TAB" read -r pid path || [ -n "$pid" ]; do
        case "$pid" in '' | *[!0-9]*) continue ;; esac
        # A pid now used by another program is not continued.
        exe=$(readlink "/proc/$pid/exe" 2>/dev/null) || continue
        exe=${exe% (deleted)}
        [ "${exe##*/}" = "${path##*/}" ] && kill -CONT "$pid" 2>/dev/null
      done <"$D/resume-pids"
      rm -f "$D/resume-pids" "$D/touched.json"
    fi
    rm -f "$D/powermode-restore" "$D/timemachine-restore" "$D/display-off" "$R/hold" "$D/hold"
  fi
  restore_approve
}

if [ -e "$EXE" ]; then
  rm -f "$D/gone"
  if [ -e "$R/alive" ]; then
)SH";
  std::string age = kHeartbeatAge;
  for (std::size_t at; (at = age.find("$D/alive")) != std::string::npos;) age.replace(at, 2, "$R");
  s += age;
  s += R"SH(    # The app died or hangs: it undoes everything from the records.
    exec "$EXE" cli watchdog
  fi
  # The app quit cleanly; a hold it could not release is put back by the
  # app's own executable, which knows the machine the folder belongs to.
  { [ -e "$R/hold" ] || [ -e "$D/hold" ]; } && exec "$EXE" cli watchdog
  exit 0
fi

# The app is gone: put everything back, and once it has been gone ten
# minutes, remove the watchdog and the command link too. The polkit rule
# belongs to root and stays (vigilo setup --remove, or by hand).
restore_all
)SH";
  s += kGoneFor;
  s += R"SH(if [ -L "$LINK" ] && [ ! -e "$LINK" ]; then rm -f "$LINK"; fi
systemctl --user disable --now "$UNIT.timer" >/dev/null 2>&1
rm -f "$UNITS/$UNIT.timer" "$UNITS/$UNIT.service" "$D/gone" "$R/alive" "$D/alive" "$D/watchdog.sh" >/dev/null 2>&1
systemctl --user daemon-reload >/dev/null 2>&1
exit 0
)SH";
  return s;
}

}  // namespace vigilo
