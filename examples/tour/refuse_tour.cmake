# Runs the tour with ARGUMENTS that it must refuse: exit status STATUS, a text that holds MESSAGE, nothing on its output.
execute_process(COMMAND ${TOUR} ${ARGUMENTS}
  OUTPUT_VARIABLE output ERROR_VARIABLE errors RESULT_VARIABLE status)
message("${output}${errors}")
if(NOT status EQUAL ${STATUS})
  message(FATAL_ERROR "ended with ${status}, not with ${STATUS}")
endif()
string(FIND "${errors}" "${MESSAGE}" place)
if(place EQUAL -1)
  message(FATAL_ERROR "did not tell: ${MESSAGE}")
endif()
if(NOT output STREQUAL "")
  message(FATAL_ERROR "wrote to standard output")
endif()
