# The Debian packages, built by dpkg-buildpackage from packaging/debian on a
# copy of the source tree, for this build's architecture:
#   cmake --build --preset native --target debs    # amd64
#   cmake --build --preset i386 --target debs      # i386
# They land in build/<preset>/packages/.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  set(LOGINSTORAGE_DEB_ARCH_ARGS --arch i386)
endif()
add_custom_target(debs
  COMMAND ${PROJECT_SOURCE_DIR}/scripts/build-debs ${LOGINSTORAGE_DEB_ARCH_ARGS}
    ${PROJECT_BINARY_DIR}/packages
  COMMENT "Building the Debian packages into ${PROJECT_BINARY_DIR}/packages"
  VERBATIM USES_TERMINAL)
