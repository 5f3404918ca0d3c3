# find_package(vexal) for component libraries and clients built with
# mingw-w64 against an installed vexal. It defines:
#
#   vexal::vexal     vexal.dll, its import library and include/vexal.h; linking
#                    it also links ole32, oleaut32 and uuid, which vexal.h's
#                    COM types call for
#   vexal::tarnel    tarnel.dll, which vexal.dll loads; listed so that
#                    $<TARGET_RUNTIME_DLLS:...> names both DLLs to copy
#   vexal::vexalgen  bin/vexalgen.exe, the generator of component libraries
#   VEXAL_DEF_FILE   lib/vexal.def, for an import library of another toolchain
#   vexal_add_component(<target> IDL <file.idl> SOURCES <sources...>)
#                    a component library from its IDL and the author's classes
#                    (vexalgen.cmake)
#
# Nothing here is built into the package's location: the installed tree may
# be moved as a whole.
get_filename_component(_vexal_prefix "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

if(NOT TARGET vexal::vexal)
  add_library(vexal::tarnel SHARED IMPORTED)
  set_target_properties(vexal::tarnel PROPERTIES
    IMPORTED_LOCATION "${_vexal_prefix}/bin/tarnel.dll"
    IMPORTED_IMPLIB "${_vexal_prefix}/lib/tarnel.dll.a")

  add_library(vexal::vexal SHARED IMPORTED)
  set_target_properties(vexal::vexal PROPERTIES
    IMPORTED_LOCATION "${_vexal_prefix}/bin/vexal.dll"
    IMPORTED_IMPLIB "${_vexal_prefix}/lib/vexal.dll.a"
    INTERFACE_INCLUDE_DIRECTORIES "${_vexal_prefix}/include"
    INTERFACE_LINK_LIBRARIES "vexal::tarnel;ole32;oleaut32;uuid")

  add_executable(vexal::vexalgen IMPORTED)
  set_target_properties(vexal::vexalgen PROPERTIES IMPORTED_LOCATION "${_vexal_prefix}/bin/vexalgen.exe")
endif()
include(${CMAKE_CURRENT_LIST_DIR}/vexalgen.cmake)

set(VEXAL_DEF_FILE "${_vexal_prefix}/lib/vexal.def")
unset(_vexal_prefix)
