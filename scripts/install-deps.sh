#!/usr/bin/env bash
# Installs exactly the Debian 12 packages this project builds and tests with
# that are not present yet; does nothing (and needs no network) when all are.
set -euo pipefail

packages=(
  cmake g++ make pkg-config
  libboost1.81-dev libboost-filesystem1.81-dev
  libfmt-dev liblog4cplus-dev libpugixml-dev
  liblua5.4-dev
  nlohmann-json3-dev libcli11-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libxml2-utils valgrind clang-format
)
if [[ "${1:-}" == "--extra" ]]; then
  # Tools for fuzzing (clang and its sanitizer runtimes); GNU time for the peak
  # memory figures of the reliability report.
  packages+=(clang libclang-rt-14-dev time)
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
if [[ $(id -u) -ne 0 ]]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
