# Debian ships GoogleTest prebuilt for the native architecture only; an -m32
# build compiles it from the source package under /usr/src/googletest.
if(LOGINSTORAGE_GTEST_FROM_SOURCE)
  set(LOGINSTORAGE_GTEST_SOURCE_DIR "/usr/src/googletest" CACHE PATH
    "GoogleTest source tree to build when LOGINSTORAGE_GTEST_FROM_SOURCE is ON")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(${LOGINSTORAGE_GTEST_SOURCE_DIR}
    ${CMAKE_BINARY_DIR}/_deps/googletest EXCLUDE_FROM_ALL SYSTEM)
else()
  find_package(GTest CONFIG REQUIRED)
endif()
include(GoogleTest)
