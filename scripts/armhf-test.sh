#!/usr/bin/env bash
# Cross-builds everything for the touch panel (32-bit ARM, armhf) and runs the
# whole test suite under qemu-arm: the device's own word size, char
# signedness and alignment rules, which the amd64 build cannot show.
#
# Usage: scripts/armhf-test.sh [extra ctest arguments]
#   LKDH_ARMHF_SYSROOT  sysroot (default <repo>/build-armhf-sysroot)
#   LKDH_ARMHF_BUILD    build tree (default <repo>/build-armhf)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
export LKDH_ARMHF_SYSROOT=${LKDH_ARMHF_SYSROOT:-$repo/build-armhf-sysroot}
build=${LKDH_ARMHF_BUILD:-$repo/build-armhf}

start=$SECONDS
scripts/armhf-sysroot.sh "$LKDH_ARMHF_SYSROOT"
sysroot_s=$((SECONDS - start))

start=$SECONDS
cmake -S . -B "$build" \
  --toolchain "$repo/cmake/toolchains/arm-linux-gnueabihf.cmake" \
  -DLKDH_ARMHF_SYSROOT="$LKDH_ARMHF_SYSROOT" \
  -DCMAKE_BUILD_TYPE=Release \
  -DLKDH_BUILD_TESTS=ON -DLKDH_BUILD_HOST=ON -DLKDH_BUILD_BENCHMARKS=OFF -DLKDH_SANITIZE=OFF
cmake --build "$build" -j2
build_s=$((SECONDS - start))

# ctest runs every test program under qemu-arm (the toolchain file's
# CMAKE_CROSSCOMPILING_EMULATOR); tests that start knx-download-host themselves
# get the same emulator command in LKDH_TEST_EMULATOR from tests/CMakeLists.txt.
start=$SECONDS
status=0
ctest --test-dir "$build" -j2 --output-on-failure --timeout 600 "$@" || status=$?
test_s=$((SECONDS - start))

echo "armhf-test: sysroot ${sysroot_s} s, build ${build_s} s, tests under qemu ${test_s} s"
exit "$status"
