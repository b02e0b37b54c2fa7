# What a host links with, from the build tree and from where the libraries are installed.
include(CMakePackageConfigHelpers)

# Nothing in a host refers to the shim by name, so a linker that drops libraries without references drops it; then
# malloc is the C library's and no event ever arrives. One word of the command line, because the options around a
# library of its own would not keep their places.
target_link_libraries(vbx_mem INTERFACE
  "$<BUILD_INTERFACE:-Wl,--push-state,--no-as-needed,$<TARGET_FILE:tbbamalloc>,--pop-state>")

# The libraries lie in one folder and find each other there, wherever it stands.
set_target_properties(vbx_mem vbx_mem_preload PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS tbbamalloc vbx_mem vbx_mem_preload LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vbx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# Written by hand and not exported: an export would ask every host for the development files of the libraries below.
set(VBX_PACKAGE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/vbx_mem)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/vbx_mem-config.cmake.in
  ${PROJECT_BINARY_DIR}/vbx_mem-config.cmake INSTALL_DESTINATION ${VBX_PACKAGE_FOLDER}
  PATH_VARS CMAKE_INSTALL_INCLUDEDIR CMAKE_INSTALL_LIBDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/vbx_mem-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vbx_mem-config.cmake ${PROJECT_BINARY_DIR}/vbx_mem-config-version.cmake
        DESTINATION ${VBX_PACKAGE_FOLDER})

# Relative to the file itself, so that an installed tree can be moved; lib may lie more than one folder deep.
string(REGEX REPLACE "[^/]+" ".." VBX_PC_UP ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
configure_file(${CMAKE_CURRENT_LIST_DIR}/vbx_mem.pc.in ${PROJECT_BINARY_DIR}/vbx_mem.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/vbx_mem.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
