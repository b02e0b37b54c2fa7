# Read by cpack before it makes the packages: what libvbx-mem depends on, from what its libraries need.
#
# Asked here and not by cpack's own way, which brings scripts along that run ldconfig at each installation and removal;
# a package that has a trigger instead needs no script.

set(folder ${CPACK_PACKAGE_DIRECTORY}/_CPack_Packages/dependencies)
file(WRITE ${folder}/debian/control "")
# The libraries need each other, and no package of the system has them.
execute_process(
  COMMAND ${CPACK_VBX_SHLIBDEPS} -O -l${CPACK_VBX_LIBRARY_FOLDER} --ignore-missing-info --warnings=0
          ${CPACK_VBX_LIBRARIES}
  WORKING_DIRECTORY ${folder} OUTPUT_VARIABLE dependencies COMMAND_ERROR_IS_FATAL ANY)
if(NOT dependencies MATCHES "shlibs:Depends=([^\n]+)")
  message(FATAL_ERROR "dpkg-shlibdeps answers '${dependencies}'")
endif()
set(CPACK_DEBIAN_DEB_RUNTIME_PACKAGE_DEPENDS "${CMAKE_MATCH_1}")
