# Each folder below tests/ with sources is one program, one ctest test and one
# report: tests/a/b is test_a_b and writes test-reports/test_a_b.xml. tests/cli and tests/python are
# Python.

find_package(GTest REQUIRED)
find_package(rapidcheck REQUIRED)

set(VORN_REPORTS ${CMAKE_BINARY_DIR}/test-reports)
set(VORN_TEST_TIMEOUT_S 300)

add_library(vorn_test_settings INTERFACE)
target_link_libraries(vorn_test_settings INTERFACE vorn_fmt GTest::gmock GTest::gtest rapidcheck)
target_compile_definitions(vorn_test_settings INTERFACE
    VORN_SOURCE_DIR="${CMAKE_SOURCE_DIR}"
    VORN_BUILD_DIR="${CMAKE_BINARY_DIR}"
    VORN_AGENT_PATH="${CMAKE_BINARY_DIR}/vorn-agent"
    VORN_HWD_PATH="${CMAKE_BINARY_DIR}/vorn-hwd"
    VORN_PLUGIN_PATH="${CMAKE_BINARY_DIR}/libVornPolicyCpu.so")
# Tests are compiled once and run for seconds: the faster compilation wins, and
# optimising the test libraries' templates would take most of the time. What they
# test is compiled as the preset says.
target_compile_options(vorn_test_settings INTERFACE -O0)

add_library(vorn_test_pch OBJECT ${CMAKE_BINARY_DIR}/empty.cpp)
target_link_libraries(vorn_test_pch PRIVATE vorn_test_settings)
target_precompile_headers(vorn_test_pch PRIVATE
    <gtest/gtest.h> <gmock/gmock.h> <fmt/format.h>
    <algorithm> <array> <chrono> <cstdint> <filesystem> <fstream> <functional> <map> <memory>
    <optional> <set> <sstream> <string> <tuple> <utility> <vector>)

set(vorn_test_libraries VornPlatform VornPolicyCpu vorn_replay vorn_agent vorn_recording vorn_inspect vorn_hwside)

file(GLOB support_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/support/*.cpp)
add_library(vorn_test_support STATIC ${support_sources})
vorn_common(vorn_test_support)
target_link_libraries(vorn_test_support PUBLIC
    vorn_test_settings ${vorn_test_libraries} vorn_process_libraries)
target_precompile_headers(vorn_test_support REUSE_FROM vorn_test_pch)

file(GLOB_RECURSE test_sources CONFIGURE_DEPENDS
    RELATIVE ${CMAKE_SOURCE_DIR}/tests ${CMAKE_SOURCE_DIR}/tests/*.cpp)
list(FILTER test_sources EXCLUDE REGEX "^(support|install)/")
set(test_folders "")
foreach(source ${test_sources})
    get_filename_component(folder ${source} DIRECTORY)
    string(MAKE_C_IDENTIFIER "test_${folder}" name)
    list(APPEND test_folders ${name})
    list(APPEND ${name}_sources ${CMAKE_SOURCE_DIR}/tests/${source})
endforeach()
list(REMOVE_DUPLICATES test_folders)

# What the simulator shares with the model.
list(APPEND test_simulator_sources ${CMAKE_SOURCE_DIR}/tests/model/Commands.cpp)

foreach(name ${test_folders})
    add_executable(${name} ${${name}_sources})
    vorn_common(${name})
    # Linked even where no symbol is used: libraries register themselves when loaded.
    target_link_options(${name} PRIVATE LINKER:--no-as-needed)
    target_link_libraries(${name} PRIVATE vorn_test_settings GTest::gtest_main
        vorn_test_support ${vorn_test_libraries} vorn_process_libraries)
    target_precompile_headers(${name} REUSE_FROM vorn_test_pch)
    add_test(NAME ${name}
        COMMAND ${name} --gtest_output=xml:${VORN_REPORTS}/${name}.xml
        WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
endforeach()

# These run long, the simulator as released and the rot tests with the address sanitizer: there the
# faster program wins.
set_source_files_properties(${test_simulator_sources} PROPERTIES
    COMPILE_OPTIONS $<$<CONFIG:Release>:-O1> SKIP_PRECOMPILE_HEADERS ON)
if(VORN_SANITIZE MATCHES "address")
    set_source_files_properties(${test_rot_sources} PROPERTIES
        COMPILE_OPTIONS -O1 SKIP_PRECOMPILE_HEADERS ON)
endif()

# A finding of a sanitizer ends the test that meets it.
set(VORN_TEST_ENVIRONMENT
    "ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:detect_stack_use_after_return=1:strict_string_checks=1"
    "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")
set_tests_properties(${test_folders} PROPERTIES
    TIMEOUT ${VORN_TEST_TIMEOUT_S} ENVIRONMENT "${VORN_TEST_ENVIRONMENT}")

# Real processes that are killed, a few times; many times with VORN_TORTURE=full.
if(TARGET vorn-agent AND TARGET vorn-hwd)
    add_test(NAME real_kills COMMAND ${CMAKE_SOURCE_DIR}/tests/kills/kills.py
        --build ${CMAKE_BINARY_DIR} --seed 1)
    set_tests_properties(real_kills PROPERTIES TIMEOUT 3600
        ENVIRONMENT "${VORN_TEST_ENVIRONMENT}")
endif()

# The command line on real processes, and on what they leave.
if(TARGET vorn AND TARGET vorn-agent AND TARGET vorn-hwd)
    add_test(NAME test_cli COMMAND ${VORN_PYTHON} -m pytest -q -p no:cacheprovider
        --build=${CMAKE_BINARY_DIR} --junit-xml=${VORN_REPORTS}/test_cli.xml
        ${CMAKE_SOURCE_DIR}/tests/cli)
    set_tests_properties(test_cli PROPERTIES
        TIMEOUT ${VORN_TEST_TIMEOUT_S} ENVIRONMENT "${VORN_TEST_ENVIRONMENT}")
endif()

# The Python module on real processes. An interpreter knows nothing of sanitizers, which have to be
# there before everything else; and before the address sanitizer looks for what it stands in for, the
# C++ library, which comes with the module, has to be there as well. What the interpreter itself
# leaves at its end is no leak of ours.
set(VORN_PYTHON_ENVIRONMENT "${VORN_TEST_ENVIRONMENT}")
if(VORN_SANITIZE MATCHES "address")
    foreach(library libasan.so libstdc++.so)
        execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${library}
            OUTPUT_VARIABLE path OUTPUT_STRIP_TRAILING_WHITESPACE)
        list(APPEND preloaded ${path})
    endforeach()
    string(JOIN ":" preloaded ${preloaded})
    list(APPEND VORN_PYTHON_ENVIRONMENT "LD_PRELOAD=${preloaded}"
        "ASAN_OPTIONS=halt_on_error=1:detect_leaks=0:strict_string_checks=1")
endif()
if(TARGET vorn_python AND TARGET vorn AND TARGET vorn-agent AND TARGET vorn-hwd)
    add_test(NAME test_python COMMAND ${VORN_PYTHON} -m pytest -q -p no:cacheprovider
        --build=${CMAKE_BINARY_DIR} --junit-xml=${VORN_REPORTS}/test_python.xml
        ${CMAKE_SOURCE_DIR}/tests/python)
    # With a sanitizer all that the interpreter does is slow, type checkers most.
    set_tests_properties(test_python PROPERTIES
        TIMEOUT 900 ENVIRONMENT "${VORN_PYTHON_ENVIRONMENT}")
endif()

# A user's program against an installed tree, by CMake package and by pkg-config.
string(JOIN " " sanitize ${VORN_SANITIZE_FLAGS})
add_test(NAME installed_consumer
    COMMAND ${CMAKE_SOURCE_DIR}/tests/install/run
        ${CMAKE_BINARY_DIR} ${CMAKE_CXX_COMPILER} "${sanitize}")
set_tests_properties(installed_consumer PROPERTIES
    TIMEOUT ${VORN_TEST_TIMEOUT_S} ENVIRONMENT "${VORN_TEST_ENVIRONMENT};PYTHON=${VORN_PYTHON}")
