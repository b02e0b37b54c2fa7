# Everything that can be chosen from outside, and the flags that follow from it.

option(VBX_BUILD_TESTS "Build the tests" ${PROJECT_IS_TOP_LEVEL})
option(VBX_BUILD_EXAMPLES "Build the example suite" ${PROJECT_IS_TOP_LEVEL})
option(VBX_BUILD_BENCH "Build the benchmarks" ${PROJECT_IS_TOP_LEVEL})
option(VBX_RANK_CHECK "Abort when locks are taken out of order" OFF)
set(VBX_SANITIZER "none" CACHE STRING "none, address (with undefined behaviour) or thread")
set_property(CACHE VBX_SANITIZER PROPERTY STRINGS none address thread)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# One folder for all libraries, as where they are installed.
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/lib)

# Interface target of every target of ours, tests and examples included.
add_library(vbx_flags INTERFACE)
target_compile_options(vbx_flags INTERFACE -Wall -Wextra -Wshadow -Wconversion -Werror)
target_include_directories(vbx_flags INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(vbx_flags INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(VBX_RANK_CHECK)
  target_compile_definitions(vbx_flags INTERFACE VBX_RANK_CHECK=1)
endif()
if(NOT VBX_SANITIZER STREQUAL "none" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # Instrumented code of the standard library confuses this warning; the other builds have it on.
  target_compile_options(vbx_flags INTERFACE -Wno-maybe-uninitialized)
endif()
if(VBX_SANITIZER STREQUAL "address")
  target_compile_options(vbx_flags INTERFACE -fsanitize=address,undefined -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer)
  target_link_options(vbx_flags INTERFACE -fsanitize=address,undefined)
elseif(VBX_SANITIZER STREQUAL "thread")
  target_compile_options(vbx_flags INTERFACE -fsanitize=thread)
  target_link_options(vbx_flags INTERFACE -fsanitize=thread)
elseif(NOT VBX_SANITIZER STREQUAL "none")
  message(FATAL_ERROR "VBX_SANITIZER must be none, address or thread, not '${VBX_SANITIZER}'")
endif()

# Code that lives inside the tracked process: its thread-local words are static TLS, because the
# dynamic model allocates on first use, inside an event; sibling calls would drop frames of captured stacks.
add_library(vbx_library_flags INTERFACE)
target_link_libraries(vbx_library_flags INTERFACE vbx_flags)
target_compile_options(vbx_library_flags INTERFACE -ftls-model=initial-exec -fno-optimize-sibling-calls)

if(VBX_SANITIZER STREQUAL "none")
  set(VBX_IS_SANITIZED OFF)
else()
  set(VBX_IS_SANITIZED ON)
endif()
