# Writes the list of the layer's own symbols that its programs export to the modules:
# every global symbol an object of the layer's archive defines (no templates or inline
# functions, which each module has of its own), in the linker's dynamic-list form.
#   cmake -DARCHIVE=libplatform.a -DNM=nm -DOUTPUT=list -P LayerExports.cmake
execute_process(COMMAND ${NM} --defined-only --extern-only --format=posix ${ARCHIVE}
                OUTPUT_VARIABLE symbols RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${NM} could not read ${ARCHIVE}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(names)
foreach(line ${lines})
  # "name type [value size]"; T, D, B, R: code and data the layer defines once.
  if(line MATCHES "^([^ ]+) [TDBR]( |$)")
    list(APPEND names "${CMAKE_MATCH_1}")
  endif()
endforeach()
list(REMOVE_DUPLICATES names)
list(SORT names)
list(JOIN names ";\n  " body)
file(WRITE ${OUTPUT}.new "{\n  ${body};\n};\n")
# Unchanged lists keep their time, so that programs are not linked again for nothing.
execute_process(COMMAND ${CMAKE_COMMAND} -E copy_if_different ${OUTPUT}.new ${OUTPUT})
file(REMOVE ${OUTPUT}.new)
