# qor_precompile(<folder> ...): the targets made in these folders and below are compiled with the standard headers that
# most sources include, compiled once: a fifth of what the compiler does. Sources go on to include what they use; the lint
# compiles them without.
set(QOR_PRECOMPILED
    <algorithm> <array> <atomic> <chrono> <condition_variable> <cstdint> <cstring> <filesystem> <functional> <map> <memory>
    <mutex> <optional> <set> <sstream> <stdexcept> <string> <string_view> <thread> <unordered_map> <utility> <variant>
    <vector>)

# qor_headers(<target> <header> ...): the headers that <target> precompiles, for itself and for those who reuse them.
function(qor_headers target)
  target_precompile_headers(${target} PRIVATE ${ARGN})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_LAUNCHER)
    set_target_properties(${target} PROPERTIES
      CXX_COMPILER_LAUNCHER "${PROJECT_SOURCE_DIR}/cmake/compile_headers.sh;${CMAKE_CXX_COMPILER_LAUNCHER}")
  endif()
endfunction()

# One for libraries and one for programs, which the compiler is given other options for.
function(qor_precompiled_headers)
  file(CONFIGURE OUTPUT ${CMAKE_BINARY_DIR}/precompiled/main.cpp CONTENT "int main() {}\n")
  add_library(qor_library_headers OBJECT EXCLUDE_FROM_ALL ${CMAKE_BINARY_DIR}/precompiled/main.cpp)
  add_executable(qor_program_headers EXCLUDE_FROM_ALL ${CMAKE_BINARY_DIR}/precompiled/main.cpp)
  foreach(target qor_library_headers qor_program_headers)
    target_link_libraries(${target} PRIVATE qor_flags)
    qor_headers(${target} ${QOR_PRECOMPILED})
  endforeach()
endfunction()

function(qor_precompile)
  qor_compiled_targets(targets ${ARGN})
  foreach(target ${targets})
    get_target_property(kind ${target} TYPE)
    if(kind STREQUAL "EXECUTABLE")
      target_precompile_headers(${target} REUSE_FROM qor_program_headers)
    else()
      target_precompile_headers(${target} REUSE_FROM qor_library_headers)
    endif()
  endforeach()
endfunction()
