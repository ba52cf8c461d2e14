# Reliability tests: kills mid-write, file-system faults, heap growth (label
# "reliability"), and the demo download under valgrind's memcheck (label "valgrind").
lkdh_add_tests(reliability reliability LuaKnxDownloadHandler::LuaKnxDownloadHandler Platform::OvsLua
  lkdh_download_dump)

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
