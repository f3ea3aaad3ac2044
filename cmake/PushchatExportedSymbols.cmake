# The binary interface check: the dynamic symbols a shared library defines,
# demangled and sorted, must equal a list kept in the source tree. A change
# of the exported interface then fails the build until the list is updated
# in the same commit (the build writes the new list beside the library).
#
# Compilers and sanitizers emit different helper symbols, so the check runs
# in plain GCC builds only; PUSHCHAT_CHECK_SYMBOLS turns it off.

if(NOT DEFINED PUSHCHAT_SYMBOLS_LIBRARY)
  # Included from the project: define the check.
  set(default_check OFF)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND PUSHCHAT_SANITIZE STREQUAL "" AND NOT PUSHCHAT_FUZZ)
    set(default_check ON)
  endif()
  option(PUSHCHAT_CHECK_SYMBOLS "Compare the library's exported symbols with the checked-in list" ${default_check})

  function(pushchat_check_exported_symbols target list)
    if(NOT PUSHCHAT_CHECK_SYMBOLS)
      return()
    endif()
    set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${target}.symbols.checked)
    add_custom_command(OUTPUT ${stamp}
      COMMAND ${CMAKE_COMMAND} -DPUSHCHAT_SYMBOLS_LIBRARY=$<TARGET_FILE:${target}> -DLIST=${list}
              -DACTUAL=${CMAKE_CURRENT_BINARY_DIR}/${target}.symbols -DNM=${CMAKE_NM}
              -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
      COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
      DEPENDS ${target} ${list} ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
      COMMENT "Checking the symbols ${target} exports"
      VERBATIM)
    add_custom_target(${target}_symbols ALL DEPENDS ${stamp})
  endfunction()
  return()
endif()

# Run as a script: cmake -DPUSHCHAT_SYMBOLS_LIBRARY=lib -DLIST=file -DACTUAL=file -DNM=nm -P this
execute_process(COMMAND ${NM} --dynamic --defined-only --demangle ${PUSHCHAT_SYMBOLS_LIBRARY}
  OUTPUT_VARIABLE nm_output RESULT_VARIABLE nm_result)
if(NOT nm_result EQUAL 0)
  message(FATAL_ERROR "${NM} failed on ${PUSHCHAT_SYMBOLS_LIBRARY}")
endif()
string(REPLACE ";" "\\;" nm_output "${nm_output}")
string(REPLACE "\n" ";" nm_lines "${nm_output}")
set(symbols "")
foreach(line IN LISTS nm_lines)
  # "<address> <kind> <name>"
  if(line MATCHES "^[0-9a-f]+ [A-Za-z] (.+)$")
    list(APPEND symbols "${CMAKE_MATCH_1}")
  endif()
endforeach()
list(SORT symbols)
list(REMOVE_DUPLICATES symbols)
string(REPLACE ";" "\n" actual "${symbols}")
string(REPLACE "\\\n" ";" actual "${actual}")
set(actual "${actual}\n")
file(WRITE ${ACTUAL} "${actual}")

file(READ ${LIST} expected)
if(NOT actual STREQUAL expected)
  execute_process(COMMAND diff -u ${LIST} ${ACTUAL})
  message(FATAL_ERROR "The library's exported symbols differ from ${LIST} (diff above). "
    "If the change of the binary interface is deliberate, copy ${ACTUAL} over the list in the same commit.")
endif()
