# Shared by the simulated Mac's stand-in tools. Each tool lives under
# VIGILO_MAC_ROOT at the path the Mac has it (usr/bin/pmset, ...), logs its
# own argv to VIGILO_MAC_LOG, one line each, and reads and changes the
# simulated laptop's state file VIGILO_MAC_STATE: the JSON of
# docs/simulator.md in the layout Vigilo writes it (one key a line, keys
# unique enough that the first match is the one meant).

STATE=${VIGILO_MAC_STATE:?names the simulated Mac state file}
ME=${0#"$VIGILO_MAC_ROOT"}

log() {
  if [ $# -gt 0 ]; then
    printf '%s %s\n' "$ME" "$*" >>"${VIGILO_MAC_LOG:?}"
  else
    printf '%s\n' "$ME" >>"${VIGILO_MAC_LOG:?}"
  fi
}

# The value of key $1, quotes and trailing comma taken off.
get() {
  sed -n 's/^ *"'"$1"'": *"\{0,1\}\([^",]*\)"\{0,1\},\{0,1\} *$/\1/p' "$STATE" | head -n 1
}

# Sets key $1 to the JSON text $2 (a number, true, false or "text").
put() {
  tmp="$STATE.$$.stand-in"
  sed 's/^\( *"'"$1"'": *\)[^,]*\(,\{0,1\}\) *$/\1'"$2"'\2/' "$STATE" >"$tmp" && mv "$tmp" "$STATE"
}
