# Builds the plug-in with LKDH_USE_DEVICE_PLATFORM against a device root that
# holds the platform libraries as the device's SDK would (here: the stand-ins'
# headers and libraries, copied), checks that nothing of platform/ is installed
# and that the installed host runs the demo download with that plug-in.
#   cmake -DSOURCE_DIR= -DBINARY_DIR= -DCXX= -DHOST= -DLIBRARIES="a.so|b.so" -P device_platform.cmake
foreach(var IN ITEMS SOURCE_DIR BINARY_DIR CXX HOST LIBRARIES)
  if(NOT DEFINED ${var})
    message(FATAL_ERROR "device_platform.cmake: ${var} is not set")
  endif()
endforeach()

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "failed (${status}): ${ARGN}\n${out}\n${err}")
  endif()
  set(out "${out}" PARENT_SCOPE)
  set(err "${err}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${BINARY_DIR})
set(root ${BINARY_DIR}/device-root)
foreach(part IN ITEMS knxstack hostinterface ovslua helper)
  file(COPY ${SOURCE_DIR}/platform/${part}/include/ DESTINATION ${root}/include)
endforeach()
string(REPLACE "|" ";" libraries "${LIBRARIES}")
file(COPY ${libraries} DESTINATION ${root}/lib)

# No optimisation: the point is where the libraries come from, and it builds fastest.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${BINARY_DIR}/build
  -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=
  -DLKDH_USE_DEVICE_PLATFORM=ON -DLKDH_BUILD_TESTS=OFF -DLKDH_BUILD_HOST=OFF
  -DLKDH_DEVICE_PLATFORM_ROOT=${root})
foreach(library IN ITEMS KnxStack ovslua HelperFile)
  if(NOT out MATCHES "Device platform: Platform::[A-Za-z]+ ${root}/lib/lib${library}.so")
    message(FATAL_ERROR "the device's lib${library}.so was not used:\n${out}")
  endif()
endforeach()
run(${CMAKE_COMMAND} --build ${BINARY_DIR}/build -j2)
run(${CMAKE_COMMAND} --install ${BINARY_DIR}/build --prefix ${BINARY_DIR}/install)

file(GLOB_RECURSE installed RELATIVE ${BINARY_DIR}/install ${BINARY_DIR}/install/*)
list(SORT installed)
set(expected include/LuaKnxDownloadHandler/Version.h lib/libLuaKnxDownloadHandler.so
  lib/libLuaKnxDownloadHandlerCapture.so)
if(NOT installed STREQUAL expected)
  message(FATAL_ERROR "installed: ${installed}\nexpected: ${expected}")
endif()

# The device's loader finds the platform libraries in its own directories.
set(ENV{LD_LIBRARY_PATH} ${root}/lib)
# Called directly: the configuration's ";" would split in a function's arguments.
execute_process(COMMAND ${HOST} --plugin ${BINARY_DIR}/install/lib/libLuaKnxDownloadHandler.so
    --fail-on-no-write --config "${BINARY_DIR}/etsproject.xml;${SOURCE_DIR}/examples/demo/demo.lua"
    ${SOURCE_DIR}/examples/demo/demo-download.json
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "the demo download with the device-platform plug-in failed (${status}):\n${out}\n${err}")
endif()
file(READ ${BINARY_DIR}/etsproject.xml written)
file(READ ${SOURCE_DIR}/examples/demo/expected-etsproject.xml wanted)
if(NOT written STREQUAL wanted)
  message(FATAL_ERROR "the device-platform plug-in wrote a different demo document")
endif()

# The capture plug-in of that build, in front of it, keeps the download.
set(ENV{LKDH_CAPTURE_DIR} ${BINARY_DIR}/captures)
execute_process(COMMAND ${HOST} --plugin ${BINARY_DIR}/install/lib/libLuaKnxDownloadHandlerCapture.so
    --fail-on-no-write --config "${BINARY_DIR}/captured.xml;${SOURCE_DIR}/examples/demo/demo.lua"
    ${SOURCE_DIR}/examples/demo/demo-download.json
  RESULT_VARIABLE status OUTPUT_VARIABLE out ERROR_VARIABLE err)
if(NOT status EQUAL 0 OR NOT EXISTS ${BINARY_DIR}/captures/download-00000001.json)
  message(FATAL_ERROR "the device-platform capture plug-in failed (${status}):\n${out}\n${err}")
endif()
file(READ ${BINARY_DIR}/captured.xml written)
if(NOT written STREQUAL wanted)
  message(FATAL_ERROR "through the capture plug-in the demo document differs")
endif()
message(STATUS "device platform build: ok")
