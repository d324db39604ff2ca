# SPDX-License-Identifier: Apache-2.0
#
# The flags that every target shares, and two functions: one library a folder, one test program a folder.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

add_library(thmp_flags INTERFACE)
target_include_directories(thmp_flags INTERFACE ${CMAKE_SOURCE_DIR})
# Two warnings of g++ 12 are off, which it raises falsely when it optimises: overlapping copies in "literal" +
# std::string, and the empty std::optional as used uninitialized. Of sources that are joined it takes all but the one
# that joins them for headers, whose types must not use an anonymous namespace.
target_compile_options(
  thmp_flags
  INTERFACE -pthread -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror -Wformat=2 -Werror=format-security
            $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety> $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
            $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
            $<$<AND:$<CXX_COMPILER_ID:GNU>,$<BOOL:${CMAKE_UNITY_BUILD}>>:-Wno-subobject-linkage>)
if(THMP_SANITIZE)
  # The check of virtual tables needs one address for each type; the bundle hides its symbols and so has its own.
  target_compile_options(thmp_flags INTERFACE -fsanitize=${THMP_SANITIZE} -fno-sanitize-recover=all
                                              -fno-sanitize=vptr -fno-omit-frame-pointer)
  target_link_options(thmp_flags INTERFACE -fsanitize=${THMP_SANITIZE})
endif()

if(THMP_FUZZERS)
  # Everything tells libFuzzer which way it went, but for targets with the property THMP_UNTRACED; libFuzzer itself is
  # linked by the fuzz targets alone.
  target_compile_options(
    thmp_flags INTERFACE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:THMP_UNTRACED>>>:-fsanitize=fuzzer-no-link>)
  # Comparisons tell what a byte should be, and take half of the time.
  if(NOT THMP_FUZZERS_COMPARE)
    target_compile_options(
      thmp_flags INTERFACE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:THMP_UNTRACED>>>:-fno-sanitize-coverage=trace-cmp>)
  endif()
endif()

# Tests are compiled as often as they run: to optimise them would be most of what a build costs.
add_library(thmp_test_flags INTERFACE)
target_link_libraries(thmp_test_flags INTERFACE thmp_flags)
target_compile_options(thmp_test_flags INTERFACE -O0)

# thmp_library(name SOURCES a.cc ... LINK target ...)
function(thmp_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  if(arg_SOURCES)
    add_library(${name} STATIC ${arg_SOURCES})
    target_link_libraries(${name} PUBLIC thmp_flags ${arg_LINK})
  else()
    add_library(${name} INTERFACE)
    target_link_libraries(${name} INTERFACE thmp_flags ${arg_LINK})
  endif()
endfunction()

# thmp_test(name [ONE_THREAD] SOURCES a_test.cc ... LINK target ...): one test program, each of its cases a test of
# ctest's; with THMP_SMALL, where to start a process takes longer than most cases, all of them are one test.
# ThreadSanitizer has nothing to see in one with ONE_THREAD.
function(thmp_test name)
  cmake_parse_arguments(arg "ONE_THREAD" "" "SOURCES;LINK" ${ARGN})
  if(NOT THMP_TESTS OR (arg_ONE_THREAD AND THMP_SANITIZE STREQUAL "thread"))
    return()
  endif()
  add_executable(${name} ${arg_SOURCES})
  set_target_properties(${name} PROPERTIES THMP_UNTRACED ON)
  # Their sources are joined where nobody edits them: most of their time goes into the same headers.
  if(CMAKE_BUILD_TYPE STREQUAL "Release")
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
  endif()
  target_link_libraries(${name} PRIVATE thmp_test_flags ${arg_LINK} GTest::gtest GTest::gmock GTest::gtest_main)
  target_compile_definitions(${name} PRIVATE THMP_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
  if(THMP_SMALL)
    add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
    set_tests_properties(${name} PROPERTIES TIMEOUT 600)
  else()
    gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
  endif()
endfunction()

# thmp_test_size(name DEFINITION usual small): how large a test is; with sanitizers it takes many times as long.
function(thmp_test_size name definition usual small)
  if(TARGET ${name})
    set(size ${usual})
    if(THMP_SMALL)
      set(size ${small})
    endif()
    target_compile_definitions(${name} PRIVATE ${definition}=${size})
  endif()
endfunction()

# thmp_completions(program): what the shells complete of its command line, printed by the program itself, for the places
# where each looks.
function(thmp_completions program)
  set(folder ${CMAKE_BINARY_DIR}/completions)
  file(MAKE_DIRECTORY ${folder})
  set(bash ${folder}/${program})
  set(zsh ${folder}/_${program})
  set(fish ${folder}/${program}.fish)
  foreach(shell bash zsh fish)
    add_custom_command(OUTPUT ${${shell}} COMMAND ${program} --completion ${shell} > ${${shell}} DEPENDS ${program} VERBATIM)
  endforeach()
  add_custom_target(${program}-completions ALL DEPENDS ${bash} ${zsh} ${fish})
  install(FILES ${bash} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
  install(FILES ${zsh} DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
  install(FILES ${fish} DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
endfunction()
