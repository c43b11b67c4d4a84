# Compiler settings that every target of the project shares.
find_package(Threads REQUIRED)

add_library(project_options INTERFACE)
target_compile_options(project_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual
  -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wundef)
target_compile_definitions(project_options INTERFACE _GNU_SOURCE)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # g++ 12 reports false overlaps in plain string concatenation.
  target_compile_options(project_options INTERFACE -Wno-restrict)
endif()

# Warns about names that are reserved for the implementation. clang-tidy has the same check, but spends a fifth of
# its time on it.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  set(product_warnings -Wreserved-identifier)
endif()

if(QUARN2_CP_SANITIZE)
  target_compile_options(project_options INTERFACE
    -fsanitize=${QUARN2_CP_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(project_options INTERFACE -fsanitize=${QUARN2_CP_SANITIZE})
endif()

# The counters are in a memory-mapped file, so the counts of a killed process are kept.
if(QUARN2_CP_COVERAGE)
  target_compile_options(project_options INTERFACE
    -fprofile-instr-generate -fcoverage-mapping -mllvm -runtime-counter-relocation)
  target_link_options(project_options INTERFACE -fprofile-instr-generate)
endif()

# The sanitizer builds use a precompiled header, so they parse the standard library once per layer. The other builds
# have none, so they report a missing include. `owner` is the target that compiles the header for `target`.
function(set_up_precompiled_header target owner)
  if(NOT QUARN2_CP_SANITIZE)
    return()
  endif()
  if(NOT target STREQUAL owner)
    target_precompile_headers(${target} REUSE_FROM ${owner})
    return()
  endif()
  target_precompile_headers(${target} PRIVATE
    <algorithm> <chrono> <cstdint> <filesystem> <functional> <map> <memory> <mutex> <optional> <span> <string>
    <string_view> <thread> <utility> <vector>)
endfunction()

# Adds the static library of one layer. Its public headers are in include/, its private headers beside the sources.
function(add_layer name)
  cmake_parse_arguments(LAYER "" "" "SOURCES;USES" ${ARGN})
  add_library(${name} STATIC ${LAYER_SOURCES})
  target_include_directories(${name} PUBLIC include PRIVATE src)
  target_link_libraries(${name} PUBLIC ${LAYER_USES} PRIVATE project_options)
  target_compile_options(${name} PRIVATE ${product_warnings})
  set_up_precompiled_header(${name} ${name})
endfunction()
