#!/usr/bin/env bash
# Builds the armhf sysroot the device's cross build compiles, links and runs
# its tests against: Debian 12's armhf packages of our dependencies, fetched
# with `apt-get download` and unpacked with `dpkg -x`. Nothing armhf is
# installed on this machine, nor even known to its apt, so a mirror with
# mismatched armhf versions can never break the host's own packages.
#
# Usage: scripts/armhf-sysroot.sh [SYSROOT]
#   SYSROOT defaults to $LKDH_ARMHF_SYSROOT, else <repo>/build-armhf-sysroot.
# Does nothing (and needs no network) when the sysroot is already complete
# and the host tools are installed.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
sysroot=${1:-${LKDH_ARMHF_SYSROOT:-$repo/build-armhf-sysroot}}
triplet=arm-linux-gnueabihf

# Target packages. The cross compiler brings libstdc++'s headers, libgcc and
# its own copy of glibc 2.36's headers and start files, which it searches
# first; the sysroot holds the same glibc release for qemu to run with and for
# package files that name it, and every library we link and run against.
arch_packages=(
  libc6 libc6-dev linux-libc-dev libcrypt1 libcrypt-dev
  libgcc-s1 libstdc++6
  libboost1.81-dev
  libboost-filesystem1.81-dev libboost-filesystem1.81.0
  libboost-atomic1.81-dev libboost-atomic1.81.0
  libboost-system1.81-dev libboost-system1.81.0
  libfmt-dev libfmt9
  liblog4cplus-dev liblog4cplus-2.0.5
  libpugixml-dev libpugixml1v5
  liblua5.4-dev liblua5.4-0
  libgtest-dev libgmock-dev
  # log4cplus's CMake package links libnsl.so by absolute path; its chain:
  libnsl-dev libnsl2 libtirpc3 libgssapi-krb5-2 libkrb5-3 libk5crypto3
  libkrb5support0 libcom-err2 libkeyutils1 libssl3
)
# Header-only libraries packaged for every architecture.
all_packages=(nlohmann-json3-dev libcli11-dev)
# Build tools, qemu-arm to run the tests, and xmllint, which the tests start
# natively to check documents against the schema.
host_tools=(g++-$triplet qemu-user-static cmake make pkg-config libxml2-utils)

if [[ $(id -u) -ne 0 ]]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive

missing=()
for p in "${host_tools[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done
if ((${#missing[@]})); then
  echo "armhf-sysroot: installing host tools ${missing[*]}"
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

stamp=$sysroot/.lkdh-sysroot
wanted="${arch_packages[*]} ${all_packages[*]}"

if [[ -f $stamp ]] && [[ $(head -n1 "$stamp") == "$wanted" ]]; then
  echo "armhf-sysroot: $sysroot is complete"
  exit 0
fi

echo "armhf-sysroot: building $sysroot"
start=$SECONDS
rm -rf "$sysroot"
mkdir -p "$sysroot"

# apt with its own lists and an empty package status, as if armhf were this
# machine's architecture: it downloads armhf packages from the system's
# sources, while the system's apt never learns of armhf (no dpkg
# --add-architecture), so an armhf index out of sync on a mirror can never make
# the host's own `apt-get update` fail.
aptdir=$sysroot/.apt
mkdir -p "$aptdir/state/lists/partial" "$aptdir/cache/archives/partial" "$aptdir/debs"
: >"$aptdir/status"
if id _apt >/dev/null 2>&1 && [[ $(id -u) -eq 0 ]]; then chown -R _apt "$aptdir"; fi
apt_armhf=(apt-get -qq
  -o APT::Architecture=armhf -o APT::Architectures::=armhf
  -o Dir::State="$aptdir/state" -o Dir::State::status="$aptdir/status"
  -o Dir::Cache="$aptdir/cache")
# A mirror in mid-sync can fail one index; what it got is enough as long as
# every package downloads, which is checked right after.
"${apt_armhf[@]}" update || echo "armhf-sysroot: apt-get update reported errors; going on with the lists it got" >&2
debs=$aptdir/debs
(cd "$debs" && "${apt_armhf[@]}" download "${arch_packages[@]}" "${all_packages[@]}")

# Every exact-version dependency inside the set must be met by the version
# downloaded, or headers and libraries from different builds would be mixed.
declare -A version
for deb in "$debs"/*.deb; do
  version[$(dpkg-deb -f "$deb" Package)]=$(dpkg-deb -f "$deb" Version)
done
mismatches=0
for deb in "$debs"/*.deb; do
  pkg=$(dpkg-deb -f "$deb" Package)
  while read -r dep ver; do
    if [[ -n ${version[$dep]:-} && ${version[$dep]} != "$ver" ]]; then
      echo "armhf-sysroot: $pkg wants $dep $ver, got ${version[$dep]}" >&2
      mismatches=1
    fi
  done < <(dpkg-deb -f "$deb" Depends | tr ',' '\n' |
           sed -n 's/^ *\([^ :]*\)\(:[a-z0-9]*\)\? *(= *\([^)]*\)).*/\1 \3/p')
done
((mismatches == 0)) || exit 1

for deb in "$debs"/*.deb; do
  dpkg -x "$deb" "$sysroot"
done
rm -rf "$aptdir"

# dpkg -x keeps absolute symlinks (/lib/<triplet>/libfoo.so.1), which would
# point into the host; make them relative so they resolve inside the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  if [[ $target == /* ]]; then
    ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$sysroot$target")" "$link"
  fi
done < <(find "$sysroot" -type l -print0)

# Some CMake package files name libraries by absolute /usr path (log4cplus
# names librt.a and libnsl.so); point those into the sysroot. Debian's own
# import prefixes are relative and need nothing.
props='(INTERFACE_LINK_LIBRARIES|INTERFACE_INCLUDE_DIRECTORIES|IMPORTED_LOCATION[A-Z_]*)'
while IFS= read -r f; do
  sed -i -E "/$props/s#([\" ;])/usr/(lib|include)/#\\1$sysroot/usr/\\2/#g" "$f"
  echo "armhf-sysroot: rerooted /usr paths in ${f#"$sysroot"/}"
done < <(grep -rlE "$props.*[\" ;]/usr/(lib|include)/" --include='*.cmake' \
           "$sysroot/usr/lib/$triplet/cmake" "$sysroot/usr/share/cmake" 2>/dev/null || true)

# Every shared library in the sysroot must find the libraries it needs there,
# or links and qemu runs fail later with far less obvious messages.
libdirs=("$sysroot/lib" "$sysroot/lib/$triplet" "$sysroot/usr/lib/$triplet")
unresolved=0
while IFS= read -r -d '' so; do
  if ! head -c4 "$so" | grep -q $'\x7fELF'; then continue; fi
  while read -r needed; do
    found=0
    for d in "${libdirs[@]}"; do
      if [[ -e $d/$needed ]]; then found=1; break; fi
    done
    if ((found == 0)); then
      echo "armhf-sysroot: ${so#"$sysroot"/} needs $needed, which the sysroot lacks" >&2
      unresolved=1
    fi
  done < <(readelf -d "$so" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
done < <(find "${libdirs[@]}" -maxdepth 1 -name '*.so*' -type f -print0)
((unresolved == 0)) || exit 1

{
  echo "$wanted"
  for p in "${!version[@]}"; do echo "$p ${version[$p]}"; done | sort
} >"$stamp"
echo "armhf-sysroot: done in $((SECONDS - start)) s, $(du -sh "$sysroot" | cut -f1)"
