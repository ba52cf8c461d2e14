#!/usr/bin/env bash
# Builds the libFuzzer programs with clang (ASan + UBSan) in build-fuzz and runs
# each for SECONDS on a copy of its seed corpus (fuzz/corpus/<name>), then
# writes the figures of every run to build-fuzz/fuzz-figures.json and prints them.
#
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
#   SECONDS  run time per target (default 60)
#   TARGET   download, dump, ... (default: every folder of fuzz/corpus)
# Exit status: 0 no crash found, 1 a target found one (see crash-* under
# build-fuzz/fuzz-run/<name>/artifacts), 2 build failure or bad arguments.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
seconds=${1:-60}
shift || true
if ! [[ $seconds =~ ^[0-9]+$ ]] || ((seconds == 0)); then
  echo "usage: scripts/fuzz.sh [SECONDS] [TARGET...]" >&2
  exit 2
fi
targets=("$@")
if ((${#targets[@]} == 0)); then
  for dir in fuzz/corpus/*/; do targets+=("$(basename "$dir")"); done
fi

build=$repo/build-fuzz
if ! command -v clang++ >/dev/null || ! compgen -G "/usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a" >/dev/null; then
  scripts/install-deps.sh --extra
fi
mkdir -p "$build"
CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DLKDH_BUILD_FUZZERS=ON -DLKDH_SANITIZE=ON -DLKDH_BUILD_TESTS=OFF -DLKDH_BUILD_HOST=ON \
  -DLKDH_BUILD_BENCHMARKS=OFF >"$build/configure.log" 2>&1 || {
  cat "$build/configure.log" >&2
  exit 2
}
fuzzers=()
for t in "${targets[@]}"; do fuzzers+=("${t}_fuzzer"); done
cmake --build "$build" -j2 --target "${fuzzers[@]}" || exit 2

# Leaks count as findings too; a stuck input is reported after 25 s.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
run=$build/fuzz-run
status=0
for t in "${targets[@]}"; do
  work=$run/$t
  rm -rf "$work"
  mkdir -p "$work/corpus" "$work/artifacts"
  cp -r "fuzz/corpus/$t/." "$work/corpus/"
  seeds=$(find "$work/corpus" -type f | wc -l)
  options=(-max_total_time="$seconds" -print_final_stats=1 -timeout=25 -rss_limit_mb=2048
           -artifact_prefix="$work/artifacts/")
  [[ -f fuzz/$t.dict ]] && options+=(-dict="fuzz/$t.dict")
  echo "fuzz: $t for $seconds s from $seeds seeds"
  fuzz_status=0
  "$build/fuzz/${t}_fuzzer" "${options[@]}" "$work/corpus" >"$work/log.txt" 2>&1 || fuzz_status=$?
  echo "$fuzz_status" >"$work/exit-status"
  echo "$seeds" >"$work/seeds"
  if compgen -G "$work/artifacts/*" >/dev/null; then status=1; fi
  tail -n 12 "$work/log.txt"
done

python3 - "$run" "$seconds" "$build/fuzz-figures.json" "${targets[@]}" <<'EOF'
import json, os, re, sys
run, seconds, out, targets = sys.argv[1], int(sys.argv[2]), sys.argv[3], sys.argv[4:]
figures = []
for t in targets:
    work = os.path.join(run, t)
    log = open(os.path.join(work, "log.txt"), errors="replace").read()
    stat = dict(re.findall(r"^stat::(\w+):\s+(\d+)", log, re.M))
    status_lines = re.findall(r"^#(\d+)\s+\w+\s+cov: (\d+) ft: (\d+) corp: (\d+)/(\S+)", log, re.M)
    last = status_lines[-1] if status_lines else ("0", "0", "0", "0", "0b")
    artifacts = sorted(os.listdir(os.path.join(work, "artifacts")))
    figures.append({
        "target": t,
        "seconds": seconds,
        "seeds": int(open(os.path.join(work, "seeds")).read()),
        "executions": int(stat.get("number_of_executed_units", last[0])),
        "exec_per_second": int(stat.get("average_exec_per_sec", 0)),
        "coverage": int(last[1]),
        "features": int(last[2]),
        "corpus_units": int(last[3]),
        "corpus_size": last[4],
        "corpus_files": len(os.listdir(os.path.join(work, "corpus"))),
        "new_units": int(stat.get("new_units_added", 0)),
        "peak_rss_mb": int(stat.get("peak_rss_mb", 0)),
        "crashes": len([a for a in artifacts if a.startswith("crash-")]),
        "findings": artifacts,
        "exit_status": int(open(os.path.join(work, "exit-status")).read()),
    })
json.dump(figures, open(out, "w"), indent=2)
for f in figures:
    print(f"fuzz figures: {f['target']}: {f['executions']} executions in {f['seconds']} s "
          f"({f['exec_per_second']}/s), cov {f['coverage']}, ft {f['features']}, "
          f"corpus {f['corpus_units']} units ({f['corpus_size']}), crashes {f['crashes']}"
          + (f", findings {' '.join(f['findings'])}" if f["findings"] else ""))
print(f"fuzz figures written to {out}")
EOF
exit "$status"
