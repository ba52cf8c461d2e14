# What a host's build finds after `cmake --install`: a CMake package
# (find_package(LuaKnxDownloadHandler CONFIG), targets LuaKnxDownloadHandler::*)
# and a pkg-config file. Both are relocatable: they locate the prefix from
# where they are installed.
if(LKDH_USE_DEVICE_PLATFORM)
  # The device's own platform libraries are not ours to describe to a host.
  return()
endif()

include(CMakePackageConfigHelpers)
set(LKDH_INSTALL_CMAKEDIR ${LKDH_INSTALL_LIBDIR}/cmake/LuaKnxDownloadHandler)

install(EXPORT LuaKnxDownloadHandlerTargets
  NAMESPACE LuaKnxDownloadHandler::
  DESTINATION ${LKDH_INSTALL_CMAKEDIR}
  COMPONENT plugin)
configure_package_config_file(
  ${CMAKE_CURRENT_LIST_DIR}/LuaKnxDownloadHandlerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/LuaKnxDownloadHandlerConfig.cmake
  INSTALL_DESTINATION ${LKDH_INSTALL_CMAKEDIR})
# A new major version changes the host interface; the word size must match too.
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/LuaKnxDownloadHandlerConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/LuaKnxDownloadHandlerConfig.cmake
  ${PROJECT_BINARY_DIR}/LuaKnxDownloadHandlerConfigVersion.cmake
  DESTINATION ${LKDH_INSTALL_CMAKEDIR}
  COMPONENT plugin)

configure_file(${CMAKE_CURRENT_LIST_DIR}/LuaKnxDownloadHandler.pc.in
  ${PROJECT_BINARY_DIR}/LuaKnxDownloadHandler.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/LuaKnxDownloadHandler.pc
  DESTINATION ${LKDH_INSTALL_LIBDIR}/pkgconfig
  COMPONENT plugin)

install(FILES
  ${PROJECT_SOURCE_DIR}/README.md
  ${PROJECT_SOURCE_DIR}/CHANGELOG.md
  ${PROJECT_SOURCE_DIR}/docs/integration.md
  DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/luaknxdownloadhandler COMPONENT plugin)

include(${CMAKE_CURRENT_LIST_DIR}/Packaging.cmake)
