# cmake -DLIST=<names, one a line> -DOUT=<file.def> -P vexaldef.cmake
# Writes the module definition file of vexal.dll from the list of its exports.
file(STRINGS ${LIST} names REGEX "^[A-Za-z_][A-Za-z0-9_]*$")
list(SORT names)
set(text "LIBRARY vexal.dll\nEXPORTS\n")
foreach(name IN LISTS names)
  string(APPEND text "    ${name}\n")
endforeach()
file(WRITE ${OUT} "${text}")
