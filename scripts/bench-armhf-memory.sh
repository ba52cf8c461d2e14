#!/usr/bin/env bash
# The plug-in's heap peak on the device's word size: cross-builds the download
# driver, the heap shim and the plug-in for armhf (32-bit ARM) and runs them
# under qemu-arm, where pointers, pugixml's nodes and malloc's chunks have the
# sizes they have on the touch panel. Writes build/bench/report/heap-armhf.jsonl,
# which scripts/bench-report.sh (or bench-report.py) then puts into the report.
#
#   scripts/bench-armhf-memory.sh
#
# Needs the armhf sysroot (scripts/armhf-sysroot.sh) and qemu-arm.
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${LKDH_ARMHF_SYSROOT:-$root/build-armhf-sysroot}
build=$root/build/armhf-bench
out=$root/build/bench/report
mkdir -p "$out"
"$root/scripts/armhf-sysroot.sh" "$sysroot"

# The Google Benchmark program is not cross-built (the sysroot has no such
# library); a stand-in package lets the bench directory configure, and only the
# driver and the shim are built.
fake=$build/fake-benchmark
mkdir -p "$fake"
cat >"$fake/benchmarkConfig.cmake" <<'EOF'
if(NOT TARGET benchmark::benchmark)
  add_library(benchmark::benchmark INTERFACE IMPORTED)
endif()
EOF
cmake -S "$root" -B "$build" --toolchain "$root/cmake/toolchains/arm-linux-gnueabihf.cmake" \
  -DLKDH_ARMHF_SYSROOT="$sysroot" -DCMAKE_BUILD_TYPE=Release \
  -DLKDH_BUILD_TESTS=OFF -DLKDH_BUILD_HOST=ON -DLKDH_BUILD_BENCHMARKS=ON \
  -Dbenchmark_DIR="$fake" >/dev/null
cmake --build "$build" -j2 --target lkdh_download_once lkdh_heap_peak

qemu=$(command -v qemu-arm || command -v qemu-arm-static)
: >"$out/heap-armhf.jsonl"
for size in "10 16 8" "50 50 16" "255 255 4"; do
  # shellcheck disable=SC2086
  "$qemu" -L "$sysroot" -E "LD_PRELOAD=$build/bench/liblkdh_heap_peak.so" \
    "$build/bench/lkdh_download_once" $size --downloads 1 --floor 1 | tee -a "$out/heap-armhf.jsonl"
done
