# Builds tests/install/consumer against the package installed in PREFIX and runs
# its three hosts; each must print exactly the expected lines.
#   cmake -DPREFIX= -DSOURCE_DIR= -DBINARY_DIR= -DCXX= -DCXX_FLAGS= -DVERSION= -DSCRIPT= -P run_consumer.cmake
foreach(var IN ITEMS PREFIX SOURCE_DIR BINARY_DIR CXX VERSION SCRIPT)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "run_consumer.cmake: ${var} is not set")
  endif()
endforeach()

file(REMOVE_RECURSE ${BINARY_DIR})
# Only the package under test: no other pkg-config directories, no other prefixes.
set(ENV{PKG_CONFIG_PATH} "${PREFIX}/lib/pkgconfig")
execute_process(
  COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${BINARY_DIR}
    -DCMAKE_PREFIX_PATH=${PREFIX} -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF
    -DCMAKE_CXX_COMPILER=${CXX} "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}"
    -DLKDH_EXPECTED_VERSION=${VERSION}
  RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "configuring the consumer against ${PREFIX} failed")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${BINARY_DIR} RESULT_VARIABLE status)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "building the consumer failed")
endif()

set(expected "package ${VERSION}\nplug-in ${VERSION}\nloaded true\nresult false, resets 0\ndeleted true\n")
foreach(host IN ITEMS dlopen_host linked_host pkgconfig_host)
  execute_process(COMMAND ${BINARY_DIR}/${host} "${BINARY_DIR}/etsproject.xml;${SCRIPT}"
    RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0 OR NOT out STREQUAL expected)
    message(FATAL_ERROR "${host}: exit ${status}\nstdout:\n${out}\nexpected:\n${expected}\nstderr:\n${err}")
  endif()
  message(STATUS "${host}: ok")
endforeach()
if(EXISTS ${BINARY_DIR}/etsproject.xml)
  message(FATAL_ERROR "an empty download wrote ${BINARY_DIR}/etsproject.xml")
endif()
