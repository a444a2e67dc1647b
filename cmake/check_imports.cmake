# Checks what libCorvane imports, in place of linking with -z defs (the
# middleware is left to the process, so some symbols stay undefined on
# purpose). Fails when the library
#  - names a middleware of this tree (libcorvane_*) as DT_NEEDED, or
#  - imports a symbol that is neither the C library's (versioned GLIBC_*, or
#    one of its weak hooks) nor a middleware or event-loop function (quib*,
#    ranq*): a misspelt call or a stray dependency, which -z defs would have
#    caught at link time.
# With SANITIZE set, the symbols bind to the sanitizer runtime, which
# intercepts the C library's functions without their versions: there only the
# DT_NEEDED check is made.
#
#   cmake -DLIB=libCorvane.so.1.0.0 [-DREADELF=arm-linux-gnueabihf-readelf] [-DSANITIZE=...] -P check_imports.cmake
if(NOT READELF)
  set(READELF readelf)
endif()
execute_process(COMMAND ${READELF} -d --dyn-syms --wide ${LIB} OUTPUT_VARIABLE out
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "${READELF} failed on ${LIB}")
endif()
string(REPLACE "\n" ";" lines "${out}")
set(bad "")
set(imports 0)
foreach(line IN LISTS lines)
  if(line MATCHES "\\(NEEDED\\).*\\[(.*)\\]")
    if(CMAKE_MATCH_1 MATCHES "^libcorvane_")
      list(APPEND bad "NEEDED ${CMAKE_MATCH_1}")
    endif()
  # Num: Value Size Type Bind Vis UND Name[@version]
  elseif(line MATCHES "^ *[0-9]+: +[0-9a-f]+ +[0-9]+ +[A-Z]+ +([A-Z]+) +[A-Z]+ +UND +([^ ]+)")
    set(bind "${CMAKE_MATCH_1}")
    set(name "${CMAKE_MATCH_2}")
    if(name MATCHES "^(quib|ranq)[A-Za-z_]+$")
      math(EXPR imports "${imports} + 1")
    elseif(name MATCHES "@GLIBC_[0-9.]+")
    elseif(bind STREQUAL "WEAK" AND name MATCHES "^(__gmon_start__|_ITM_[A-Za-z]+|__cxa_finalize)")
    elseif(SANITIZE)
    else()
      list(APPEND bad "imports ${name}")
    endif()
  endif()
endforeach()
if(bad)
  message(FATAL_ERROR "${LIB}: ${bad} (only the C library and the quib*/ranq* functions may be imported)")
endif()
if(imports EQUAL 0)
  message(FATAL_ERROR "${LIB}: no quib*/ranq* import found; is this libCorvane?")
endif()
