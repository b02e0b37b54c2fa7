# The reference of the public headers as pages: `cmake --build build/release --target docs`, then
# build/release/reference/html/index.html.
find_program(VBX_DOXYGEN doxygen)
find_package(Python3 COMPONENTS Interpreter QUIET)
if(NOT PROJECT_IS_TOP_LEVEL OR NOT VBX_DOXYGEN OR NOT Python3_FOUND)
  return()
endif()

set(VBX_REFERENCE_FOLDER ${PROJECT_BINARY_DIR}/reference)
configure_file(${CMAKE_CURRENT_LIST_DIR}/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_target(docs
  COMMAND ${CMAKE_COMMAND} -E make_directory ${VBX_REFERENCE_FOLDER}
  COMMAND ${VBX_DOXYGEN} ${PROJECT_BINARY_DIR}/Doxyfile
  COMMENT "Reference of the public headers in ${VBX_REFERENCE_FOLDER}/html" VERBATIM)
