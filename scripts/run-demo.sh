#!/usr/bin/env bash
# Installs what is missing, builds and installs the plug-in and the host
# command into ./install, and runs the demo device's download.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset release -DLKDH_BUILD_TESTS=OFF
cmake --build --preset release
cmake --install build/release --prefix install
if [[ -x install/bin/knx-download-host ]]; then
  install/bin/knx-download-host \
    --config "etsproject.xml;examples/demo/demo.lua" examples/demo/demo-download.json
  echo "wrote $(pwd)/etsproject.xml"
else
  ls -l install/lib
fi
