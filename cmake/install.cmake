# What "cmake --install" puts under the prefix, for people who build
# component libraries and clients against vexal without this source tree:
#
#   include/vexal.h
#   bin/vexal.dll, bin/tarnel.dll
#   lib/vexal.dll.a, lib/tarnel.dll.a       mingw-w64 import libraries
#   lib/vexal.def                           for making an import library with
#                                           another toolchain (lib /def:vexal.def)
#   bin/vexalgen.exe                        the generator of component libraries
#   lib/cmake/vexal/                        find_package(vexal): vexal::vexal,
#                                           vexal::vexalgen, vexal_add_component()
#
# The folders are fixed: vexalConfig.cmake finds the files by these names.
include(CMakePackageConfigHelpers)

# The module definition file lists the names vexal.dll exports; the export
# check (tests/exports) holds the DLL to the same list.
set(VEXAL_EXPORT_LIST ${CMAKE_SOURCE_DIR}/cmake/vexal-exports.txt)
set(VEXAL_DEF_FILE ${CMAKE_BINARY_DIR}/lib/vexal.def)
add_custom_command(OUTPUT ${VEXAL_DEF_FILE}
  COMMAND ${CMAKE_COMMAND} -DLIST=${VEXAL_EXPORT_LIST} -DOUT=${VEXAL_DEF_FILE} -P ${CMAKE_CURRENT_LIST_DIR}/vexaldef.cmake
  DEPENDS ${VEXAL_EXPORT_LIST} ${CMAKE_CURRENT_LIST_DIR}/vexaldef.cmake
  COMMENT "Generating vexal.def" VERBATIM)
add_custom_target(vexal_def ALL DEPENDS ${VEXAL_DEF_FILE})

install(TARGETS vexal RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
if(TARGET tarnel)
  install(TARGETS tarnel RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
endif()
install(TARGETS vexalgen RUNTIME DESTINATION bin)
install(FILES ${CMAKE_SOURCE_DIR}/include/vexal.h DESTINATION include)
install(FILES ${VEXAL_DEF_FILE} DESTINATION lib)

set(VEXAL_PACKAGE_VERSION 1.0.0)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/cmake/vexalConfigVersion.cmake
  VERSION ${VEXAL_PACKAGE_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/vexalConfig.cmake ${CMAKE_CURRENT_LIST_DIR}/vexalgen.cmake
  ${CMAKE_BINARY_DIR}/cmake/vexalConfigVersion.cmake
  DESTINATION lib/cmake/vexal)
