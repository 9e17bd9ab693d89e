# Builds the Debian package of a configured and built tree with cpack and
# checks its control fields and its contents.
#
# cmake -DCPACK=... -DBUILD_DIR=... -DWORK_DIR=... -DPOINTER_SIZE=4|8
#       -DEXPECT_TOOL=0|1 -P check-deb.cmake
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE error)
  if(NOT result EQUAL 0)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "failed (${result}): ${command}\n${output}${error}")
  endif()
  set(run_output "${output}" PARENT_SCOPE)
endfunction()

find_program(DPKG_DEB dpkg-deb)
if(NOT DPKG_DEB)
  message("SKIPPED: dpkg-deb is not installed")
  return()
endif()

file(REMOVE_RECURSE ${WORK_DIR})
run(${CPACK} --config ${BUILD_DIR}/CPackConfig.cmake -G DEB -B ${WORK_DIR})
file(GLOB packages ${WORK_DIR}/*.deb)
list(LENGTH packages count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one .deb in ${WORK_DIR}, found: ${packages}")
endif()

set(failures "")
macro(expect what actual expected)
  if(NOT "${actual}" STREQUAL "${expected}")
    string(APPEND failures "${what}: '${actual}', expected '${expected}'\n")
  endif()
endmacro()

if(POINTER_SIZE EQUAL 4)
  set(arch i386)
else()
  run(dpkg --print-architecture)
  string(STRIP "${run_output}" arch)
endif()
foreach(field Package Version Architecture Maintainer)
  run(${DPKG_DEB} --field ${packages} ${field})
  string(STRIP "${run_output}" value_${field})
endforeach()
expect(Package "${value_Package}" "loginstorage")
expect(Version "${value_Version}" "5.0.5-1")
expect(Architecture "${value_Architecture}" "${arch}")
expect(Maintainer "${value_Maintainer}" "LoginStorage Developers <maintainers@loginstorage.invalid>")

# "path" for files and folders, "path -> target" for links.
run(${DPKG_DEB} --contents ${packages})
string(REPLACE "\n" ";" lines "${run_output}")
set(contents "")
foreach(line IN LISTS lines)
  if(line MATCHES "^([-dl])[^ ]* +[^ ]+ +[0-9]+ +[^ ]+ +[^ ]+ +(.*)$")
    list(APPEND contents "${CMAKE_MATCH_1} ${CMAKE_MATCH_2}")
  endif()
endforeach()

set(expected_entries
  "- ./usr/lib/libLoginStorage.so.5.0.5"
  "l ./usr/lib/libLoginStorage.so.5 -> libLoginStorage.so.5.0.5"
  "l ./usr/lib/libLoginStorage.so -> libLoginStorage.so.5"
  "- ./usr/include/LoginStorage/LoginStorage.h"
  "- ./usr/include/LoginStorage/platform/DebugSettings.h"
  "- ./usr/include/LoginStorage/platform/TraceHandler.h"
  "- ./usr/include/LoginStorage/storage/AbstractObjectStorage.h"
  "- ./usr/include/LoginStorage/storage/AbstractStorage.h"
  "- ./usr/include/LoginStorage/storage/Exception.h"
  "- ./usr/include/LoginStorage/storage/Export.h"
  "- ./usr/include/LoginStorage/storage/IStorable.h"
  "- ./usr/include/LoginStorage/storage/RefCountPtr.h"
  "- ./usr/include/LoginStorage/version/VersionInfo.h"
  "- ./usr/lib/cmake/LoginStorage/LoginStorageConfig.cmake"
  "- ./usr/lib/cmake/LoginStorage/LoginStorageConfigVersion.cmake"
  "- ./usr/lib/cmake/LoginStorage/LoginStorageTargets.cmake"
  "- ./usr/lib/pkgconfig/loginstorage.pc")
if(EXPECT_TOOL)
  list(APPEND expected_entries "- ./usr/bin/loginstorage")
endif()
foreach(entry IN LISTS expected_entries)
  if(NOT entry IN_LIST contents)
    string(APPEND failures "missing from the package: ${entry}\n")
  endif()
endforeach()

# The library's private headers stay out of the package.
foreach(entry IN LISTS contents)
  if(entry MATCHES "/(trace|util)/|TraceSink\\.h|VersionValues\\.h")
    string(APPEND failures "private file in the package: ${entry}\n")
  endif()
endforeach()

if(failures)
  list(JOIN contents "\n" listing)
  message(FATAL_ERROR "${failures}\nThe package holds:\n${listing}")
endif()
list(LENGTH contents entries)
message("${packages}: ${entries} entries as expected")
