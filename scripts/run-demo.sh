#!/usr/bin/env bash
# Installs what is missing, builds the plug-in and the host command in
# build/release, installs them into build/release/demo/install and runs the
# demo device's download into build/release/demo/etsproject.xml. Everything it
# writes stays under build/.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
# The release preset's own build tree, tests included in its configuration, so
# that scripts/test.sh afterwards goes on from here; only what is installed is built.
cmake --preset release
cmake --build --preset release --target lkdh_runtime
demo=build/release/demo
rm -rf "$demo/install"
rm -f "$demo/etsproject.xml"
cmake --install build/release --prefix "$demo/install"
"$demo/install/bin/knx-download-host" --version
"$demo/install/bin/knx-download-host" --fail-on-no-write \
  --config "$demo/etsproject.xml;examples/demo/demo.lua" examples/demo/demo-download.json
echo "wrote $(pwd)/$demo/etsproject.xml"
