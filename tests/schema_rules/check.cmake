# Compiles lists.cpp as it is, which must succeed, then once with each
# broken list, which must fail with the diagnostic of the check that refuses
# it (not with any error at all). Run by ctest: cmake -DCXX=... -DSOURCE_DIR=... -P.
set(order "static assertion failed: [A-Za-z]+: the schema's members overlap or are out of declaration order")
set(cases
    ARRAY_FIRST "${order}"
    COUNT_IS_TEXT "${order}"
    COUNT_NOT_JUST_BEFORE "${order}"
    OUT_OF_ORDER "${order}"
    MEMBER_MISSING "kListsEveryMember<Pair, 1>.*only 1 name provided for structured binding")

function(compile out_result out_text)
  execute_process(
    COMMAND "${CXX}" -std=c++20 -fsyntax-only -I${SOURCE_DIR} -I${SOURCE_DIR}/include ${ARGN}
            ${CMAKE_CURRENT_LIST_DIR}/lists.cpp
    RESULT_VARIABLE result OUTPUT_VARIABLE text ERROR_VARIABLE text TIMEOUT 120)
  set(${out_result} "${result}" PARENT_SCOPE)
  set(${out_text} "${text}" PARENT_SCOPE)
endfunction()

compile(result text)
if(NOT result EQUAL 0)
  message(FATAL_ERROR "the lists put right do not compile:\n${text}")
endif()
set(failed "")
list(LENGTH cases n)
math(EXPR last "${n} - 1")
foreach(i RANGE 0 ${last} 2)
  math(EXPR j "${i} + 1")
  list(GET cases ${i} case)
  list(GET cases ${j} diagnostic)
  compile(result text -D${case})
  if(result EQUAL 0)
    list(APPEND failed "${case}: compiled")
  elseif(NOT text MATCHES "${diagnostic}")
    list(APPEND failed "${case}: refused, but not by its check:\n${text}")
  else()
    message(STATUS "${case}: refused")
  endif()
endforeach()
if(failed)
  list(JOIN failed "\n" failed)
  message(FATAL_ERROR "${failed}")
endif()
