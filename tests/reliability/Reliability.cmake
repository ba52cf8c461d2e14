# Reliability tests: kills mid-write, file-system faults, heap growth (label
# "reliability"), and the demo download under valgrind's memcheck (label "valgrind").
lkdh_add_tests(reliability reliability LuaKnxDownloadHandler::LuaKnxDownloadHandler Platform::OvsLua
  lkdh_download_dump)

# Allocation faults: this one program replaces operator new, so the countdown
# source belongs to it alone. It also needs the bench's download generator
# (lkdh_test_download_generator, made in tests/CMakeLists.txt).
target_sources(reliability_allocation_failure_test PRIVATE
  ${CMAKE_CURRENT_SOURCE_DIR}/reliability/AllocationFaults.cpp)
target_link_libraries(reliability_allocation_failure_test PRIVATE
  lkdh_test_download_generator pugixml::pugixml)
target_link_libraries(reliability_two_handlers_threads_test PRIVATE lkdh_test_download_generator)
# Sanitizer and emulator builds run several times slower: they check the clean
# download after some faults only.
if(CMAKE_CROSSCOMPILING)
  target_compile_definitions(reliability_allocation_failure_test PRIVATE
    LKDH_ALLOCATION_FOLLOW_UP_EVERY=5 LKDH_ALLOCATION_SAMPLE=2000)
elseif(LKDH_SANITIZE)
  target_compile_definitions(reliability_allocation_failure_test PRIVATE
    LKDH_ALLOCATION_FOLLOW_UP_EVERY=4 LKDH_ALLOCATION_SAMPLE=2000)
endif()

# Sanitizer runtimes and valgrind do not mix, and the host's valgrind cannot run a
# cross-built program, so memcheck runs in plain native builds only.
find_program(LKDH_VALGRIND valgrind)
if(LKDH_VALGRIND AND NOT LKDH_SANITIZE AND NOT CMAKE_CROSSCOMPILING)
  set(lkdh_valgrind_output ${CMAKE_CURRENT_BINARY_DIR}/valgrind-download)
  file(MAKE_DIRECTORY ${lkdh_valgrind_output})
  # Starts from no file, so that the first call writes the document and the
  # second compares it with the saved one.
  add_test(NAME valgrind_demo_download_clean
    COMMAND ${CMAKE_COMMAND} -E rm -f ${lkdh_valgrind_output}/etsproject.xml)
  set_tests_properties(valgrind_demo_download_clean PROPERTIES
    FIXTURES_SETUP lkdh_valgrind_clean LABELS valgrind)
  add_test(NAME valgrind_demo_download
    COMMAND ${LKDH_VALGRIND} --error-exitcode=99 --leak-check=full
      --errors-for-leak-kinds=definite --child-silent-after-fork=yes
      --suppressions=${CMAKE_CURRENT_SOURCE_DIR}/reliability/valgrind.supp
      ${LKDH_TEST_PREFIX}/bin/knx-download-host --repeat 2
      --config "${lkdh_valgrind_output}/etsproject.xml;${PROJECT_SOURCE_DIR}/examples/demo/demo.lua"
      ${PROJECT_SOURCE_DIR}/examples/demo/demo-download.json)
  set_tests_properties(valgrind_demo_download PROPERTIES
    LABELS valgrind FIXTURES_REQUIRED "lkdh_installed;lkdh_valgrind_clean" TIMEOUT 600)
endif()

# The installed host with heap allocations failing, through a preloaded shim.
enable_language(C)
add_library(lkdh_fail_allocation_shim SHARED ${CMAKE_CURRENT_SOURCE_DIR}/reliability/fail_allocation_shim.c)
set_target_properties(lkdh_fail_allocation_shim PROPERTIES C_STANDARD 11 C_STANDARD_REQUIRED ON)
target_compile_options(lkdh_fail_allocation_shim PRIVATE -Wall -Wextra -Werror)
# Not instrumented: it stands in for the C library's allocator.
target_compile_options(lkdh_fail_allocation_shim PRIVATE -fno-sanitize=all)
target_link_options(lkdh_fail_allocation_shim PRIVATE -fno-sanitize=all)
add_dependencies(reliability_host_allocation_failure_test lkdh_fail_allocation_shim)
target_compile_definitions(reliability_host_allocation_failure_test PRIVATE
  LKDH_FAIL_ALLOCATION_SHIM="$<TARGET_FILE:lkdh_fail_allocation_shim>")
if(LKDH_SANITIZE)
  target_compile_definitions(reliability_host_allocation_failure_test PRIVATE LKDH_UNDER_SANITIZER)
  target_compile_definitions(reliability_address_space_limit_test PRIVATE LKDH_UNDER_SANITIZER)
endif()
if(CMAKE_CROSSCOMPILING)
  # Each run of the host under qemu takes about a tenth of a second.
  target_compile_definitions(reliability_host_allocation_failure_test PRIVATE
    LKDH_HOST_SWEEP_STRIDE=20 LKDH_HOST_SWEEP_EVERY_ONE_UP_TO=200)
endif()
