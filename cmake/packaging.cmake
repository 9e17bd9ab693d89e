# The Debian package: the library, its headers, the CMake package, the
# pkg-config file and whatever else the install rules install (the tool).
#   cmake --build --preset native --target package   # builds, then packs
# The package lands in build/<preset>/packages/.
include(${CMAKE_CURRENT_LIST_DIR}/release-info.cmake)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME loginstorage)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "${LOGINSTORAGE_COMPANY_NAME}")
set(CPACK_PACKAGE_CONTACT "${LOGINSTORAGE_CONTACT}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION
  "LoginStorage keeps small records under string keys in process memory, as one file per key in a folder, or in an in-memory cache in front of another store. This package holds the shared library, its headers, CMake package and pkg-config file, and the loginstorage tool for storage folders.")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  # An -m32 build on an x86-64 host: the package is for i386, and the host's
  # dpkg-shlibdeps cannot tell its dependencies, so none are stated.
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE i386)
else()
  find_program(LOGINSTORAGE_DPKG_SHLIBDEPS dpkg-shlibdeps)
  if(LOGINSTORAGE_DPKG_SHLIBDEPS)
    set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  endif()
endif()

include(CPack)
