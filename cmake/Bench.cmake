# Measurements: each bench/NAMEBench.cpp is a program bench-NAME of Google Benchmark.

find_package(benchmark REQUIRED)

# The rig that tests use as well, compiled like the product here: what the compiler makes of a
# template in one program stands for all of it.
add_library(vorn_bench_rig STATIC
    tests/support/InProcessAgent.cpp tests/support/RealProcess.cpp tests/support/TempDir.cpp)
vorn_common(vorn_bench_rig)
target_link_libraries(vorn_bench_rig PUBLIC
    benchmark::benchmark_main VornPlatform VornPolicyCpu vorn_hwside vorn_process_libraries)

add_executable(instructions bench/Instructions.cpp)
vorn_common(instructions)
target_link_options(instructions PRIVATE LINKER:--no-as-needed)
target_link_libraries(instructions PRIVATE vorn_bench_rig)

file(GLOB bench_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/*Bench.cpp)
foreach(source ${bench_sources})
    get_filename_component(name ${source} NAME_WE)
    string(REGEX REPLACE "Bench$" "" name ${name})
    add_executable(bench-${name} ${source})
    vorn_common(bench-${name})
    target_link_options(bench-${name} PRIVATE LINKER:--no-as-needed)
    target_link_libraries(bench-${name} PRIVATE vorn_bench_rig)
endforeach()

# What people would use otherwise; the product links none of it.
pkg_check_modules(peers REQUIRED IMPORTED_TARGET lmdb sqlite3 hiredis)
target_link_libraries(bench-Peers PRIVATE PkgConfig::peers)
find_package(absl REQUIRED)
target_link_libraries(bench-Read PRIVATE absl::flat_hash_map)
