# The device's own platform libraries in place of the stand-ins in platform/:
# headers and shared libraries from the device's SDK or root file system. The
# targets keep the stand-ins' names (Platform::KnxStack, ...), so the plug-in
# builds unchanged; nothing of platform/ is built or installed.
#
#   -DLKDH_USE_DEVICE_PLATFORM=ON -DLKDH_DEVICE_PLATFORM_ROOT=/path/to/sdk
#
# ROOT is searched for include/ and lib/ (and usr/include, usr/lib, and the
# multiarch lib/<triplet>). Any single path can be given instead or as well:
# LKDH_DEVICE_<NAME>_INCLUDE_DIR and LKDH_DEVICE_<NAME>_LIBRARY with NAME one of
# HOSTINTERFACE (include only), KNXSTACK, OVSLUA, HELPERFILE.
set(LKDH_DEVICE_PLATFORM_ROOT "" CACHE PATH "Where the device's platform headers and libraries are")

set(lkdh_device_include_hints "")
set(lkdh_device_library_hints "")
if(LKDH_DEVICE_PLATFORM_ROOT)
  foreach(sub IN ITEMS "" usr/ usr/local/)
    list(APPEND lkdh_device_include_hints ${LKDH_DEVICE_PLATFORM_ROOT}/${sub}include)
    list(APPEND lkdh_device_library_hints ${LKDH_DEVICE_PLATFORM_ROOT}/${sub}lib)
    if(CMAKE_LIBRARY_ARCHITECTURE)
      list(APPEND lkdh_device_library_hints
        ${LKDH_DEVICE_PLATFORM_ROOT}/${sub}lib/${CMAKE_LIBRARY_ARCHITECTURE})
    endif()
  endforeach()
endif()

# Paths are taken as given, also in a cross build whose toolchain re-roots searches.
function(lkdh_find_device_header name header)
  find_path(LKDH_DEVICE_${name}_INCLUDE_DIR ${header}
    HINTS ${lkdh_device_include_hints} NO_CMAKE_FIND_ROOT_PATH)
  if(NOT LKDH_DEVICE_${name}_INCLUDE_DIR)
    message(FATAL_ERROR "LKDH_USE_DEVICE_PLATFORM: no ${header}; set LKDH_DEVICE_PLATFORM_ROOT "
      "or LKDH_DEVICE_${name}_INCLUDE_DIR")
  endif()
endfunction()

function(lkdh_device_library target name header library)
  lkdh_find_device_header(${name} ${header})
  find_library(LKDH_DEVICE_${name}_LIBRARY ${library}
    HINTS ${lkdh_device_library_hints} NO_CMAKE_FIND_ROOT_PATH)
  if(NOT LKDH_DEVICE_${name}_LIBRARY)
    message(FATAL_ERROR "LKDH_USE_DEVICE_PLATFORM: no lib${library}.so; set "
      "LKDH_DEVICE_PLATFORM_ROOT or LKDH_DEVICE_${name}_LIBRARY")
  endif()
  add_library(${target} SHARED IMPORTED GLOBAL)
  set_target_properties(${target} PROPERTIES
    IMPORTED_LOCATION ${LKDH_DEVICE_${name}_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${LKDH_DEVICE_${name}_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES "${ARGN}")
  message(STATUS "Device platform: ${target} ${LKDH_DEVICE_${name}_LIBRARY}")
endfunction()

lkdh_device_library(Platform::KnxStack KNXSTACK KnxStack/IInterfaceObject.h KnxStack)
lkdh_device_library(Platform::OvsLua OVSLUA ovslua/Lua.h ovslua Lua::Lua log4cplus::log4cplus)
lkdh_device_library(Platform::HelperFile HELPERFILE Helper/File.h HelperFile Boost::filesystem)

lkdh_find_device_header(HOSTINTERFACE Korvex/IKnxDownloadHandler.h)
add_library(Platform::HostInterface INTERFACE IMPORTED GLOBAL)
set_target_properties(Platform::HostInterface PROPERTIES
  INTERFACE_INCLUDE_DIRECTORIES ${LKDH_DEVICE_HOSTINTERFACE_INCLUDE_DIR}
  INTERFACE_LINK_LIBRARIES Platform::KnxStack)
