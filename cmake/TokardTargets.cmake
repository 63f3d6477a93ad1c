# Warnings, applied per target so that generated code stays out of them.
function(tokard_target_settings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wnon-virtual-dtor)
  if(TOKARD_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Sanitizers instrument everything, generated code and tests included.
if(TOKARD_ASAN AND TOKARD_TSAN)
  message(FATAL_ERROR "TOKARD_ASAN and TOKARD_TSAN cannot be combined")
endif()
if(TOKARD_ASAN)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
if(TOKARD_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# One static library per folder: tokard_add_library(name SOURCES ... DEPS ...
# [INCLUDE dir]). A target exports only its own include root: the platform
# layer's is the source root ("lapi/com/transport.h"), the service's is src/
# ("ecu/ecu.h"), so the platform layer cannot reach the service's headers.
function(tokard_add_library name)
  cmake_parse_arguments(ARG "" "INCLUDE" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_INCLUDE)
    set(ARG_INCLUDE ${PROJECT_SOURCE_DIR}/src)
  endif()
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${ARG_INCLUDE})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
  tokard_target_settings(${name})
endfunction()
