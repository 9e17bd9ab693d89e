include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(LOGINSTORAGE_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/LoginStorage)

install(TARGETS LoginStorage
  EXPORT LoginStorageTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    COMPONENT runtime NAMELINK_COMPONENT development
  FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
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

# A pkg-config file is chosen when it is installed, once the prefix is known.
# Installed to /usr it names /usr itself, so that pkg-config recognises the
# system folders and leaves them out of the flags. Anywhere else it finds the
# prefix from its own place, so that the tree still works when moved or
# unpacked elsewhere.
file(RELATIVE_PATH LOGINSTORAGE_PC_TO_PREFIX
  "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
function(loginstorage_install_pkgconfig template component)
  get_filename_component(name ${template} NAME_WLE)
  set(pc_dir ${CMAKE_CURRENT_BINARY_DIR}/pkgconfig)
  set(LOGINSTORAGE_PC_PREFIX /usr)
  configure_file(${template} ${pc_dir}/usr/${name} @ONLY)
  set(LOGINSTORAGE_PC_PREFIX "\${pcfiledir}/${LOGINSTORAGE_PC_TO_PREFIX}")
  configure_file(${template} ${pc_dir}/relocatable/${name} @ONLY)
  install(CODE "
    set(flavour relocatable)
    if(CMAKE_INSTALL_PREFIX STREQUAL \"/usr\")
      set(flavour usr)
    endif()
    file(INSTALL \"${pc_dir}/\${flavour}/${name}\"
      DESTINATION \"\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig\")"
    COMPONENT ${component})
endfunction()
loginstorage_install_pkgconfig(cmake/loginstorage.pc.in development)

# The Redis store, when built, in components of its own (redis-runtime,
# redis-development) so that only they need hiredis: its library and header,
# a second export set that LoginStorageConfig.cmake loads when present
# (component "Redis"), and its own pkg-config file.
if(TARGET LoginStorageRedis)
  install(TARGETS LoginStorageRedis
    EXPORT LoginStorageRedisTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
      COMPONENT redis-runtime NAMELINK_COMPONENT redis-development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
      COMPONENT redis-development
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT LoginStorageRedisTargets
    NAMESPACE LoginStorage::
    DESTINATION ${LOGINSTORAGE_CMAKE_DIR}
    COMPONENT redis-development)
  loginstorage_install_pkgconfig(cmake/loginstorage-redis.pc.in redis-development)
endif()
