# The installed tree as a host's build sees it (label "install"): a separate
# CMake project finds the package, builds three small hosts and runs them.
# Native builds only: the consumer would need the cross toolchain and emulator.
if(NOT CMAKE_CROSSCOMPILING)
  set(lkdh_consumer_flags "")
  if(LKDH_SANITIZE)
    # The plug-in is built with the sanitizers; a host that loads it needs their runtime.
    set(lkdh_consumer_flags "-fsanitize=address,undefined -fno-omit-frame-pointer")
  endif()
  add_test(NAME install_package_consumer_builds_and_runs
    COMMAND ${CMAKE_COMMAND}
      -DPREFIX=${LKDH_TEST_PREFIX}
      -DSOURCE_DIR=${CMAKE_CURRENT_SOURCE_DIR}/install/consumer
      -DBINARY_DIR=${CMAKE_CURRENT_BINARY_DIR}/install-consumer
      -DCXX=${CMAKE_CXX_COMPILER}
      -DCXX_FLAGS=${lkdh_consumer_flags}
      -DVERSION=${PROJECT_VERSION}
      -DSCRIPT=${PROJECT_SOURCE_DIR}/examples/demo/demo.lua
      -P ${CMAKE_CURRENT_SOURCE_DIR}/install/run_consumer.cmake)
  set_tests_properties(install_package_consumer_builds_and_runs PROPERTIES
    LABELS install FIXTURES_REQUIRED lkdh_installed TIMEOUT 300)
endif()

# The plug-in built against "device" libraries: a whole second build of the
# plug-in, so in the plain native build only (label "device-platform").
if(NOT CMAKE_CROSSCOMPILING AND NOT LKDH_SANITIZE AND LKDH_BUILD_HOST)
  add_test(NAME install_device_platform_build
    COMMAND ${CMAKE_COMMAND}
      -DSOURCE_DIR=${PROJECT_SOURCE_DIR}
      -DBINARY_DIR=${CMAKE_CURRENT_BINARY_DIR}/device-platform
      -DCXX=${CMAKE_CXX_COMPILER}
      -DHOST=${LKDH_TEST_PREFIX}/bin/knx-download-host
      -DLIBRARIES=$<TARGET_FILE:KnxStack>|$<TARGET_FILE:ovslua>|$<TARGET_FILE:HelperFile>
      -P ${CMAKE_CURRENT_SOURCE_DIR}/install/device_platform.cmake)
  set_tests_properties(install_device_platform_build PROPERTIES
    LABELS "install;device-platform" FIXTURES_REQUIRED lkdh_installed TIMEOUT 900)
endif()
