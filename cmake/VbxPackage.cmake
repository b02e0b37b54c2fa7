# The Debian packages libvbx-mem and libvbx-mem-dev: `cpack --config build/release/CPackConfig.cmake`.

# Sanitized libraries are for the tests alone, and a machine without the tools of Debian makes no packages.
find_program(VBX_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(VBX_IS_SANITIZED OR NOT PROJECT_IS_TOP_LEVEL OR NOT VBX_DPKG_SHLIBDEPS OR NOT CMAKE_LIBRARY_ARCHITECTURE)
  return()
endif()

# Packages have a folder of libraries for each architecture, so they are installed by rules of their own: one build
# serves both a prefix and the packages.
vbx_install(LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} RUNTIME deb_runtime DEV deb_development EXCLUDE_FROM_ALL)

# In a folder of the loader the libraries need no other way to each other. Both steps run where a package is put
# together, after the files are there.
set(VBX_PACKAGED_LIBRARIES tbbamalloc.so vbx_mem.so.${PROJECT_VERSION} vbx_mem_preload.so)
install(CODE "
  set(root \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
  foreach(library ${VBX_PACKAGED_LIBRARIES})
    file(RPATH_REMOVE FILE \"\${root}/lib/${CMAKE_LIBRARY_ARCHITECTURE}/lib\${library}\")
  endforeach()
  execute_process(COMMAND gzip -9nf \"\${root}/${CMAKE_INSTALL_MANDIR}/man7/vbx_mem.7\" COMMAND_ERROR_IS_FATAL ANY)"
  COMPONENT deb_runtime EXCLUDE_FROM_ALL)

set(VBX_PACKAGE_CONTACT "vbx_mem maintainers <maintainers@vbx-mem.invalid>" CACHE STRING
  "Name and address of who answers for the packages")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME libvbx-mem)
set(CPACK_PACKAGE_VENDOR vbx)
set(CPACK_PACKAGE_CONTACT ${VBX_PACKAGE_CONTACT})
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_COMPONENTS_ALL deb_runtime deb_development)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_COMPONENT_DEB_DEVELOPMENT_DEPENDS deb_runtime)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_NAME libvbx-mem)
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEB_RUNTIME_DESCRIPTION "Exact figures for each place in the code that allocates, for each module and
each phase of work, in reports that are written when the process ends. Linked
into a suite of programs and libraries, or preloaded into a program that knows
nothing of it. The switches are in vbx_mem(7).")
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/VbxPackageDependencies.cmake)
set(CPACK_VBX_SHLIBDEPS ${VBX_DPKG_SHLIBDEPS})
set(CPACK_VBX_LIBRARY_FOLDER ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
list(TRANSFORM VBX_PACKAGED_LIBRARIES PREPEND ${CMAKE_LIBRARY_OUTPUT_DIRECTORY}/lib OUTPUT_VARIABLE CPACK_VBX_LIBRARIES)
# What packages of hosts depend on, and the loader's list of libraries.
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/install/shlibs
  CONTENT "libvbx_mem @PROJECT_VERSION_MAJOR@ libvbx-mem (>= @PROJECT_VERSION@)\n" @ONLY)
file(CONFIGURE OUTPUT ${PROJECT_BINARY_DIR}/install/triggers CONTENT "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/install/shlibs ${PROJECT_BINARY_DIR}/install/triggers)

set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_NAME libvbx-mem-dev)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEB_DEVELOPMENT_DESCRIPTION "What a program or library is built with that links libvbx-mem: the headers,
the CMake package vbx_mem with its target vbx::mem, and a file for pkg-config.")
include(CPack)
