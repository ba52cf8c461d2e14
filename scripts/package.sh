#!/usr/bin/env bash
# Makes the Debian packages of a built tree into BUILD_DIR/packages and lists
# their contents. When they are for this machine's architecture, checks them:
# installs both with dpkg, runs the demo download with the installed command
# (the document must be the expected one byte for byte), builds the package
# consumer against /usr, and removes both packages again.
#
# Usage: scripts/package.sh [BUILD_DIR]   (default build/release; build-armhf for armhf)
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$PWD
build=$(cd "${1:-build/release}" && pwd)
out=$build/packages

rm -rf "$out"
cpack --config "$build/CPackConfig.cmake" -B "$out" >/dev/null
rm -rf "$out/_CPack_Packages"
for deb in "$out"/*.deb; do
  echo "== $(basename "$deb")"
  dpkg-deb -f "$deb" Package Version Architecture Depends
  dpkg-deb -c "$deb"
done

arch=$(dpkg --print-architecture)
shopt -s nullglob
debs=("$out"/*_"$arch".deb)
if ((${#debs[@]} != 2)); then
  echo "package: packages for another architecture than $arch; made and listed, not installed"
  exit 0
fi
if [[ $(id -u) -ne 0 ]]; then SUDO=sudo; else SUDO=; fi
for name in luaknxdownloadhandler knx-download-host; do
  if dpkg-query -W -f='${Status}' "$name" 2>/dev/null | grep -q "install ok installed"; then
    echo "package: $name is installed already; not checking over it" >&2
    exit 1
  fi
done

tmp=$(mktemp -d)
cleanup() {
  $SUDO dpkg -r knx-download-host luaknxdownloadhandler >/dev/null || true
  rm -rf "$tmp"
}
trap cleanup EXIT
$SUDO dpkg -i "${debs[@]}" >/dev/null

demo=/usr/share/doc/knx-download-host/examples/demo
/usr/bin/knx-download-host --version
/usr/bin/knx-download-host --fail-on-no-write \
  --config "$tmp/etsproject.xml;$demo/demo.lua" "$demo/demo-download.json"
cmp "$tmp/etsproject.xml" "$demo/expected-etsproject.xml"
echo "package: the installed command wrote the demo's expected document"

cmake -DPREFIX=/usr -DSOURCE_DIR="$repo/tests/install/consumer" -DBINARY_DIR="$tmp/consumer" \
  -DCXX="$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")" \
  -DVERSION="$(dpkg-deb -f "${debs[0]}" Version)" -DSCRIPT="$demo/demo.lua" \
  -P "$repo/tests/install/run_consumer.cmake" >/dev/null
echo "package: a host built against the installed package runs"
