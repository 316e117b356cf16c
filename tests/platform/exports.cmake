# The launcher exports the layer's calls the GTK module takes (Plat...) and nothing else:
# never a symbol of the XML, PNG or zlib code linked into it, which would take the place of
# the copies GTK loads. Symbols with a version (name@VERSION) are the C library's data the
# program holds copies of.
#   cmake -DPROGRAM=Launcher -DNM=nm -P exports.cmake
execute_process(COMMAND ${NM} -D --defined-only ${PROGRAM} OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} could not read ${PROGRAM}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(exported)
foreach(line ${lines})
  if(line MATCHES " ([^ ]+)$")
    set(name ${CMAKE_MATCH_1})
    if(name MATCHES "^Plat")
      list(APPEND exported ${name})
    elseif(NOT name MATCHES "@")
      message(SEND_ERROR "exported but not a call of the layer: ${name}")
    endif()
  endif()
endforeach()
if(NOT exported)
  message(FATAL_ERROR "none of the layer's calls is exported")
endif()
message(STATUS "exported: ${exported}")
