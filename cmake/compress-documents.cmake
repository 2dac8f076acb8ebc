# Run by CPack on what goes into the packages: manual pages and changelogs are kept compressed,
# without names and times, so that the same build makes the same package.
foreach(pattern share/man/*.[1-8] share/doc/*/changelog)
    file(GLOB_RECURSE found ${CPACK_TEMPORARY_DIRECTORY}/*/usr/${pattern})
    foreach(file ${found})
        execute_process(COMMAND gzip -9n ${file} COMMAND_ERROR_IS_FATAL ANY)
    endforeach()
endforeach()
