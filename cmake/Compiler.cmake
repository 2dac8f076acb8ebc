# Language, warnings, sanitizers and run paths: the same for every target, so
# that targets can share precompiled headers.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE Release)
endif()
# Assertions guard shared memory and stay in: NDEBUG is never defined.
set(CMAKE_CXX_FLAGS_RELEASE "-O2")

set(VORN_SANITIZE "" CACHE STRING "Sanitizers to build with, e.g. address,undefined")

# Newer compilers bring new warnings; only those the code is kept clean with
# turn warnings into errors by default.
set(werror OFF)
if((CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
   OR (CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15))
    set(werror ON)
endif()
option(VORN_WERROR "Warnings are errors" ${werror})

add_compile_options(-Wall -Wextra -Wpedantic -Wconversion -Wshadow)
if(VORN_WERROR)
    add_compile_options(-Werror)
endif()
# A precompiled header that does not fit costs time, not correctness.
add_compile_options(-Wno-error=invalid-pch)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # g++ 12 sees overlapping copies in inlined std::string concatenation where there are none.
    add_compile_options(-Wno-restrict)
endif()

# One code model for libraries and programs: they share precompiled headers.
# Nobody replaces our functions at load time, nor compares their addresses: calls within a library
# may be inlined, and are bound when it is linked.
add_compile_options(-fPIC -fno-semantic-interposition -fvisibility=default
    -fvisibility-inlines-hidden -pthread)
add_link_options(-pthread
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:-Bsymbolic-functions>)

set(VORN_SANITIZE_FLAGS "")
if(VORN_SANITIZE)
    set(VORN_SANITIZE_FLAGS -fsanitize=${VORN_SANITIZE} -fno-sanitize-recover=all
        -fno-omit-frame-pointer)
    add_compile_options(${VORN_SANITIZE_FLAGS})
    add_compile_definitions(VORN_SANITIZED)
    add_link_options(-fsanitize=${VORN_SANITIZE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        # The checks' extra branches make g++ doubt variables that are set on every path.
        add_compile_options(-Wno-maybe-uninitialized)
        if(VORN_SANITIZE MATCHES "thread")
            # Fences are not seen by the thread sanitizer; g++ warns at each of them. Beside its
            # calls g++ 12 sees overruns in the same std::string concatenation as above.
            add_compile_options(-Wno-tsan -Wno-array-bounds -Wno-stringop-overflow)
        endif()
    endif()
else()
    add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:--no-undefined>)
endif()

# Libraries and programs count the branches that an input takes; only the fuzzing
# programs link what makes the inputs.
option(VORN_FUZZ "Build the fuzzing programs; needs clang" OFF)
if(VORN_FUZZ)
    add_compile_options(-fsanitize=fuzzer-no-link)
endif()

option(VORN_BENCH "Build the measurements" OFF)

# Programs and libraries find each other where they lie: in the build folder,
# and after an installation to any prefix. One path serves both.
set(CMAKE_BUILD_WITH_INSTALL_RPATH ON)
file(RELATIVE_PATH lib_from_bin /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
set(CMAKE_INSTALL_RPATH "$ORIGIN;$ORIGIN/${lib_from_bin}")

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    # What ccache needs to be told to work with precompiled headers.
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
        CCACHE_SLOPPINESS=pch_defines,time_macros,include_file_mtime,include_file_ctime ${CCACHE})
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        add_compile_options(-fpch-preprocess)
    else()
        add_compile_options("SHELL:-Xclang -fno-pch-timestamp")
    endif()
endif()
