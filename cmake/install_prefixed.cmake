cmake_minimum_required(VERSION 3.22)
# The installed files that name the install prefix, written at install time
# so `cmake --install --prefix P` and the Debian package (prefix /usr) each
# get their own. VIGILO_SOURCE_DIR, VIGILO_GENERATED, VIGILO_BINDIR and
# VIGILO_DATADIR are set by the install rules.
string(REGEX REPLACE "/+$" "" prefix "${CMAKE_INSTALL_PREFIX}")
set(exe "${prefix}/${VIGILO_BINDIR}/vigilo")
set(out "${VIGILO_GENERATED}/install")
file(MAKE_DIRECTORY "${out}")

# The desktop entry starts the installed executable, quoted as desktop
# entries need when the path holds a blank.
file(READ "${VIGILO_SOURCE_DIR}/data/vigilo.desktop" entry)
set(exec "${exe}")
if(exe MATCHES " ")
  set(exec "\"${exe}\"")
endif()
string(REPLACE "%" "%%" exec "${exec}")
string(REGEX REPLACE "\nExec=[^\n]*" "\nExec=${exec} app" entry "${entry}")
file(WRITE "${out}/vigilo.desktop" "${entry}")
file(INSTALL DESTINATION "${prefix}/${VIGILO_DATADIR}/applications" TYPE FILE FILES "${out}/vigilo.desktop")

# The systemd user unit, from the same text scripts/install-user-service
# writes. A package puts it where systemd keeps packaged units; any other
# prefix under share/, which the user manager reads through XDG_DATA_DIRS
# (~/.local/share/systemd/user for ~/.local).
execute_process(COMMAND bash "${VIGILO_SOURCE_DIR}/scripts/install-user-service" --print-unit "${exe}"
                OUTPUT_FILE "${out}/vigilo.service" RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "scripts/install-user-service --print-unit failed (${failed})")
endif()
# Its opening comment speaks of the script; this copy comes with vigilo.
file(READ "${out}/vigilo.service" unit)
string(REGEX REPLACE "^(#[^\n]*\n)+" "" unit "${unit}")
file(WRITE "${out}/vigilo.service" "# Installed with vigilo. Start it now and at every login:\n"
           "#   systemctl --user enable --now vigilo.service\n${unit}")
if(prefix STREQUAL "/usr")
  set(units "${prefix}/lib/systemd/user")
  set(zsh "${prefix}/${VIGILO_DATADIR}/zsh/vendor-completions")
else()
  set(units "${prefix}/${VIGILO_DATADIR}/systemd/user")
  set(zsh "${prefix}/${VIGILO_DATADIR}/zsh/site-functions")
endif()
file(INSTALL DESTINATION "${units}" TYPE FILE FILES "${out}/vigilo.service")
file(INSTALL DESTINATION "${zsh}" TYPE FILE FILES "${VIGILO_GENERATED}/_vigilo")
