# qor_flags: what every target of the project is compiled with. Warnings are errors.
add_library(qor_flags INTERFACE)
target_compile_features(qor_flags INTERFACE cxx_std_20)
target_compile_options(qor_flags INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wformat=2 -Wimplicit-fallthrough
  -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # g++ 12 sees overlapping copies, and copies beyond the end of short texts, in plain concatenations of std::string when
  # it optimises, the more so with precompiled headers. clang-tidy and the address sanitizer look for real ones.
  target_compile_options(qor_flags INTERFACE
    -Wno-restrict -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread)
endif()
if(QOR_SANITIZE)
  target_compile_definitions(qor_flags INTERFACE QOR_SANITIZED=1)
  target_compile_options(qor_flags INTERFACE -fsanitize=${QOR_SANITIZE} -fno-omit-frame-pointer)
  target_link_options(qor_flags INTERFACE -fsanitize=${QOR_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Warnings that follow a value from where it is made to where it is used: the checks that the sanitizers put in
    # between make g++ believe in values never set and in copies beyond the end. The same code is judged without them.
    target_compile_options(qor_flags INTERFACE
      -Wno-maybe-uninitialized -Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread -Wno-nonnull)
  endif()
  if(QOR_SANITIZE MATCHES "undefined")
    target_compile_options(qor_flags INTERFACE -fno-sanitize-recover=undefined)
    # Of undefined behaviour those that the address sanitizer sees as well when it comes to it.
    set(QOR_UNNEEDED_CHECKS -fno-sanitize=null,vptr,alignment,object-size)
  endif()
  if(QOR_SANITIZE MATCHES "thread")
    # The sanitizer knows no fences; Asio's queues are ordered by their locks without them.
    target_compile_definitions(qor_flags INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
  endif()
endif()

# qor_test_flags: what tests are compiled with, to be linked behind qor_flags, whose options it takes back: the compiler goes
# by the last. What they test is optimised as it is shipped and checked whole; optimising the tests themselves takes longer
# than they gain, and a third of the time goes into checks that the address sanitizer makes as well when it comes to it.
add_library(qor_test_flags INTERFACE)
target_compile_options(qor_test_flags INTERFACE -O0)
if(QOR_SANITIZE MATCHES "address.*undefined")
  target_compile_options(qor_test_flags INTERFACE ${QOR_UNNEEDED_CHECKS})
endif()

# qor_mostly_templates(<source> ...): sources that are little beside what they make of other libraries' templates. With a
# sanitizer, optimising them takes the compiler half a minute and more, which nobody gains by; nor does anybody by those
# checks of undefined behaviour that the address sanitizer makes as well when it comes to it. They are compiled apart.
function(qor_mostly_templates)
  set_property(SOURCE ${ARGN} PROPERTY QOR_APART ON)
  if(QOR_SANITIZE)
    set(options -O0)
    if(QOR_SANITIZE MATCHES "address.*undefined")
      list(APPEND options ${QOR_UNNEEDED_CHECKS})
    endif()
    set_source_files_properties(${ARGN} PROPERTIES COMPILE_OPTIONS "${options}" SKIP_PRECOMPILE_HEADERS ON)
  endif()
endfunction()

# System headers of the dependencies; their warnings are not ours.
add_library(qor_odbc INTERFACE)
target_link_libraries(qor_odbc INTERFACE ODBC::ODBC)

# qor_layer(<target> SOURCES ... DEPENDS ...): one layer of libqor.so as an object library. DEPENDS names the
# layers below it, which makes the link graph the architecture: a layer that includes what it does not name
# here still compiles today, so reviews look at this list.
function(qor_layer target)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPENDS;LIBRARIES" ${ARGN})
  add_library(${target} OBJECT ${ARG_SOURCES})
  target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR}/qor/libs)
  target_compile_definitions(${target} PRIVATE QOR_BUILDING_LIBQOR=1)
  target_link_libraries(${target} PUBLIC ${ARG_DEPENDS} PRIVATE qor_flags ${ARG_LIBRARIES})
  set_property(GLOBAL APPEND PROPERTY QOR_LAYERS ${target})
endfunction()
