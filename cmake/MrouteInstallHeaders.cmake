# Run by `cmake --install`: installs the public headers under
# <prefix>/<includedir>/mroute, and of the internal/ headers only those a
# public header reaches through its includes (templates need them). Headers
# are taken from the source tree and from the generated ones in the build
# tree; only folders that receive a header are created.
# Expects SRC_ROOT, BIN_ROOT (the two "src" folders) and DEST (include dir).
cmake_minimum_required(VERSION 3.25)
set(roots "${SRC_ROOT}" "${BIN_ROOT}")

# The file under either root that an include "mroute/..." names.
function(locate rel out)
  set(${out} "" PARENT_SCOPE)
  foreach(root ${roots})
    if(EXISTS "${root}/${rel}")
      set(${out} "${root}/${rel}" PARENT_SCOPE)
      return()
    endif()
  endforeach()
endfunction()

set(pending "")
foreach(root ${roots})
  file(GLOB_RECURSE headers RELATIVE "${root}" "${root}/mroute/*.h")
  foreach(rel ${headers})
    if(NOT rel MATCHES "/internal/" AND NOT rel MATCHES "/CMakeFiles/")
      list(APPEND pending "${rel}")
    endif()
  endforeach()
endforeach()

set(done "")
while(pending)
  list(POP_FRONT pending rel)
  if(rel IN_LIST done)
    continue()
  endif()
  list(APPEND done "${rel}")
  locate("${rel}" path)
  if(NOT path)
    message(FATAL_ERROR "an installed header includes ${rel}, which does not exist")
  endif()
  file(STRINGS "${path}" includes REGEX "^#include \"mroute/")
  foreach(line ${includes})
    string(REGEX REPLACE "^#include \"([^\"]+)\".*" "\\1" inc "${line}")
    list(APPEND pending "${inc}")
  endforeach()
endwhile()

list(SORT done)
foreach(rel ${done})
  locate("${rel}" path)
  get_filename_component(dir "${rel}" DIRECTORY)
  file(INSTALL DESTINATION "${DEST}/${dir}" TYPE FILE FILES "${path}")
endforeach()
