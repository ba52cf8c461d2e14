# Debian packages with CPack (scripts/package.sh): the plug-in with its
# libraries, headers and build files; the host command with its documentation.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME luaknxdownloadhandler)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "LuaKnxDownloadHandler developers <lkdh@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION misc)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL plugin)
if(LKDH_BUILD_HOST)
  list(APPEND CPACK_COMPONENTS_ALL host)
endif()
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)

# The target's architecture, not the build machine's (dpkg's answer in a cross build).
if(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "arm-linux-gnueabihf")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
elseif(CMAKE_LIBRARY_ARCHITECTURE STREQUAL "x86_64-linux-gnu" OR CMAKE_SYSTEM_PROCESSOR STREQUAL "x86_64")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()

# Written out rather than found by dpkg-shlibdeps, which cannot look into a
# cross sysroot: Debian 12's packages of the libraries the binaries link.
set(CPACK_DEBIAN_PLUGIN_PACKAGE_NAME luaknxdownloadhandler)
set(CPACK_DEBIAN_PLUGIN_PACKAGE_DEPENDS
  "libc6, libstdc++6, libgcc-s1, libboost-filesystem1.81.0, libfmt9, liblog4cplus-2.0.5, libpugixml1v5, liblua5.4-0")
set(CPACK_COMPONENT_PLUGIN_DESCRIPTION
  "KNX download-handler plug-in with stand-in platform libraries, headers and build files")
set(CPACK_DEBIAN_HOST_PACKAGE_NAME knx-download-host)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS
  "luaknxdownloadhandler (= ${PROJECT_VERSION}), libc6, libstdc++6, libgcc-s1, libfmt9, liblog4cplus-2.0.5, libpugixml1v5, liblua5.4-0")
set(CPACK_COMPONENT_HOST_DESCRIPTION
  "Loads the KNX download-handler plug-in and feeds it a download dump; checks description scripts")

include(CPack)
