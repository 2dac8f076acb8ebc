# The libraries of other people, each as a target.

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(yaml-cpp REQUIRED)
find_package(CLI11 REQUIRED)
find_package(nlohmann_json REQUIRED)
pkg_check_modules(pcap REQUIRED IMPORTED_TARGET libpcap)
pkg_check_modules(systemd REQUIRED IMPORTED_TARGET libsystemd)
pkg_check_modules(microhttpd REQUIRED IMPORTED_TARGET libmicrohttpd)

include(cmake/Fmt.cmake)

find_path(VORN_XXHASH_INCLUDE xxhash.h REQUIRED)
add_library(vorn_xxhash INTERFACE)

find_path(VORN_ASIO_INCLUDE asio.hpp REQUIRED)
add_library(vorn_process_libraries INTERFACE)
target_compile_definitions(vorn_process_libraries INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
# The target's name differs from release to release.
set(yaml_cpp yaml-cpp)
if(TARGET yaml-cpp::yaml-cpp)
    set(yaml_cpp yaml-cpp::yaml-cpp)
endif()
target_link_libraries(vorn_process_libraries INTERFACE
    ${yaml_cpp} CLI11::CLI11 nlohmann_json::nlohmann_json Threads::Threads ${CMAKE_DL_LIBS})

# The system's packages are seen by the system's interpreter, which need not be the first in PATH.
find_program(VORN_PYTHON python3 PATHS /usr/bin NO_DEFAULT_PATH)
find_program(VORN_PYTHON python3 REQUIRED)
set(Python_EXECUTABLE ${VORN_PYTHON})
find_package(Python 3.11 REQUIRED COMPONENTS Interpreter Development.Module)
find_package(pybind11 REQUIRED)
