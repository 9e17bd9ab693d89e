include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(LOGINSTORAGE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/LoginStorage)

install(TARGETS LoginStorage
  EXPORT LoginStorageTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/LoginStorage
    COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT LoginStorageTargets
  NAMESPACE LoginStorage::
  DESTINATION ${LOGINSTORAGE_CMAKE_DIR}
  COMPONENT development)

configure_package_config_file(cmake/LoginStorageConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/LoginStorageConfig.cmake
  INSTALL_DESTINATION ${LOGINSTORAGE_CMAKE_DIR})
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/LoginStorageConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/LoginStorageConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/LoginStorageConfigVersion.cmake
  DESTINATION ${LOGINSTORAGE_CMAKE_DIR}
  COMPONENT development)

# The pkg-config file finds the prefix from its own place, so that
# `cmake --install --prefix P` yields a working file for any P.
file(RELATIVE_PATH LOGINSTORAGE_PC_TO_PREFIX
  "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/loginstorage.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/loginstorage.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/loginstorage.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT development)

# The Redis store, when built: its library and header, a second export set
# that LoginStorageConfig.cmake loads when present (component "Redis"), and
# its own pkg-config file.
if(TARGET LoginStorageRedis)
  install(TARGETS LoginStorageRedis
    EXPORT LoginStorageRedisTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT runtime NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/LoginStorage
      COMPONENT development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT LoginStorageRedisTargets
    NAMESPACE LoginStorage::
    DESTINATION ${LOGINSTORAGE_CMAKE_DIR}
    COMPONENT development)
  configure_file(cmake/loginstorage-redis.pc.in
    ${CMAKE_CURRENT_BINARY_DIR}/loginstorage-redis.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/loginstorage-redis.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
    COMPONENT development)
endif()
