# Cross build for the touch panel (32-bit ARM, hard float) with Debian's
# g++-arm-linux-gnueabihf against the sysroot scripts/armhf-sysroot.sh makes.
# Tests run under qemu-arm, which ctest and gtest_discover_tests use through
# CMAKE_CROSSCOMPILING_EMULATOR.
#
#   cmake -S . -B build-armhf --toolchain cmake/toolchains/arm-linux-gnueabihf.cmake
#         [-DLKDH_ARMHF_SYSROOT=/path]   (or the environment variable of that name)
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT LKDH_ARMHF_SYSROOT)
  if(DEFINED ENV{LKDH_ARMHF_SYSROOT} AND NOT "$ENV{LKDH_ARMHF_SYSROOT}" STREQUAL "")
    set(LKDH_ARMHF_SYSROOT "$ENV{LKDH_ARMHF_SYSROOT}")
  else()
    get_filename_component(LKDH_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build-armhf-sysroot" ABSOLUTE)
  endif()
endif()
set(LKDH_ARMHF_SYSROOT "${LKDH_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot made by scripts/armhf-sysroot.sh")
# try_compile projects read this file again without our cache; hand the path on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LKDH_ARMHF_SYSROOT)
if(NOT EXISTS "${LKDH_ARMHF_SYSROOT}/usr/include/stdio.h")
  message(FATAL_ERROR "No armhf sysroot at ${LKDH_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh first")
endif()

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# Everything here is built by this one compiler, so GCC's note that ARM
# parameter passing changed in GCC 7.1 is noise.
set(CMAKE_C_FLAGS_INIT "-Wno-psabi")
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")
set(CMAKE_SYSROOT "${LKDH_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${LKDH_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config must see the target's .pc files only, with their /usr rerooted.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${LKDH_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
  "${LKDH_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${LKDH_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Without binfmt_misc (as in containers) ARM executables only start through
# qemu-arm, which finds the target's loader and libraries under -L.
find_program(LKDH_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(LKDH_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${LKDH_QEMU_ARM};-L;${LKDH_ARMHF_SYSROOT}")
else()
  message(WARNING "No qemu-arm: the build works, its tests cannot run here")
endif()
