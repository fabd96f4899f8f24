# Run with -DNM=... -DREADELF=... -DLIB=... -DMAP=...: the library exports exactly
# the names of its version script, and needs no platform library.
execute_process(COMMAND ${NM} -D --defined-only ${LIB} OUTPUT_VARIABLE nm_out
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIB}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${nm_out}")
set(exported "")
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^.* ([^ ]+)$" "\\1" name "${line}")
  string(REGEX REPLACE "@.*$" "" name "${name}")
  list(APPEND exported ${name})
endforeach()
list(SORT exported)

file(READ ${MAP} map)
string(REGEX MATCHALL "tcamwrap_[a-z0-9_]+" wanted "${map}")
list(SORT wanted)
if(NOT exported STREQUAL wanted)
  message(FATAL_ERROR "exported symbols differ from the binary interface:\n"
                      "exported: ${exported}\nwanted:   ${wanted}")
endif()

execute_process(COMMAND ${READELF} -d ${LIB} OUTPUT_VARIABLE dyn)
string(REGEX MATCHALL "Shared library: \\[[^]]+\\]" needed "${dyn}")
foreach(n IN LISTS needed)
  if(NOT n MATCHES "\\[(libc|libm|libgcc_s|libstdc\\+\\+|libasan|libubsan)\\.so")
    message(FATAL_ERROR "libtcamwrap must not need ${n}")  # sanitizer runtimes are fine
  endif()
endforeach()
list(LENGTH exported count)
message(STATUS "${count} exported names, needed: ${needed}")
