# Every dependency is a Debian 12 package; scripts/install-deps.sh installs them.
find_package(PkgConfig REQUIRED)
find_package(Boost 1.81 REQUIRED COMPONENTS filesystem)
find_package(fmt 9 REQUIRED)
find_package(log4cplus 2.0 REQUIRED)
find_package(pugixml 1.13 REQUIRED)
find_package(Threads REQUIRED)

# Debian's C++ build of Lua: a Lua error unwinds as a C++ exception, so it can
# leave the interpreter through our panic handler without longjmp over C++ frames.
pkg_check_modules(LUA REQUIRED IMPORTED_TARGET lua5.4-c++)
if(NOT TARGET Lua::Lua)
  add_library(Lua::Lua INTERFACE IMPORTED)
  target_link_libraries(Lua::Lua INTERFACE PkgConfig::LUA)
endif()

if(LKDH_BUILD_HOST)
  find_package(CLI11 REQUIRED)
  find_package(nlohmann_json 3 REQUIRED)
endif()
if(LKDH_BUILD_TESTS)
  find_package(GTest REQUIRED)
endif()
if(LKDH_BUILD_BENCHMARKS)
  find_package(benchmark REQUIRED)
endif()
