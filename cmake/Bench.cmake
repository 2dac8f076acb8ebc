# Measurements: each bench/NAMEBench.cpp is a program bench-NAME of Google Benchmark.

find_package(benchmark REQUIRED)

file(GLOB bench_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/bench/*Bench.cpp)
foreach(source ${bench_sources})
    get_filename_component(name ${source} NAME_WE)
    string(REGEX REPLACE "Bench$" "" name ${name})
    add_executable(bench-${name} ${source})
    vorn_common(bench-${name})
    target_link_options(bench-${name} PRIVATE LINKER:--no-as-needed)
    target_link_libraries(bench-${name} PRIVATE vorn_bench_rig benchmark::benchmark_main)
endforeach()

# What people would use otherwise; the product links none of it.
pkg_check_modules(peers REQUIRED IMPORTED_TARGET lmdb sqlite3 hiredis)
target_link_libraries(bench-Peers PRIVATE PkgConfig::peers)
find_package(absl REQUIRED)
target_link_libraries(bench-Read PRIVATE absl::flat_hash_map)
