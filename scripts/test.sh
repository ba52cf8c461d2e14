#!/usr/bin/env bash
# Installs what is missing, then builds and runs the whole test suite: the
# release build, then the debug build under ASan and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --workflow --preset release
cmake --workflow --preset debug
