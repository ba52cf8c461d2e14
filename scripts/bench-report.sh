#!/usr/bin/env bash
# Measures the download path and regenerates docs/performance.md (its figures
# section) and docs/performance-scaling.png:
#   1. builds the bench preset (release);
#   2. runs the Google Benchmarks, 3 repetitions (medians are reported);
#      the report shows wall and CPU time: on a shared machine the CPU time
#      of a process varies less, the wall time includes the fsync waits;
#   3. counts instructions with callgrind: CreateFileWithKnxData writing a new
#      file and unchanged (nothing written), the floor, and the script's own
#      share (its recorded calls made again without the handler);
#   4. measures the plug-in's heap peak with the LD_PRELOAD shim;
#   5. measures knx-download-host's peak RSS (/usr/bin/time -v) and splits its
#      heap into the host's JSON parsing, the KNX data and the plug-in.
#
#   scripts/bench-report.sh [--skip-build] [--skip-benchmark] [--skip-callgrind]
#                           [--skip-memory] [--armhf]
#
# A skipped step reuses the results of the last run in build/bench/report.
# --armhf also measures the heap peak on the device's word size
# (scripts/bench-armhf-memory.sh: cross build, qemu-arm); without it the last
# armhf figures, if any, are reported again.
# Needs valgrind, gnuplot (gnuplot-nox) and GNU time (/usr/bin/time).
set -euo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)

# What the measurements need beyond the test dependencies, installed when missing.
"$root/scripts/install-deps.sh"
need=()
command -v gnuplot >/dev/null || need+=(gnuplot-nox)
[[ -x /usr/bin/time ]] || need+=(time)
if ((${#need[@]} > 0)); then
  if [[ $(id -u) -ne 0 ]]; then sudo=sudo; else sudo=; fi
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${need[@]}"
fi
build=$root/build/bench
out=$build/report
skip_build=0 skip_benchmark=0 skip_callgrind=0 skip_memory=0 armhf=0
for arg in "$@"; do
  case $arg in
    --skip-build) skip_build=1 ;;
    --skip-benchmark) skip_benchmark=1 ;;
    --skip-callgrind) skip_callgrind=1 ;;
    --skip-memory) skip_memory=1 ;;
    --armhf) armhf=1 ;;
    *) echo "usage: $0 [--skip-build] [--skip-benchmark] [--skip-callgrind] [--skip-memory]" \
         "[--armhf]" >&2
       exit 2 ;;
  esac
done

# F N P: typical, large, max, then the scaling curve at P=8.
sizes=("10 16 8" "50 50 16" "255 255 4" "2 8 8" "20 20 8" "40 40 8" "80 80 8" "160 160 8")

if [[ $skip_build == 0 ]]; then
  (cd "$root" && cmake --preset bench >/dev/null && cmake --build --preset bench)
fi
bin=$build/bench
once=$bin/lkdh_download_once
shim=$bin/liblkdh_heap_peak.so
host=$build/host/knx-download-host
plugin=$build/LuaKnxDownloadHandler/libLuaKnxDownloadHandler.so
mkdir -p "$out"

if [[ $skip_benchmark == 0 ]]; then
  echo "== benchmarks (3 repetitions, randomly interleaved)"
  # Interleaved, so that a change in the machine's load hits full and floor alike.
  "$bin/lkdh_download_benchmark" --benchmark_repetitions=3 \
    --benchmark_enable_random_interleaving=true \
    --benchmark_out="$out/benchmark.json" --benchmark_out_format=json \
    | grep -E '_median|^Run on|^Load' || true
fi

total() {  # the instruction total of a callgrind output file
  sed -n -e 's/^totals: *\([0-9]*\).*/\1/p' -e 's/^summary: *\([0-9]*\).*/\1/p' "$1" | head -1
}

if [[ $skip_callgrind == 0 ]]; then
  echo "== callgrind"
  : >"$out/callgrind.jsonl"
  for size in "${sizes[@]}"; do
    name=${size// /x}
    # shellcheck disable=SC2086
    valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$out/callgrind.full.$name" \
      "$once" $size --downloads 1 >"$out/once.$name.json" 2>/dev/null
    # shellcheck disable=SC2086
    valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$out/callgrind.floor.$name" \
      "$once" $size --downloads 0 --floor 1 >/dev/null 2>&1
    # shellcheck disable=SC2086
    valgrind --tool=callgrind --collect-atstart=no \
      --callgrind-out-file="$out/callgrind.unchanged.$name" \
      "$once" $size --downloads 1 --mode unchanged >/dev/null 2>&1
    # shellcheck disable=SC2086
    valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="$out/callgrind.script.$name" \
      "$once" $size --downloads 0 --script-only 1 >/dev/null 2>&1
    read -r f n p <<<"$size"
    echo "{\"F\": $f, \"N\": $n, \"P\": $p, \"full_instructions\": $(total "$out/callgrind.full.$name"), \"floor_instructions\": $(total "$out/callgrind.floor.$name"), \"unchanged_instructions\": $(total "$out/callgrind.unchanged.$name"), \"script_instructions\": $(total "$out/callgrind.script.$name")}" \
      | tee -a "$out/callgrind.jsonl"
  done
fi

if [[ $skip_memory == 0 ]]; then
  echo "== memory"
  : >"$out/heap.jsonl"
  : >"$out/host.jsonl"
  work=$(mktemp -d)
  trap 'rm -rf "$work"' EXIT
  # The host command's own share: a one-slot download.
  for size in "1 1 1" "${sizes[@]}"; do
    name=${size// /x}
    dir=$work/$name
    mkdir -p "$dir"
    # shellcheck disable=SC2086
    "$bin/lkdh-generate-download" $size "$dir"
    if [[ $size != "1 1 1" ]]; then
      # The plug-in's heap peak and the floor's, on the generated download.
      # shellcheck disable=SC2086
      LD_PRELOAD=$shim "$once" $size --downloads 1 --floor 1 | tee -a "$out/heap.jsonl"
    fi
    # The same download read by the host's dump parser: the parser's peak and
    # the KNX data it leaves, then the plug-in's peak.
    # shellcheck disable=SC2086
    parsed=$(LD_PRELOAD=$shim "$once" $size --downloads 1 --dump "$dir")
    /usr/bin/time -v "$host" --plugin "$plugin" --config "$dir/etsproject.xml;$dir/device.lua" \
      --log-level ERROR "$dir/download.json" >/dev/null 2>"$dir/time.txt"
    rss=$(sed -n 's/.*Maximum resident set size (kbytes): *//p' "$dir/time.txt")
    LKDH_HEAP_REPORT=1 LD_PRELOAD=$shim "$host" --plugin "$plugin" \
      --config "$dir/etsproject.xml;$dir/device.lua" --log-level ERROR "$dir/download.json" \
      >/dev/null 2>"$dir/heap.txt"
    heap=$(sed -n 's/^lkdh-heap: maximum \([0-9]*\) bytes.*/\1/p' "$dir/heap.txt")
    echo "${parsed%\}}, \"host_max_rss_kib\": $rss, \"host_heap_maximum_bytes\": $heap}" \
      | tee -a "$out/host.jsonl"
  done
fi

if [[ $armhf == 1 ]]; then
  echo "== heap peak on armhf"
  "$root/scripts/bench-armhf-memory.sh"
fi

echo "== report"
/usr/bin/python3 "$root/scripts/bench-report.py" "$out" "$root/docs/performance.md" \
  "$root/docs/performance-scaling.png"
