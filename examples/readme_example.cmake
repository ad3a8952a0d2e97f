# Takes the first ```c block out of README, compiles it as C99 against the library and runs it.
# README, COMPILER, FLAGS (list), INCLUDE, LIBRARY, LIBRARY_DIR, WORK: see examples/CMakeLists.txt.
file(READ ${README} text)
string(FIND "${text}" "\n```c\n" start)
if(start EQUAL -1)
  message(FATAL_ERROR "${README} has no block of C")
endif()
math(EXPR start "${start} + 6")
string(SUBSTRING "${text}" ${start} -1 text)
string(FIND "${text}" "\n```" end)
string(SUBSTRING "${text}" 0 ${end} program)
file(MAKE_DIRECTORY ${WORK})
file(WRITE ${WORK}/embedding.c "${program}\n")

execute_process(COMMAND ${COMPILER} ${FLAGS} -std=c99 -Wall -Wextra -Wpedantic -Werror -I${INCLUDE} ${WORK}/embedding.c
    -o ${WORK}/embedding ${LIBRARY} -Wl,-rpath,${LIBRARY_DIR}
  COMMAND_ECHO STDOUT COMMAND_ERROR_IS_FATAL ANY)
execute_process(COMMAND ${WORK}/embedding OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
message("${output}")
if(NOT output MATCHES "the same page, seen at [^ ]+ and [^ ]+: hello")
  message(FATAL_ERROR "the program did not tell what README.md says")
endif()
