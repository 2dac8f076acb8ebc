# How folders become targets.

# The sources of some folders, main.cpp (a program's) left out.
function(vorn_sources result)
    set(all "")
    foreach(folder ${ARGN})
        file(GLOB_RECURSE found CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cpp)
        list(APPEND all ${found})
    endforeach()
    list(FILTER all EXCLUDE REGEX "/main\\.cpp$")
    set(${result} ${all} PARENT_SCOPE)
endfunction()

# What nearly every source includes, compiled once: vorn_pch for all libraries, and
# vorn_process_pch for what has command lines, JSON and sockets besides.
function(vorn_precompiled_headers)
    set(empty ${CMAKE_BINARY_DIR}/empty.cpp)
    file(GENERATE OUTPUT ${empty} CONTENT "")
    set(everywhere
        <algorithm> <array> <atomic> <chrono> <compare> <concepts> <cstddef> <cstdint> <cstring>
        <functional> <map> <memory> <optional> <set> <span> <string> <string_view> <tuple>
        <type_traits> <unordered_map> <utility> <variant> <vector> <fmt/format.h>)
    add_library(vorn_pch OBJECT ${empty})
    target_link_libraries(vorn_pch PRIVATE vorn_fmt)
    target_precompile_headers(vorn_pch PRIVATE ${everywhere})
    add_library(vorn_process_pch OBJECT ${empty})
    target_link_libraries(vorn_process_pch PRIVATE vorn_fmt vorn_process_libraries)
    target_precompile_headers(vorn_process_pch PRIVATE ${everywhere}
        <asio/io_context.hpp> <asio/local/stream_protocol.hpp> <asio/posix/stream_descriptor.hpp>
        <asio/read_until.hpp> <asio/signal_set.hpp> <asio/steady_timer.hpp> <asio/write.hpp>
        <nlohmann/json.hpp> <CLI/CLI.hpp>)
endfunction()

function(vorn_common target)
    target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
    set_target_properties(${target} PROPERTIES DEFINE_SYMBOL "")
endfunction()

# vorn_library(name SHARED|STATIC folder...); a static one belongs to a process.
function(vorn_library name kind)
    vorn_sources(sources ${ARGN})
    add_library(${name} ${kind} ${sources})
    vorn_common(${name})
    target_link_libraries(${name} PUBLIC vorn_fmt)
    if(kind STREQUAL STATIC)
        target_precompile_headers(${name} REUSE_FROM vorn_process_pch)
    else()
        target_precompile_headers(${name} REUSE_FROM vorn_pch)
    endif()
endfunction()

# Command lines, JSON, YAML and sockets cost most of a build at full optimisation,
# and none of them is on the path of a change.
set(VORN_NOT_HOT $<$<CONFIG:Release>:-O1>)

# vorn_program(name "source..." library...)
function(vorn_program name sources)
    add_executable(${name} ${sources})
    vorn_common(${name})
    target_compile_options(${name} PRIVATE ${VORN_NOT_HOT})
    target_link_libraries(${name} PRIVATE vorn_fmt ${ARGN})
    target_precompile_headers(${name} REUSE_FROM vorn_process_pch)
    set_property(GLOBAL APPEND PROPERTY VORN_PROGRAMS ${name})
endfunction()

# Each sub-folder with a main.cpp is a program: <prefix><folder>, or <folder> where the prefix is
# made of it.
function(vorn_programs_below folder prefix)
    file(GLOB mains CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*/main.cpp)
    foreach(main ${mains})
        get_filename_component(path ${main} DIRECTORY)
        get_filename_component(name ${path} NAME)
        file(GLOB sources CONFIGURE_DEPENDS ${path}/*.cpp)
        if("${name}-" STREQUAL "${prefix}")
            vorn_program(${name} "${sources}" ${ARGN})
        else()
            vorn_program(${prefix}${name} "${sources}" ${ARGN})
        endif()
    endforeach()
endfunction()
