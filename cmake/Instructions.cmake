# What `./dev instructions` runs, and the rig that measurements (Bench.cmake) share with it; built on
# demand and with the libraries as they are released.

# The rig that tests use as well, compiled like the product here: what the compiler makes of a
# template in one program stands for all of it.
add_library(vorn_bench_rig STATIC EXCLUDE_FROM_ALL
    tests/support/InProcessAgent.cpp tests/support/RealProcess.cpp tests/support/TempDir.cpp)
vorn_common(vorn_bench_rig)
target_link_libraries(vorn_bench_rig PUBLIC vorn_recording
    VornPlatform VornPolicyCpu vorn_hwside vorn_process_libraries)

add_executable(instructions EXCLUDE_FROM_ALL bench/Instructions.cpp)
vorn_common(instructions)
# Linked even where no symbol is used: libraries register themselves when loaded.
target_link_options(instructions PRIVATE LINKER:--no-as-needed)
target_link_libraries(instructions PRIVATE vorn_bench_rig)
