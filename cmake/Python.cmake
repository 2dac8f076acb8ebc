# The Python module `vorn`: the package of tools/python/vorn with its extension _vorn, which is made
# of the sources beside it. In the build folder it lies in python/, for PYTHONPATH.

set(python_package_dir ${CMAKE_BINARY_DIR}/python/vorn)
# Where Debian's interpreter looks below /usr; below another prefix it is for PYTHONPATH.
set(VORN_PYTHON_DIR lib/python3/dist-packages)

file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/python/*.cpp)
pybind11_add_module(vorn_python MODULE NO_EXTRAS ${sources})
vorn_common(vorn_python)
# pybind11's own types are hidden, and so has to be what holds them.
target_compile_options(vorn_python PRIVATE ${VORN_NOT_HOT} -fvisibility=hidden)
target_compile_definitions(vorn_python PRIVATE VORN_VERSION="${PROJECT_VERSION}")
target_link_libraries(vorn_python PRIVATE vorn_fmt vorn_inspect vorn_recording VornPlatform)
file(RELATIVE_PATH lib_from_package /${VORN_PYTHON_DIR}/vorn /${CMAKE_INSTALL_LIBDIR})
set_target_properties(vorn_python PROPERTIES
    OUTPUT_NAME _vorn
    LIBRARY_OUTPUT_DIRECTORY ${python_package_dir}
    # One for the build folder, one for an installed tree.
    INSTALL_RPATH "$ORIGIN/../..;$ORIGIN/${lib_from_package}")

file(GLOB package_files CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tools/python/vorn/*)
list(FILTER package_files EXCLUDE REGEX "__pycache__")
foreach(file ${package_files})
    get_filename_component(name ${file} NAME)
    configure_file(${file} ${python_package_dir}/${name} COPYONLY)
endforeach()

install(TARGETS vorn_python LIBRARY DESTINATION ${VORN_PYTHON_DIR}/vorn COMPONENT python3-vorn)
install(FILES ${package_files} DESTINATION ${VORN_PYTHON_DIR}/vorn COMPONENT python3-vorn)
