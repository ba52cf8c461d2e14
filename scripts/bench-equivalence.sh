#!/usr/bin/env bash
# Records, or checks against a recording, everything a download observably does
# for a few generated sizes: the document bytes, the log lines of the host
# command at TRACE, and every call into the description script (global functions
# and ShowIf functions, with their arguments, in order). Run "record" before a
# change to the plug-in or the platform libraries and "check" after it.
#
#   scripts/bench-equivalence.sh record|check REFERENCE_DIR [BUILD_DIR]
#
# BUILD_DIR (default build/bench) must hold the host command, the plug-in and
# lkdh-generate-download (cmake --preset bench && cmake --build --preset bench).
set -euo pipefail

mode=${1:?record or check}
reference=${2:?reference directory}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "${3:-$root/build/bench}" && pwd)
host=$build/host/knx-download-host
plugin=$build/LuaKnxDownloadHandler/libLuaKnxDownloadHandler.so
generate=$build/bench/lkdh-generate-download
sizes=("1 1 1" "2 3 7" "10 16 8" "7 9 25" "40 40 8")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
out=$work/out
mkdir -p "$out"

# Wraps the script's global functions and the ShowIf functions it hands out so
# that each call is written to the trace before it runs.
write_tracer() {
  cat >"$1/traced.lua" <<EOF
-- Description scripts have no io: each call goes to stdout as a marked line.
local function marked(...) print("@trace " .. (table.concat({...}):gsub("\n\$", ""))) end
local trace = { write = function(_, ...) marked(...) end, flush = function() end }
dofile("$1/device.lua")
local function show(...)
  local parts = {}
  for i = 1, select("#", ...) do parts[#parts + 1] = tostring((select(i, ...))) end
  return table.concat(parts, ",")
end
local function traced(name, f)
  return function(...) trace:write(name, "(", show(...), ")\n"); trace:flush(); return f(...) end
end
for _, name in ipairs({"GetPropertyIds", "IsThereUrnsByPropertyIndex", "GetPropertyIndexForUrns",
    "GetFunctionUrnByTypeId", "GetChannelUrnByTypeId", "GetFunctionUrnByTypeIdAndPropertyIndex",
    "GetChannelUrnByTypeIdAndPropertyIndex", "GetLuaTemplateIndexByTypeIdAndPropertyIndex",
    "GetStaticData", "HandleDcsType"}) do
  if _G[name] then _G[name] = traced(name, _G[name]) end
end
local parameters = GetParametersFromChannelTypeId
GetParametersFromChannelTypeId = function(typeId)
  trace:write("GetParametersFromChannelTypeId(", show(typeId), ")\n")
  local list = parameters(typeId)
  for _, p in pairs(list) do
    if type(p.ShowIf) == "table" and type(p.ShowIf.Function) == "function" then
      p.ShowIf.Function = traced("ShowIf:" .. tostring(p.Key), p.ShowIf.Function)
    end
  end
  return list
end
EOF
}

for size in "${sizes[@]}"; do
  name=${size// /x}
  dir=$work/$name
  mkdir -p "$dir"
  # shellcheck disable=SC2086
  "$generate" $size "$dir"
  write_tracer "$dir"
  # A new file, then the same download unchanged, then forced with app data 1.
  for run in new unchanged forced; do
    app=0
    [[ $run == forced ]] && app=1
    (cd "$dir" && "$host" --plugin "$plugin" --config "$dir/etsproject.xml;$dir/traced.lua" \
      --app-data "$app" --log-level TRACE "$dir/download.json" >"$dir/stdout.txt" 2>"$dir/stderr.txt")
    # The log is the host's own output, the trace the script's marked lines.
    cat "$dir/stderr.txt" <(grep -v '^@trace ' "$dir/stdout.txt") \
      | sed -e "s#$dir#DIR#g" -e "s#$build#BUILD#g" >"$out/$name.$run.log"
    cp "$dir/etsproject.xml" "$out/$name.$run.xml"
    sed -n 's/^@trace //p' "$dir/stdout.txt" >"$out/$name.$run.trace"
  done
done

case $mode in
  record)
    rm -rf "$reference"
    mkdir -p "$reference"
    cp "$out"/* "$reference"/
    echo "recorded $(ls "$reference" | wc -l) files in $reference"
    ;;
  check)
    if diff -r "$reference" "$out" >"$work/diff.txt"; then
      echo "identical: $(ls "$out" | wc -l) files (documents, logs, script calls)"
    else
      head -50 "$work/diff.txt"
      echo "DIFFERENT" >&2
      exit 1
    fi
    ;;
  *)
    echo "usage: $0 record|check REFERENCE_DIR [BUILD_DIR]" >&2
    exit 2
    ;;
esac
