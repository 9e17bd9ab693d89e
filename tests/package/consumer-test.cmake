# Installs the library into a fresh prefix, then builds and runs the consumer
# program against that prefix, through the CMake package (MODE find_package)
# or through pkg-config (MODE pkg-config), with the compiler and flags of the
# build under test.
#
# cmake -DMODE=... -DBUILD_DIR=... -DWORK_DIR=... -DCONSUMER_DIR=...
#       -DCXX=... -DCXX_FLAGS=... -DLINKER_FLAGS=... -DGENERATOR=...
#       -DBUILD_TYPE=... -DLIBRARY_ARCHITECTURE=... -P consumer-test.cmake
cmake_minimum_required(VERSION 3.25)

include(${CMAKE_CURRENT_LIST_DIR}/run.cmake)

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Where the install rules put the library (lib, lib64 or a multiarch dir).
file(GLOB_RECURSE installed_pc LIST_DIRECTORIES false ${prefix}/*/loginstorage.pc)
if(NOT installed_pc)
  message(FATAL_ERROR "no loginstorage.pc under ${prefix}")
endif()
get_filename_component(pc_dir ${installed_pc} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)

separate_arguments(cxx_flags UNIX_COMMAND "${CXX_FLAGS}")
separate_arguments(linker_flags UNIX_COMMAND "${LINKER_FLAGS}")
set(consumer ${WORK_DIR}/consumer)

if(MODE STREQUAL "find_package")
  run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/build -G ${GENERATOR}
    -DCMAKE_CXX_COMPILER=${CXX}
    "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    "-DCMAKE_EXE_LINKER_FLAGS=${LINKER_FLAGS}"
    -DCMAKE_BUILD_TYPE=${BUILD_TYPE}
    -DCMAKE_LIBRARY_ARCHITECTURE=${LIBRARY_ARCHITECTURE}
    -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF)
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
  set(consumer ${WORK_DIR}/build/consumer)
  # The imported target gives the program a run path to the prefix.
  set(run_env "")
elseif(MODE STREQUAL "pkg-config")
  set(pkg_config ${CMAKE_COMMAND} -E env PKG_CONFIG_PATH=${pc_dir} PKG_CONFIG_LIBDIR=${pc_dir}
    pkg-config)
  run(${pkg_config} --modversion loginstorage)
  string(STRIP "${run_output}" version)
  run(${pkg_config} --cflags loginstorage)
  separate_arguments(pc_cflags UNIX_COMMAND "${run_output}")
  run(${pkg_config} --libs loginstorage)
  separate_arguments(pc_libs UNIX_COMMAND "${run_output}")
  run(${CXX} ${cxx_flags} -std=c++17 "-DEXPECTED_VERSION=\"${version}\"" ${pc_cflags}
    ${CONSUMER_DIR}/main.cpp -o ${consumer} ${linker_flags} ${pc_libs})
  set(run_env ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${lib_dir})
else()
  message(FATAL_ERROR "MODE must be find_package or pkg-config")
endif()

run(${run_env} ${consumer})
message("${run_output}")
# It ran with the installed library, not the one in the build tree.
file(REAL_PATH ${lib_dir} real_lib_dir)
if(NOT run_output MATCHES "library=${real_lib_dir}/libLoginStorage\\.so" AND
   NOT run_output MATCHES "library=${lib_dir}/libLoginStorage\\.so")
  message(FATAL_ERROR "the consumer did not run with the library in ${lib_dir}")
endif()
