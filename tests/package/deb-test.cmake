# The Debian packages as a distribution and their users meet them, for the
# architecture of the build under test (ARCH: amd64 or i386).
#
#   MODE=build         scripts/build-debs into DEB_DIR, then checks the control
#                      fields that tie packages, architectures and hiredis
#   MODE=lintian       lintian on every package: no error, no warning
#   MODE=find_package  unpacks the packages into a scratch root (dpkg -x) and
#   MODE=pkg-config    builds and runs the consumer against it
#
# cmake -DMODE=... -DSOURCE_DIR=... -DDEB_DIR=... -DARCH=... -DMULTIARCH=...
#       [-DWORK_DIR=... -DCONSUMER_DIR=... -DCXX=... -DCXX_FLAGS=...
#        -DLINKER_FLAGS=... -DGENERATOR=...] -P deb-test.cmake
cmake_minimum_required(VERSION 3.25)

include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

function(field package name)
  run(dpkg-deb --field ${DEB_DIR}/${package}_${version}_${ARCH}.deb ${name})
  string(STRIP "${run_output}" value)
  set(${name} "${value}" PARENT_SCOPE)
endfunction()

set(failures "")
function(expect what actual expected)
  if(NOT "${actual}" MATCHES "${expected}")
    set(failures "${failures}${what}: '${actual}', expected to match '${expected}'\n"
      PARENT_SCOPE)
  endif()
endfunction()

foreach(tool dpkg-buildpackage dh)
  find_program(found_${tool} ${tool})
  if(NOT found_${tool})
    message("SKIPPED: ${tool} is not installed (scripts/install-deps installs it)")
    return()
  endif()
endforeach()

file(STRINGS ${SOURCE_DIR}/CMakeLists.txt version_line REGEX "^ *VERSION [0-9.]+$")
string(STRIP "${version_line}" version_line)
string(REPLACE "VERSION " "" version "${version_line}")
set(version ${version}-1)

if(MODE STREQUAL "build")
  file(REMOVE_RECURSE ${DEB_DIR})
  run(${SOURCE_DIR}/scripts/build-debs --arch ${ARCH} ${DEB_DIR})
  file(GLOB debs RELATIVE ${DEB_DIR} ${DEB_DIR}/*.deb)
  message("built: ${debs}")

  # package | Multi-Arch | Depends must match
  set(shared_libs "libc6 \\(>= [0-9.]+\\).*libstdc\\+\\+6 \\(>= [0-9.]+\\)")
  set(cases
    "libloginstorage5|same|^${shared_libs}$"
    "libloginstorage-dev|same|^libloginstorage5 \\(= ${version}\\)$"
    "loginstorage-tools|foreign|libloginstorage5 \\(>= ")
  if(EXISTS ${DEB_DIR}/libloginstorageredis5_${version}_${ARCH}.deb)
    list(APPEND cases
      "libloginstorageredis5|same|libhiredis[0-9.]+ .*libloginstorage5 \\(>= "
      "libloginstorageredis-dev|same|libloginstorageredis5 \\(= ${version}\\), libloginstorage-dev \\(= ${version}\\)")
  endif()
  foreach(case IN LISTS cases)
    string(REPLACE "|" ";" case "${case}")
    list(GET case 0 package)
    list(GET case 1 multiarch)
    list(GET case 2 depends)
    field(${package} Multi-Arch)
    field(${package} Depends)
    expect("${package} Multi-Arch" "${Multi-Arch}" "^${multiarch}$")
    expect("${package} Depends" "${Depends}" "${depends}")
    # Only the Redis library may pull in hiredis.
    if(NOT package STREQUAL "libloginstorageredis5" AND Depends MATCHES "hiredis")
      string(APPEND failures "${package} depends on hiredis: ${Depends}\n")
    endif()
    if(NOT EXISTS ${DEB_DIR}/${package}_${version}_${ARCH}.deb)
      string(APPEND failures "missing: ${package}\n")
    endif()
  endforeach()
  if(failures)
    message(FATAL_ERROR "${failures}")
  endif()
  return()
endif()

file(GLOB debs ${DEB_DIR}/*_${ARCH}.deb)
if(NOT debs)
  message(FATAL_ERROR "no packages in ${DEB_DIR}: the package_debs_build test makes them")
endif()

if(MODE STREQUAL "lintian")
  find_program(LINTIAN lintian)
  if(NOT LINTIAN)
    message("SKIPPED: lintian is not installed (scripts/install-deps installs it)")
    return()
  endif()
  run(${LINTIAN} --fail-on error,warning ${debs})
  message("${run_output}")
  return()
endif()

# --- consumers: the packages unpacked into a scratch root, as a user would
# unpack them into a container image or a sysroot.
set(root ${WORK_DIR}/root)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${root})
list(FILTER debs EXCLUDE REGEX "-dbgsym_")
# The Redis development package comes last: the tool needs only its library.
set(redis_debs ${debs})
list(FILTER redis_debs INCLUDE REGEX "/libloginstorageredis-dev_")
list(FILTER debs EXCLUDE REGEX "/libloginstorageredis-dev_")
foreach(deb IN LISTS debs)
  run(dpkg -x ${deb} ${root})
endforeach()
set(lib_dir ${root}/usr/lib/${MULTIARCH})
set(run_env ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${lib_dir})
separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
separate_arguments(linker_flags UNIX_COMMAND "${LINKER_FLAGS}")

# The tool of loginstorage-tools runs with the packaged library.
run(${run_env} ${root}/usr/bin/loginstorage version)
expect("loginstorage version" "${run_output}" "Name: +LoginStorage")

if(MODE STREQUAL "find_package")
  set(configure ${CMAKE_COMMAND} -S ${CONSUMER_DIR} -G ${GENERATOR}
    -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}"
    -DCMAKE_LIBRARY_ARCHITECTURE=${MULTIARCH}
    -DCMAKE_PREFIX_PATH=${root}/usr
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
  if(redis_debs)
    # Asked for without its package, the Redis component is named as missing.
    execute_process(COMMAND ${configure} -B ${WORK_DIR}/no-redis -DCONSUMER_REDIS=ON
      RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}")
    expect("find_package(COMPONENTS Redis) without libloginstorageredis-dev"
      "${result} ${output}" "^[1-9].*lacks the requested component\\(s\\): Redis")
    foreach(deb IN LISTS redis_debs)
      run(dpkg -x ${deb} ${root})
    endforeach()
    list(APPEND configure -DCONSUMER_REDIS=ON)
  endif()
  run(${configure} -B ${WORK_DIR}/build)
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  set(consumer ${WORK_DIR}/build/consumer)
elseif(MODE STREQUAL "pkg-config")
  set(modules loginstorage)
  set(want_flags "-lLoginStorage")
  set(defines "")
  if(redis_debs)
    foreach(deb IN LISTS redis_debs)
      run(dpkg -x ${deb} ${root})
    endforeach()
    list(APPEND modules loginstorage-redis)
    set(want_flags "-lLoginStorageRedis -lLoginStorage")
    set(defines -DCONSUMER_REDIS)
  endif()
  # pkg-config of the target architecture, as the installed system sees it:
  # the files name /usr and so give no flags for the system folders.
  set(pkg_config ${CMAKE_COMMAND} -E env PKG_CONFIG_LIBDIR=${lib_dir}/pkgconfig
    PKG_CONFIG_SYSTEM_INCLUDE_PATH=/usr/include
    PKG_CONFIG_SYSTEM_LIBRARY_PATH=/usr/lib/${MULTIARCH} pkg-config)
  run(${pkg_config} --cflags --libs ${modules})
  string(STRIP "${run_output}" flags)
  expect("pkg-config --cflags --libs ${modules}" "${flags}" "^${want_flags}$")
  # The same files read inside the scratch root.
  run(${pkg_config} --modversion loginstorage)
  string(STRIP "${run_output}" pc_version)
  run(${CMAKE_COMMAND} -E env PKG_CONFIG_SYSROOT_DIR=${root}
    PKG_CONFIG_ALLOW_SYSTEM_CFLAGS=1 PKG_CONFIG_ALLOW_SYSTEM_LIBS=1
    ${pkg_config} --cflags --libs ${modules})
  separate_arguments(pc_flags UNIX_COMMAND "${run_output}")
  set(consumer ${WORK_DIR}/consumer)
  run(${CXX} ${cxx_flags} -std=c++17 "-DEXPECTED_VERSION=\"${pc_version}\"" ${defines}
    ${CONSUMER_DIR}/main.cpp -o ${consumer} ${linker_flags} ${pc_flags})
else()
  message(FATAL_ERROR "unknown MODE '${MODE}'")
endif()

run(${run_env} ${consumer})
message("${run_output}")
expect("consumer" "${run_output}" "library=${lib_dir}/libLoginStorage\\.so\\.5")
if(redis_debs)
  expect("consumer" "${run_output}" "redis store linked")
endif()
if(failures)
  message(FATAL_ERROR "${failures}")
endif()
