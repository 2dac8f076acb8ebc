# What `cmake --install` puts in place: libraries, headers below include/vorn,
# programs, a CMake package and a pkg-config file.

include(CMakePackageConfigHelpers)

# What is installed belongs to the component of a package; all of them are installed by default.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME vorn)

set(header_dir ${CMAKE_INSTALL_INCLUDEDIR}/vorn)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/VornPolicyCpu)

# Programs and libraries of one minor release fit together.
set(VORN_ABI ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
set(libraries VornPlatform VornPolicyCpu)
foreach(library ${libraries})
    target_include_directories(${library} INTERFACE $<INSTALL_INTERFACE:${header_dir}>)
    target_compile_features(${library} INTERFACE cxx_std_20)
endforeach()

set_target_properties(${libraries} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${VORN_ABI})
install(TARGETS ${libraries} vorn_fmt vorn_xxhash EXPORT VornTargets
    LIBRARY NAMELINK_COMPONENT vorn-dev)
install(EXPORT VornTargets NAMESPACE Vorn:: DESTINATION ${package_dir} COMPONENT vorn-dev)

foreach(folder platform types catalogue entrylog linkage swtable interface)
    install(DIRECTORY ${folder} DESTINATION ${header_dir} COMPONENT vorn-dev
        FILES_MATCHING PATTERN "*.h")
endforeach()
set(VORN_PC_CFLAGS "-I\${includedir}/vorn")
if(VORN_FMT_UNPACKED)
    install(DIRECTORY ${fmt_include}/fmt DESTINATION ${VORN_THIRD_PARTY_INCLUDE}
        COMPONENT vorn-dev)
    string(APPEND VORN_PC_CFLAGS " -isystem \${includedir}/vorn/third_party")
endif()

get_property(programs GLOBAL PROPERTY VORN_PROGRAMS)
list(FILTER programs EXCLUDE REGEX "^vorn-example-")
install(TARGETS ${programs})

# What reads the command line's JSON, and what shows the agent's metrics.
install(DIRECTORY docs/schema docs/grafana DESTINATION ${CMAKE_INSTALL_DATADIR}/vorn)

# The manual pages, and what completes the command line.
install(FILES docs/man/vorn.1 docs/man/vorn-classify.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES docs/man/vorn-agent.8 docs/man/vorn-hwd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
set(completion_dir ${CMAKE_BINARY_DIR}/completion)
add_custom_command(TARGET vorn POST_BUILD
    COMMAND ${CMAKE_COMMAND} -E make_directory ${completion_dir}
    COMMAND vorn completion bash > ${completion_dir}/vorn
    COMMAND vorn completion zsh > ${completion_dir}/_vorn)
install(FILES ${completion_dir}/vorn
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${completion_dir}/_vorn DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)

configure_package_config_file(cmake/VornPolicyCpuConfig.cmake.in
    ${CMAKE_BINARY_DIR}/VornPolicyCpuConfig.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/VornPolicyCpuConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/VornPolicyCpuConfig.cmake
    ${CMAKE_BINARY_DIR}/VornPolicyCpuConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT vorn-dev)

# The prefix is written relative to the file, so that a tree can be moved.
file(RELATIVE_PATH prefix_from_pc /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" prefix_from_pc "${prefix_from_pc}")
configure_file(cmake/vorn-policy-cpu.pc.in ${CMAKE_BINARY_DIR}/vorn-policy-cpu.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/vorn-policy-cpu.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT vorn-dev)
