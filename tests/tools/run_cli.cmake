# Runs corvane-inspect once and checks its exit status and output:
#   cmake -DEXE=... -DARGS="decode|--method|X|file" [-DRC=1] [-DGOLDEN=file]
#         [-DSTDOUT=regex] [-DSTDERR=regex] -P run_cli.cmake
# ARGS separates the arguments with '|'. GOLDEN compares stdout byte for byte.
string(REPLACE "|" ";" args "${ARGS}")
execute_process(COMMAND ${EXE} ${args} RESULT_VARIABLE rc OUTPUT_VARIABLE out
                ERROR_VARIABLE err)
if(NOT DEFINED RC)
  set(RC 0)
endif()
set(problems "")
if(NOT rc STREQUAL RC)
  string(APPEND problems "exit status ${rc}, expected ${RC}\n")
endif()
if(DEFINED GOLDEN)
  file(READ ${GOLDEN} expected)
  if(NOT out STREQUAL expected)
    file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/actual.out "${out}")
    string(APPEND problems "stdout differs from ${GOLDEN}; "
           "diff -u ${GOLDEN} ${CMAKE_CURRENT_BINARY_DIR}/actual.out\n")
  endif()
endif()
if(DEFINED STDOUT AND NOT out MATCHES "${STDOUT}")
  string(APPEND problems "stdout does not match '${STDOUT}'\n")
endif()
if(DEFINED STDERR AND NOT err MATCHES "${STDERR}")
  string(APPEND problems "stderr does not match '${STDERR}'\n")
endif()
if(problems)
  message(FATAL_ERROR "${EXE} ${args}\n${problems}--- stdout\n${out}--- stderr\n${err}")
endif()
