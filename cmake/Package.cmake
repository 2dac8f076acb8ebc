# Debian packages of the components that are installed: `cpack -G DEB` in a build folder, or
# `./dev package`, which builds what is in them first.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME vorn)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
# Each package has its own.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_SOURCE_DIR}/cmake/compress-documents.cmake)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where one package's libraries are found for another; NEEDS says which package has them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

# Who answers for the packages, named as Debian's tools name them.
set(VORN_PACKAGE_MAINTAINER "" CACHE STRING "Maintainer of the packages: NAME <ADDRESS>")
if(VORN_PACKAGE_MAINTAINER)
    set(CPACK_PACKAGE_CONTACT "${VORN_PACKAGE_MAINTAINER}")
elseif(DEFINED ENV{DEBFULLNAME} AND DEFINED ENV{DEBEMAIL})
    set(CPACK_PACKAGE_CONTACT "$ENV{DEBFULLNAME} <$ENV{DEBEMAIL}>")
else()
    cmake_host_system_information(RESULT host QUERY FQDN)
    set(CPACK_PACKAGE_CONTACT "The builder <root@${host}>")
endif()

set(packaging ${CMAKE_BINARY_DIR}/packaging)
string(TIMESTAMP today "%a, %d %b %Y 00:00:00 +0000" UTC)
configure_file(packaging/debian/changelog.in ${packaging}/changelog @ONLY)

# vorn_package(component SECTION section SUMMARY line DESCRIPTION text [DEPENDS packages]
#   [SUGGESTS packages] [NEEDS component...] [CONTROL file...] [TARGETS target...])
# A component that others install becomes a package of that name by one such call. Dependencies on
# shared libraries are found; TARGETS are what `./dev package` builds of it.
function(vorn_package component)
    cmake_parse_arguments(P "" "SECTION;SUMMARY;DESCRIPTION;DEPENDS;SUGGESTS" "NEEDS;CONTROL;TARGETS"
        ${ARGN})
    string(TOUPPER ${component} upper)
    foreach(pair IN ITEMS "NAME|${component}" "SECTION|${P_SECTION}" "DEPENDS|${P_DEPENDS}"
            "SUGGESTS|${P_SUGGESTS}" "CONTROL_EXTRA|${P_CONTROL}")
        string(REPLACE "|" ";" pair "${pair}")
        list(POP_FRONT pair name)
        set(CPACK_DEBIAN_${upper}_PACKAGE_${name} "${pair}" PARENT_SCOPE)
    endforeach()
    set(CPACK_DEBIAN_${upper}_DESCRIPTION "${P_SUMMARY}\n${P_DESCRIPTION}" PARENT_SCOPE)
    set(CPACK_COMPONENT_${upper}_DEPENDS ${P_NEEDS} PARENT_SCOPE)
    set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
    install(FILES packaging/debian/copyright ${packaging}/changelog
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${component} COMPONENT ${component}
        EXCLUDE_FROM_ALL)
    add_custom_target(packaged-${component} DEPENDS ${P_TARGETS})
    add_dependencies(packaged packaged-${component})
endfunction()
add_custom_target(packaged)

# What belongs to a machine and not below a prefix comes with the package alone.
set(bin_dir /usr/${CMAKE_INSTALL_BINDIR})
set(plugin /usr/${CMAKE_INSTALL_LIBDIR}/libVornPolicyCpu.so.${VORN_ABI})
file(READ packaging/systemd/sandbox.conf sandbox)
foreach(unit vorn-agent vorn-hwd)
    configure_file(packaging/systemd/${unit}.service.in ${packaging}/${unit}.service @ONLY)
    install(FILES ${packaging}/${unit}.service
        DESTINATION /usr/lib/systemd/system COMPONENT vorn EXCLUDE_FROM_ALL)
endforeach()
install(FILES packaging/systemd/run-vorn.mount
    DESTINATION /usr/lib/systemd/system COMPONENT vorn EXCLUDE_FROM_ALL)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/systemd/sandbox.conf)
install(FILES packaging/systemd/vorn.sysusers DESTINATION /usr/lib/sysusers.d RENAME vorn.conf
    COMPONENT vorn EXCLUDE_FROM_ALL)
install(FILES packaging/policy.yaml DESTINATION /etc/vorn COMPONENT vorn EXCLUDE_FROM_ALL)
install(FILES packaging/systemd/vorn.default DESTINATION /etc/default RENAME vorn
    COMPONENT vorn EXCLUDE_FROM_ALL)
install(DIRECTORY docs/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vorn
    COMPONENT vorn EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.md" PATTERN man EXCLUDE
    PATTERN schema EXCLUDE PATTERN grafana EXCLUDE)
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/vorn/examples
    COMPONENT vorn EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.yaml" PATTERN demo EXCLUDE
    PATTERN minimal-reader EXCLUDE)
install(DIRECTORY examples/python/ DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/python3-vorn/examples
    COMPONENT python3-vorn EXCLUDE_FROM_ALL FILES_MATCHING PATTERN "*.py")
foreach(component vorn vorn-dev python3-vorn)
    install(FILES packaging/debian/${component}.lintian-overrides
        DESTINATION ${CMAKE_INSTALL_DATADIR}/lintian/overrides RENAME ${component}
        COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

set(scripts ${CMAKE_SOURCE_DIR}/packaging/debian)
vorn_package(vorn SECTION net SUMMARY "control-plane policy tables of a switch"
    DESCRIPTION
    "The agent takes a policy of which packets may reach a switch's processor,
and how many of them, into tables in shared memory, the hardware side
programs it. Either may be killed at any time, and nothing is lost.

Contains both services, the vorn command that looks at them, the library of
the tables, and example policies."
    # The scripts and units run these.
    DEPENDS "systemd, procps, passwd"
    CONTROL ${scripts}/conffiles ${scripts}/postinst ${scripts}/prerm ${scripts}/postrm
        ${scripts}/triggers
    TARGETS ${programs} ${libraries})
set(dev_depends libxxhash-dev)
if(NOT VORN_FMT_UNPACKED)
    string(APPEND dev_depends ", libfmt-dev")
endif()
vorn_package(vorn-dev SECTION libdevel SUMMARY "control-plane policy tables: headers"
    DESCRIPTION
    "Headers, CMake package and pkg-config file to build programs on the tables
that the agent keeps."
    DEPENDS "${dev_depends}" NEEDS vorn TARGETS ${libraries})
if(TARGET vorn_python)
    # The extension is of one release of the interpreter.
    set(python ${Python_VERSION_MAJOR}.${Python_VERSION_MINOR})
    math(EXPR next_minor "${Python_VERSION_MINOR} + 1")
    vorn_package(python3-vorn SECTION python SUMMARY "control-plane policy tables: Python module"
        DESCRIPTION
        "The module vorn attaches to the tables of an agent that runs or of one that
has ended, and reads what an agent has recorded of itself: entries, changes,
why an entry is not in hardware, and how long hardware took, as objects and
as rows of data frames."
        DEPENDS "python3 (>= ${python}), python3 (<< ${Python_VERSION_MAJOR}.${next_minor})"
        SUGGESTS "python3-pandas, python3-matplotlib" NEEDS vorn
        CONTROL ${scripts}/python3-vorn/postinst ${scripts}/python3-vorn/prerm
        TARGETS vorn_python)
endif()

include(CPack)

if(BUILD_TESTING AND CMAKE_BUILD_TYPE STREQUAL "Release" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_test(NAME test_package COMMAND ${CMAKE_SOURCE_DIR}/tests/package/run ${CMAKE_BINARY_DIR})
    set_tests_properties(test_package PROPERTIES
        TIMEOUT ${VORN_TEST_TIMEOUT_S} SKIP_RETURN_CODE 77)
endif()
