# Each fuzz/NAME.cpp with an entry for inputs is a program fuzz-NAME, with its first inputs in
# fuzz/corpus/NAME. What they share is in fuzz/support.

if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "fuzzing needs clang")
endif()

file(GLOB fuzz_support CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/fuzz/support/*.cpp)
add_library(vorn_fuzz_support STATIC ${fuzz_support})
vorn_common(vorn_fuzz_support)
target_link_libraries(vorn_fuzz_support PUBLIC vorn_fmt VornPlatform)

add_custom_target(fuzz)
file(GLOB fuzz_targets CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/fuzz/*.cpp)
foreach(source ${fuzz_targets})
    get_filename_component(name ${source} NAME_WE)
    set(program fuzz-${name})
    add_executable(${program} ${source})
    vorn_common(${program})
    target_compile_definitions(${program} PRIVATE
        VORN_PLUGIN_PATH="${CMAKE_BINARY_DIR}/libVornPolicyCpu.so")
    # Linked even where no symbol is used: libraries register themselves when loaded.
    target_link_options(${program} PRIVATE LINKER:--no-as-needed -fsanitize=fuzzer)
    target_link_libraries(${program} PRIVATE vorn_fuzz_support vorn_agent vorn_recording vorn_hwside
        VornPlatform VornPolicyCpu vorn_process_libraries)
    target_precompile_headers(${program} REUSE_FROM vorn_process_pch)
    add_dependencies(fuzz ${program})
endforeach()
