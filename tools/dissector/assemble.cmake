# corvane.lua: the dissector's engine (TEMPLATE) with the generated tables
# (TABLES) in place of its @CORVANE_TABLES@ line, written to OUTPUT.
file(READ ${TEMPLATE} engine)
file(READ ${TABLES} tables)
string(FIND "${engine}" "@CORVANE_TABLES@" at)
if(at EQUAL -1)
  message(FATAL_ERROR "${TEMPLATE} has no @CORVANE_TABLES@ line")
endif()
string(REPLACE "@CORVANE_TABLES@" "${tables}" out "${engine}")
file(WRITE ${OUTPUT} "${out}")
