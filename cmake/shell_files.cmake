cmake_minimum_required(VERSION 3.22)
# Writes what `vigilo` prints about itself into OUT: the man page (gzipped,
# as Debian ships man pages) and the bash, zsh and fish completions. Run
# after every link of `vigilo`, so they always match its command table.
set(ENV{ASAN_OPTIONS} "detect_leaks=0")
file(MAKE_DIRECTORY "${OUT}")
foreach(pair "manpage;vigilo.1" "completion;bash;vigilo.bash" "completion;zsh;_vigilo" "completion;fish;vigilo.fish")
  list(POP_BACK pair file)
  execute_process(COMMAND "${VIGILO}" ${pair} OUTPUT_FILE "${OUT}/${file}.new" RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "vigilo ${pair} failed (${failed})")
  endif()
  file(COPY_FILE "${OUT}/${file}.new" "${OUT}/${file}" ONLY_IF_DIFFERENT)
  file(REMOVE "${OUT}/${file}.new")
endforeach()
execute_process(COMMAND gzip -9 -n -c "${OUT}/vigilo.1" OUTPUT_FILE "${OUT}/vigilo.1.gz" RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "gzip of the man page failed (${failed})")
endif()
