# Tests that start a built program find it through a compile definition.
#
# tokard_test_program(<test> <definition> <program>) defines <definition> in
# test executable <test> as the path to start executable <program> by, and
# makes <test> depend on it. Natively that is the program itself. In a cross
# build whose tests run in CMAKE_CROSSCOMPILING_EMULATOR, an exec of a target
# binary from inside the emulator fails (no binfmt): the path is then a host
# launcher (cmake/emulated_program.c) that runs the program in the emulator.

function(tokard_test_program test definition program)
  if(NOT CMAKE_CROSSCOMPILING_EMULATOR)
    target_compile_definitions(${test} PRIVATE ${definition}="$<TARGET_FILE:${program}>")
    add_dependencies(${test} ${program})
    return()
  endif()
  set(launcher ${CMAKE_BINARY_DIR}/emulated/${program})
  target_compile_definitions(${test} PRIVATE ${definition}="${launcher}")
  add_dependencies(${test} ${program}_emulated)
  if(TARGET ${program}_emulated)
    return()
  endif()

  find_program(TOKARD_HOST_CC NAMES cc gcc REQUIRED NO_CMAKE_FIND_ROOT_PATH
    DOC "Host C compiler for the launchers of emulated test programs")
  set(words)
  foreach(word IN LISTS CMAKE_CROSSCOMPILING_EMULATOR)
    string(REPLACE "\\" "\\\\" word "${word}")
    string(REPLACE "\"" "\\\"" word "${word}")
    list(APPEND words "\"${word}\"")
  endforeach()
  list(JOIN words ", " emulator)
  set(header ${CMAKE_BINARY_DIR}/emulated/${program}.h)
  file(GENERATE OUTPUT ${header} CONTENT
"#define TOKARD_EMULATOR ${emulator}
#define TOKARD_PROGRAM \"$<TARGET_FILE:${program}>\"
")
  set(source ${PROJECT_SOURCE_DIR}/cmake/emulated_program.c)
  add_custom_command(OUTPUT ${launcher}
    COMMAND ${TOKARD_HOST_CC} -std=c11 -O2 -Wall -Wextra -static -include ${header}
            -o ${launcher} ${source}
    DEPENDS ${source} ${header}
    COMMENT "Host launcher for ${program} under the emulator"
    VERBATIM)
  add_custom_target(${program}_emulated DEPENDS ${launcher})
  add_dependencies(${program}_emulated ${program})
endfunction()
