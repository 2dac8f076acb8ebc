# {fmt} 10, header-only: the distribution's where it is recent enough, else the
# next release's package unpacked below the build folder, else the distribution's
# with a notice. The code compiles with 9.1 to 10.

function(vorn_fmt_version include_dir result)
    set(version 0)
    foreach(header core.h base.h)
        if(EXISTS ${include_dir}/fmt/${header})
            file(STRINGS ${include_dir}/fmt/${header} line REGEX "^#define FMT_VERSION [0-9]+")
            if(line MATCHES "([0-9]+)$")
                set(version ${CMAKE_MATCH_1})
            endif()
        endif()
    endforeach()
    set(${result} ${version} PARENT_SCOPE)
endfunction()

find_path(VORN_FMT_SYSTEM_INCLUDE fmt/core.h)
vorn_fmt_version("${VORN_FMT_SYSTEM_INCLUDE}" system_fmt)
set(unpacked ${CMAKE_SOURCE_DIR}/build/third_party/fmt/usr/include)
set(VORN_FMT_UNPACKED OFF)

if(system_fmt GREATER_EQUAL 100000)
    set(fmt_include ${VORN_FMT_SYSTEM_INCLUDE})
else()
    # Asked once a build folder: without a network the answer takes a while.
    if(NOT EXISTS ${unpacked}/fmt/core.h AND NOT VORN_FMT_ASKED)
        execute_process(
            COMMAND ${CMAKE_SOURCE_DIR}/cmake/fetch-fmt ${CMAKE_SOURCE_DIR}/build/third_party
            RESULT_VARIABLE failed)
        set(VORN_FMT_ASKED ON CACHE INTERNAL "")
    endif()
    if(EXISTS ${unpacked}/fmt/core.h)
        set(fmt_include ${unpacked})
        set(VORN_FMT_UNPACKED ON)
    elseif(system_fmt GREATER_EQUAL 90100)
        set(fmt_include ${VORN_FMT_SYSTEM_INCLUDE})
        message(NOTICE "notice: {fmt} 10 cannot be reached, the distribution's is used instead")
    else()
        message(FATAL_ERROR "{fmt} 9.1 to 10 is needed (package libfmt-dev)")
    endif()
endif()

vorn_fmt_version(${fmt_include} version)
message(STATUS "{fmt} ${version}, header-only")

add_library(vorn_fmt INTERFACE)
target_compile_definitions(vorn_fmt INTERFACE FMT_HEADER_ONLY)
if(VORN_FMT_UNPACKED)
    # Installed along with our headers, which use it.
    set(VORN_THIRD_PARTY_INCLUDE ${CMAKE_INSTALL_INCLUDEDIR}/vorn/third_party)
    target_include_directories(vorn_fmt SYSTEM INTERFACE
        $<BUILD_INTERFACE:${fmt_include}>
        $<INSTALL_INTERFACE:${VORN_THIRD_PARTY_INCLUDE}>)
endif()
