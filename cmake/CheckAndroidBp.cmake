# Fails when Android.bp and the CMake build list different sources. Run as
#   cmake -DROOT=<source dir> -DLIBRARY=a|b -DSTANDIN=a|b -DTESTS=a|b -P CheckAndroidBp.cmake
# with each list the sources of the CMake targets it stands for, absolute or relative to ROOT.

file(READ "${ROOT}/Android.bp" bp)
# Comments out of the way, so a quoted path in one is not taken for a source.
string(REGEX REPLACE "//[^\n]*" "" bp "${bp}")

# The quoted entries of `srcs: [...]` in the module named name; "" when the module has none.
function(bp_srcs name out)
  string(FIND "${bp}" "name: \"${name}\"" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "Android.bp has no module named ${name}")
  endif()
  string(SUBSTRING "${bp}" ${at} -1 rest)
  string(REGEX MATCH "srcs: \\[[^]]*\\]" srcs "${rest}")
  string(REGEX MATCHALL "\"[^\"]+\"" entries "${srcs}")
  list(TRANSFORM entries REPLACE "\"" "")
  set(${out} "${entries}" PARENT_SCOPE)
endfunction()

function(relative_sorted input out)
  string(REPLACE "|" ";" items "${input}")
  set(result "")
  foreach(item ${items})
    cmake_path(IS_ABSOLUTE item absolute)
    if(absolute)
      file(RELATIVE_PATH item "${ROOT}" "${item}")
    endif()
    list(APPEND result "${item}")
  endforeach()
  list(SORT result)
  set(${out} "${result}" PARENT_SCOPE)
endfunction()

function(compare what bp_list cmake_list)
  list(SORT bp_list)
  if(NOT bp_list STREQUAL cmake_list)
    set(only_bp ${bp_list})
    list(REMOVE_ITEM only_bp ${cmake_list})
    set(only_cmake ${cmake_list})
    list(REMOVE_ITEM only_cmake ${bp_list})
    message(SEND_ERROR "${what} differ: only in Android.bp: [${only_bp}]; "
                       "only in CMake: [${only_cmake}]")
  endif()
endfunction()

bp_srcs(libmeters_srcs library_bp)
relative_sorted("${LIBRARY}" library_cmake)
compare("libmeters' sources" "${library_bp}" "${library_cmake}")

bp_srcs(libmeters standalone_bp)
list(REMOVE_ITEM standalone_bp ":libmeters_srcs")
compare("libmeters' device-only sources" "${standalone_bp}" "platform/src/seams.cpp")

bp_srcs(libmeters_standin standin_bp)
relative_sorted("${STANDIN}" standin_cmake)
compare("the stand-ins' sources" "${standin_bp}" "${standin_cmake}")

bp_srcs(libmeters_test tests_bp)
relative_sorted("${TESTS}" tests_cmake)
compare("the suite's sources" "${tests_bp}" "${tests_cmake}")
