# One helper per kind of target, so warnings, sanitizers and include paths are set once.

set(TESSARIN_WARNINGS -Wall -Wextra -Wpedantic)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # GCC 12 reports maybe-uninitialized falsely for std::optional of scalars at -O2.
  list(APPEND TESSARIN_WARNINGS -Wno-maybe-uninitialized)
endif()
if(TESSARIN_WERROR)
  list(APPEND TESSARIN_WARNINGS -Werror)
endif()

if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  find_program(TESSARIN_LLD ld.lld)
  if(TESSARIN_LLD)
    # lld links the sanitizer trees' many test programs about four times faster than ld.bfd.
    add_link_options(-fuse-ld=lld)
  endif()
endif()

set(TESSARIN_FUZZ_TARGETS OFF)
if(TESSARIN_FUZZ)
  set(TESSARIN_FUZZ_TARGETS ON)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "TESSARIN_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++) for libFuzzer")
  endif()
  if(NOT TESSARIN_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TESSARIN_FUZZ brings its own sanitizers; leave TESSARIN_SANITIZE empty")
  endif()
  # The libraries get coverage instrumentation without libFuzzer's main; the targets add it.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer
                      -fno-sanitize-recover=undefined)
elseif(TESSARIN_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # With clang the same tree also builds the libFuzzer targets, so the test run needs no
    # second build; the coverage counters cost the tests little.
    add_compile_options(-fsanitize=fuzzer-no-link)
    set(TESSARIN_FUZZ_TARGETS ON)
  endif()
elseif(TESSARIN_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT TESSARIN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TESSARIN_SANITIZE must be empty, 'address' or 'thread'")
endif()

function(_tessarin_common target)
  target_compile_options(${target} PRIVATE ${TESSARIN_WARNINGS})
  target_include_directories(${target} PUBLIC ${PROJECT_SOURCE_DIR})
endfunction()

# tessarin_add_library(NAME SOURCES ... DEPS ...)
function(tessarin_add_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  _tessarin_common(${name})
  if(TESSARIN_UNITY)
    # Batches of a library's files compiled as one, parsing shared headers once.
    set_target_properties(${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_DEPS})
endfunction()

# tessarin_add_executable(NAME OUTPUT_NAME SOURCES ... DEPS ...)
function(tessarin_add_executable name)
  cmake_parse_arguments(ARG "" "OUTPUT_NAME" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  _tessarin_common(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  if(ARG_OUTPUT_NAME)
    set_target_properties(${name} PROPERTIES OUTPUT_NAME ${ARG_OUTPUT_NAME})
  endif()
endfunction()

function(_tessarin_test_settings target)
  _tessarin_common(${target})
  # Every test is compiled -fPIC (as Qt demands) and -pthread (as some libraries' pkg-config
  # flags add), so that all can share one precompiled header.
  target_compile_options(${target} PRIVATE -fPIC -pthread)
  target_link_libraries(${target} PRIVATE GTest::gmock GTest::gtest GTest::gtest_main
                        nlohmann_json::nlohmann_json)
  target_compile_definitions(${target} PRIVATE
    TESSARIN_HELPER_DIR="${TESSARIN_HELPER_DIR}"
    TESSARIN_TEST_CACHE_DIR="${CMAKE_BINARY_DIR}/test-media"
    TESSARIN_BIN_DIR="${CMAKE_BINARY_DIR}/bin")
endfunction()

# tessarin_add_test(NAME SOURCES ... DEPS ... LABELS ... [TIMEOUT seconds])
# One executable per area; every gtest case becomes its own CTest test.
function(tessarin_add_test name)
  cmake_parse_arguments(ARG "" "TIMEOUT" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  if(NOT TARGET tessarin_test_prelude)
    add_executable(tessarin_test_prelude EXCLUDE_FROM_ALL
                   ${PROJECT_SOURCE_DIR}/tests/support/PreludeOwner.cpp)
    _tessarin_test_settings(tessarin_test_prelude)
    target_precompile_headers(tessarin_test_prelude PRIVATE
                              ${PROJECT_SOURCE_DIR}/tests/support/TestPrelude.hpp)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  _tessarin_test_settings(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  target_precompile_headers(${name} REUSE_FROM tessarin_test_prelude)
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 60
    PROPERTIES TIMEOUT ${ARG_TIMEOUT}
    ENVIRONMENT "CONVERTER_TOOLS_DIR=${TESSARIN_HELPER_DIR}")
  # PROPERTIES splits a list of labels into separate words, so labels are set after discovery.
  set(labels_file ${CMAKE_CURRENT_BINARY_DIR}/${name}_labels.cmake)
  file(WRITE ${labels_file}
    "if(${name}_TESTS)\n"
    "  set_tests_properties(\${${name}_TESTS} PROPERTIES LABELS \"${ARG_LABELS}\")\n"
    "endif()\n")
  set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES ${labels_file})
  # The thread-sanitizer run builds only what it runs.
  if("concurrency" IN_LIST ARG_LABELS)
    if(NOT TARGET tessarin_concurrency_tests)
      add_custom_target(tessarin_concurrency_tests)
    endif()
    add_dependencies(tessarin_concurrency_tests ${name})
  endif()
endfunction()

# tessarin_add_bench(NAME SOURCES ... DEPS ...)
function(tessarin_add_bench name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  _tessarin_common(${name})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} benchmark::benchmark)
endfunction()

# tessarin_add_fuzzer(NAME SOURCES ... DEPS ...)
# A libFuzzer target; `tessarin_fuzzers` builds them all and nothing else.
function(tessarin_add_fuzzer name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(${name} ${ARG_SOURCES})
  _tessarin_common(${name})
  target_compile_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer,address,undefined)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS})
  if(NOT TARGET tessarin_fuzzers)
    add_custom_target(tessarin_fuzzers)
  endif()
  add_dependencies(tessarin_fuzzers ${name})
endfunction()

# Places links to the distribution's ffmpeg, ffprobe and gifsicle in the helper folder,
# where an installed copy keeps them beside the program.
function(tessarin_link_helper_tools)
  file(MAKE_DIRECTORY ${TESSARIN_HELPER_DIR})
  foreach(tool ffmpeg ffprobe gifsicle)
    find_program(TESSARIN_${tool}_PATH ${tool} PATHS /usr/bin NO_DEFAULT_PATH)
    if(NOT TESSARIN_${tool}_PATH)
      message(FATAL_ERROR "${tool} not found in /usr/bin: run scripts/setup.sh")
    endif()
    file(CREATE_LINK ${TESSARIN_${tool}_PATH} ${TESSARIN_HELPER_DIR}/${tool} SYMBOLIC)
  endforeach()
endfunction()
