# The kinds of target that the folders below vbx/ define.

# A static PIC archive that ends up inside libvbx_mem.so (or a test); its symbols stay inside.
#   vbx_add_archive(NAME SOURCES... )
function(vbx_add_archive name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC vbx_library_flags)
endfunction()

# Objects that are part of a library of the product as if they were its own sources, its exports among them. Only
# direct links carry them.
#   vbx_add_objects(NAME SOURCES... )
function(vbx_add_objects name)
  add_library(${name} OBJECT ${ARGN})
  target_link_libraries(${name} PUBLIC vbx_library_flags)
endfunction()

# A shared library of the product: hidden visibility, an export list, never unloaded, bound at load.
#   vbx_add_product_library(NAME EXPORTS file SOURCES ...)
function(vbx_add_product_library name)
  cmake_parse_arguments(arg "" "EXPORTS" "SOURCES" ${ARGN})
  add_library(${name} SHARED ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:vbx_library_flags>)
  target_link_options(${name} PRIVATE
    "LINKER:-z,nodelete" "LINKER:-z,now" "LINKER:--exclude-libs,ALL"
    "LINKER:--version-script=${arg_EXPORTS}")
  if(NOT VBX_IS_SANITIZED)
    target_link_options(${name} PRIVATE "LINKER:-z,defs")
  endif()
  set_target_properties(${name} PROPERTIES LINK_DEPENDS ${arg_EXPORTS})
endfunction()
