# vexal_add_component(<target> IDL <file.idl> SOURCES <sources...>)
#
# A component library in one call: widl compiles the IDL into a type library
# and a header, vexalgen generates the kit tables, COM wrappers, kit proxies
# and entry points from the type library, windres embeds the type library as
# resource 1, and the sources are linked with all of it into <target>.dll.
# The generated files are in <binary dir>/<target>_generated, which is on the
# target's include path (and on that of everything that links it):
# <stem>_vexal.h for the author and kit clients, widl's <stem>.h and
# <stem>_i.c for COM clients. The author's sources define the create() of
# each coclass's class.
#
# Used in the source tree (vexalgen built here) and from the installed
# package (vexal::vexalgen). VEXAL_WIDL and VEXAL_WIDL_FLAGS name widl and
# its options: the 64-bit target, and where "import" and "importlib" find
# the system IDL files and stdole2.tlb.
include_guard(GLOBAL)

# The generated code is C++ and the type library a resource.
get_property(_vexal_languages GLOBAL PROPERTY ENABLED_LANGUAGES)
foreach(language CXX RC)
  if(NOT language IN_LIST _vexal_languages)
    enable_language(${language})
  endif()
endforeach()

find_program(VEXAL_WIDL NAMES x86_64-w64-mingw32-widl widl REQUIRED)
find_path(VEXAL_WINE_IDL_DIR oaidl.idl PATHS /usr/include/wine/wine/windows NO_CMAKE_FIND_ROOT_PATH)
find_path(VEXAL_STDOLE2_DIR stdole2.tlb
  PATHS /usr/lib/x86_64-linux-gnu/wine/x86_64-windows /usr/lib/wine/x86_64-windows NO_CMAKE_FIND_ROOT_PATH)
set(_vexal_widl_flags --win64)
if(VEXAL_WINE_IDL_DIR)
  list(APPEND _vexal_widl_flags -I${VEXAL_WINE_IDL_DIR})
endif()
if(VEXAL_STDOLE2_DIR)
  list(APPEND _vexal_widl_flags -L${VEXAL_STDOLE2_DIR})
endif()
set(VEXAL_WIDL_FLAGS ${_vexal_widl_flags} CACHE STRING "widl options for component libraries")

function(vexal_add_component target)
  cmake_parse_arguments(arg "" "IDL" "SOURCES" ${ARGN})
  if(NOT arg_IDL)
    message(FATAL_ERROR "vexal_add_component(${target}): IDL <file.idl> is required")
  endif()
  get_filename_component(idl ${arg_IDL} ABSOLUTE)
  get_filename_component(stem ${idl} NAME_WE)
  get_filename_component(idldir ${idl} DIRECTORY)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/${target}_generated)
  file(MAKE_DIRECTORY ${out})

  if(TARGET vexalgen)
    # Built here: CMake runs it through the cross-compiling emulator.
    set(generator vexalgen)
    set(runtime vexal)
  else()
    set(generator ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:vexal::vexalgen>)
    set(runtime vexal::vexal)
  endif()

  # <stem>_i.c defines the IIDs and CLSIDs, for the library's own COM clients.
  add_custom_command(OUTPUT ${out}/${stem}.tlb ${out}/${stem}.h ${out}/${stem}_i.c
    COMMAND ${VEXAL_WIDL} ${VEXAL_WIDL_FLAGS} -I${idldir} -t -o ${out}/${stem}.tlb ${idl}
    COMMAND ${VEXAL_WIDL} ${VEXAL_WIDL_FLAGS} -I${idldir} -h -o ${out}/${stem}.h ${idl}
    COMMAND ${VEXAL_WIDL} ${VEXAL_WIDL_FLAGS} -I${idldir} -u -o ${out}/${stem}_i.c ${idl}
    DEPENDS ${idl} COMMENT "widl ${stem}.idl" VERBATIM)
  add_custom_command(OUTPUT ${out}/${stem}_vexal.h ${out}/${stem}_vexal.cpp ${out}/${stem}_vexal.def
    COMMAND ${generator} --module $<TARGET_FILE_NAME:${target}> ${out}/${stem}.tlb ${out}
    DEPENDS ${out}/${stem}.tlb ${generator} COMMENT "vexalgen ${stem}.tlb" VERBATIM)
  # The resource compiler finds the type library on the include path.
  file(CONFIGURE OUTPUT ${out}/${stem}_typelib.rc CONTENT "1 TYPELIB \"${stem}.tlb\"\n")
  set_source_files_properties(${out}/${stem}_typelib.rc PROPERTIES OBJECT_DEPENDS ${out}/${stem}.tlb)

  add_library(${target} SHARED ${arg_SOURCES} ${out}/${stem}_vexal.cpp ${out}/${stem}_vexal.def
    ${out}/${stem}_typelib.rc)
  target_include_directories(${target} PUBLIC ${out})
  target_link_libraries(${target} PRIVATE ${runtime} ole32 oleaut32 uuid)
  target_compile_features(${target} PRIVATE cxx_std_17)
  if(MINGW)
    # The GCC and C++ runtimes go into the DLL, so it needs only Windows' DLLs.
    target_link_options(${target} PRIVATE -static)
  endif()
endfunction()
