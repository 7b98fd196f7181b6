cmake_minimum_required(VERSION 3.22)
# Writes OUT, the definition of kBuildVersion: VERSION and, in a git
# checkout, the commit (with "+changes" when the work tree differs from it).
# Run on every build; the file is rewritten only when its text changes, so a
# new commit recompiles one file and relinks `vigilo` alone.
set(text "${VERSION}")
find_program(GIT git)
if(GIT AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND "${GIT}" -C "${SOURCE_DIR}" rev-parse --short=12 HEAD
                  OUTPUT_VARIABLE commit RESULT_VARIABLE failed OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
  if(NOT failed AND commit)
    execute_process(COMMAND "${GIT}" -C "${SOURCE_DIR}" status --porcelain --untracked-files=no
                    OUTPUT_VARIABLE changes ERROR_QUIET)
    if(changes)
      set(commit "${commit}+changes")
    endif()
    set(text "${VERSION} (commit ${commit})")
  endif()
endif()
file(CONFIGURE OUTPUT "${OUT}" CONTENT "#include \"app/commands.h\"\n\nnamespace vigilo {\nconst char* const kBuildVersion = \"@text@\";\n}  // namespace vigilo\n" @ONLY)
