#!/usr/bin/env bash
# Builds the armhf sysroot that the cross build compiles, links and runs
# against: Debian 12's armhf libraries and headers for everything tokard and
# its tests use, unpacked into DIR. Kept once built; built again only when the
# package list changes. No foreign dpkg architecture, no binfmt: debootstrap
# only downloads (it resolves the dependencies), dpkg-deb unpacks.
#
# Usage: scripts/cross/sysroot.sh DIR
# Exit status 0: DIR is ready; 2: the packages could not be fetched (the
# reason is on the last line of standard error); 1: anything else.
set -euo pipefail

dir=${1:?usage: sysroot.sh DIR}
suite=${TOKARD_ARMHF_SUITE:-bookworm}
# The machine's own Debian archive unless TOKARD_ARMHF_MIRROR names one.
. "$(dirname "$0")/../lib/apt-mirror.sh"
mirror=${TOKARD_ARMHF_MIRROR:-$(apt_mirror)} || exit 2
packages=libc6-dev,libstdc++-12-dev,libprotobuf-dev,libmosquitto-dev,libsystemd-dev,nlohmann-json3-dev,libgtest-dev,libgmock-dev
stamp="$suite $mirror $packages"

if [ -f "$dir/.tokard-sysroot" ] && [ "$(cat "$dir/.tokard-sysroot")" = "$stamp" ]; then
  exit 0
fi

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
mkdir -p "$(dirname "$dir")"
dir=$(cd "$(dirname "$dir")" && pwd)/$(basename "$dir")
download="$dir.download"
unpacked="$dir.new"
log="$dir.log"
rm -rf "$unpacked"
$sudo rm -rf "$download"

echo "sysroot: downloading the armhf packages of $suite (log: $log)"
if ! $sudo debootstrap --download-only --arch=armhf --variant=minbase \
     --include="$packages" "$suite" "$download" "$mirror" >"$log" 2>&1; then
  $sudo rm -rf "$download"
  reason=$(grep -E '^(E|W):' "$log" | tail -n 1)
  echo "debootstrap failed: ${reason:-see $log}" >&2
  exit 2
fi

echo "sysroot: unpacking into $dir"
mkdir -p "$unpacked"
for deb in "$download"/var/cache/apt/archives/*.deb; do
  dpkg-deb -x "$deb" "$unpacked"
done
$sudo rm -rf "$download"

# Absolute links (libz.so -> /lib/...) would point into the host: make them
# relative so that they stay inside the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$unpacked$target")" "$link"
done < <(find "$unpacked" -type l -lname '/*' -print0)

echo "$stamp" >"$unpacked/.tokard-sysroot"
rm -rf "$dir"
mv "$unpacked" "$dir"
echo "sysroot: ready ($(du -sh "$dir" | cut -f1))"
