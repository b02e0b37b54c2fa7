# What a host links with, from the build tree and from where the libraries are installed.
include(CMakePackageConfigHelpers)

# Nothing in a host refers to the shim by name, so a linker that drops libraries without references drops it; then
# malloc is the C library's and no event ever arrives. One word among the libraries: several would not keep their
# places, and options do not come through a static library of a host with old policies.
target_link_libraries(vbx_mem INTERFACE
  "-Wl,--push-state,--no-as-needed,\"$<TARGET_FILE:tbbamalloc>\",--pop-state")

# The libraries lie in one folder and find each other there, wherever it stands.
set_target_properties(vbx_mem vbx_mem_preload PROPERTIES INSTALL_RPATH "$ORIGIN")

# The files of the product under a prefix, in two parts: what runs and what is built with.
#   vbx_install(LIBDIR folder RUNTIME component DEV component [EXCLUDE_FROM_ALL])
function(vbx_install)
  cmake_parse_arguments(arg "EXCLUDE_FROM_ALL" "LIBDIR;RUNTIME;DEV" "" ${ARGN})
  set(exclude)
  if(arg_EXCLUDE_FROM_ALL)
    set(exclude EXCLUDE_FROM_ALL)
  endif()
  set(work ${PROJECT_BINARY_DIR}/install/${arg_DEV})

  install(TARGETS tbbamalloc vbx_mem vbx_mem_preload
    LIBRARY DESTINATION ${arg_LIBDIR} COMPONENT ${arg_RUNTIME} NAMELINK_COMPONENT ${arg_DEV} ${exclude})
  install(FILES ${VBX_MANUAL} DESTINATION ${CMAKE_INSTALL_MANDIR}/man7 COMPONENT ${arg_RUNTIME} ${exclude})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/vbx DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT ${arg_DEV} ${exclude})

  # Written by hand and not exported: an export would ask every host for the development files of the libraries below.
  set(VBX_LIBDIR ${arg_LIBDIR})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/vbx_mem-config.cmake.in ${work}/vbx_mem-config.cmake
    INSTALL_DESTINATION ${arg_LIBDIR}/cmake/vbx_mem PATH_VARS CMAKE_INSTALL_INCLUDEDIR VBX_LIBDIR)
  write_basic_package_version_file(${work}/vbx_mem-config-version.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${work}/vbx_mem-config.cmake ${work}/vbx_mem-config-version.cmake
    DESTINATION ${arg_LIBDIR}/cmake/vbx_mem COMPONENT ${arg_DEV} ${exclude})

  # Relative to the file itself, so that an installed tree can be moved; but a folder given as an absolute path stays
  # where it is.
  get_filename_component(libdir ${arg_LIBDIR} ABSOLUTE BASE_DIR ${CMAKE_INSTALL_PREFIX})
  file(RELATIVE_PATH up ${libdir}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" VBX_PC_UP "${up}")
  set(VBX_PC_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR})
  if(NOT IS_ABSOLUTE ${VBX_PC_INCLUDEDIR})
    string(PREPEND VBX_PC_INCLUDEDIR "\${prefix}/")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/vbx_mem.pc.in ${work}/vbx_mem.pc @ONLY)
  install(FILES ${work}/vbx_mem.pc DESTINATION ${arg_LIBDIR}/pkgconfig COMPONENT ${arg_DEV} ${exclude})
endfunction()

vbx_install(LIBDIR ${CMAKE_INSTALL_LIBDIR} RUNTIME runtime DEV development)
