# Fails unless DOCUMENT shows the whole text of PROGRAM.
file(READ "${DOCUMENT}" document)
file(READ "${PROGRAM}" program)
string(FIND "${document}" "```cpp\n${program}```\n" place)
if(place EQUAL -1)
    message(FATAL_ERROR "${DOCUMENT} does not show ${PROGRAM} as it is.")
endif()
