#!/usr/bin/env bash
# Fails when a tracked C or C++ file is not as clang-format would write it.
set -euo pipefail
cd "$(dirname "$0")/.."
git ls-files -z '*.cpp' '*.h' '*.c' | xargs -0 clang-format --dry-run -Werror
