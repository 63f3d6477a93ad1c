#!/usr/bin/env bash
# The controller's build, in one command: the ARMv7 hard-float (armhf)
# program and tests, cross-compiled against a Debian 12 armhf sysroot; every
# test run under qemu-arm (the integration tests against mosquitto on
# loopback, with the armhf tokard under emulation); the idle memory of the
# armhf tokard; and the Debian packages for armhf and amd64.
#
# Everything goes into build-armhf/. The sysroot is made once and kept in
# build-armhf/sysroot (TOKARD_ARMHF_SYSROOT names another place), so a second
# run only builds what changed and runs the tests again.
#
# When the host tools or the armhf packages cannot be fetched it prints
# "SKIPPED: <reason>" and exits with status 0; a failing build or test fails it.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=$root/build-armhf
host_build=$build/amd64
packages=$build/packages
sysroot=${TOKARD_ARMHF_SYSROOT:-$build/sysroot}
started=$(date +%s)

skip() {
  echo "SKIPPED: $*"
  exit 0
}
step() { echo "== $* ($(($(date +%s) - started)) s)"; }

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
mkdir -p "$build"

step "host packages"
scripts/deps.sh test || skip "the host's build packages could not be installed"
tools=(debootstrap g++-arm-linux-gnueabihf binutils-arm-linux-gnueabihf qemu-user file dpkg-dev lintian)
missing=()
for p in "${tools[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  apt_log=$build/apt.log
  if ! { $sudo apt-get update && DEBIAN_FRONTEND=noninteractive \
         $sudo apt-get install -y --no-install-recommends "${missing[@]}"; } >"$apt_log" 2>&1; then
    skip "cannot install ${missing[*]}: $(grep -E '^(E|Err):' "$apt_log" | tail -n 1)"
  fi
fi

step "armhf sysroot: $sysroot"
rc=0
scripts/cross/sysroot.sh "$sysroot" 2>"$build/sysroot.err" || rc=$?
if [ "$rc" -eq 2 ]; then
  skip "the armhf packages cannot be fetched: $(tail -n 1 "$build/sysroot.err")"
elif [ "$rc" -ne 0 ]; then
  cat "$build/sysroot.err" >&2
  exit "$rc"
fi

# Configured again only when these settings change (a new configure stamps a
# new build date into the program and rebuilds it), and then afresh: results
# found in an old sysroot must not stay in the cache.
config=(--preset armhf -DTOKARD_ARMHF_SYSROOT="$sysroot"
        -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc
        -DCMAKE_INSTALL_LIBDIR=lib/arm-linux-gnueabihf)
configure() {
  local dir=$1
  shift
  if [ ! -f "$dir/CMakeCache.txt" ] || [ "$(cat "$dir/.tokard-config" 2>/dev/null)" != "$*" ]; then
    cmake --fresh -S "$root" -B "$dir" "$@"
    echo "$*" >"$dir/.tokard-config"
  fi
}

step "armhf build"
configure "$build" "${config[@]}"
cmake --build "$build" -j2

program=$build/src/main/tokard
description=$(file -b "$program")
echo "file: $description"
case "$description" in
  *"ARM, EABI5"*) ;;
  *) echo "tokard is not an ARM EABI5 program" >&2; exit 1 ;;
esac
readelf -h "$program" | grep -q "hard-float ABI" || { echo "tokard is not hard-float" >&2; exit 1; }

step "unit tests under qemu-arm"
ctest --test-dir "$build" -L unit --no-tests=error --output-on-failure --timeout 300 -j2
step "integration tests under qemu-arm, on mosquitto on loopback"
# The tests start tokard and tokctl through their host launchers.
ctest --test-dir "$build" -L integration --no-tests=error --output-on-failure --timeout 300

step "amd64 build"
configure "$host_build" --preset default -DTOKARD_WERROR=ON -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc
cmake --build "$host_build" -j2

step "idle memory"
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  pids=()
}
trap cleanup EXIT
source scripts/lib/broker.sh
port=$(broker_free_port)
broker_start "$port" "$build/mosquitto.log"
pids+=("$broker_pid")
# VmRSS of a tokard that has connected and then idled for two seconds, into
# $rss (and the emulated program's own share into $guest_rss).
idle_rss() {
  local name=$1
  shift
  local before
  before=$(grep -c "connected from .* as tokard " "$build/mosquitto.log" || true)
  "$@" -H 127.0.0.1 -p "$port" -L -l INFO >"$build/idle-$name.log" 2>&1 &
  local pid=$!
  pids+=("$pid")
  for _ in $(seq 100); do
    [ "$(grep -c "connected from .* as tokard " "$build/mosquitto.log" || true)" -gt "$before" ] && break
    sleep 0.1
  done
  if [ "$(grep -c "connected from .* as tokard " "$build/mosquitto.log" || true)" -le "$before" ]; then
    echo "the $name tokard did not connect to the broker within 10 s" >&2
    cat "$build/idle-$name.log" >&2
    exit 1
  fi
  sleep 2
  kill -0 "$pid" 2>/dev/null || { cat "$build/idle-$name.log" >&2; exit 1; }
  rss=$(awk '/^VmRSS/ {print $2, $3}' "/proc/$pid/status")
  # qemu-arm keeps the 32-bit guest's memory in the lowest 4 GiB of its own.
  guest_rss=$(awk '/^[0-9a-f]+-/ {split($1, range, "-"); guest = length(range[1]) <= 8}
                   /^Rss:/ && guest {sum += $2} END {print sum + 0, "kB"}' "/proc/$pid/smaps")
  kill "$pid"
  wait "$pid" || true
}
idle_rss armhf qemu-arm -L "$sysroot" "$program"
echo "armhf tokard idle under qemu-arm: VmRSS $rss, of which the ARM program's own pages" \
  "(program, libraries, heap, stacks) $guest_rss; the rest is qemu"
idle_rss amd64 "$host_build/src/main/tokard"
echo "amd64 tokard idle, for comparison: VmRSS $rss"
cleanup

step "Debian packages"
rm -rf "$packages"
mkdir -p "$packages"
(cd "$build" && cpack -G DEB -B "$packages" >/dev/null)
(cd "$host_build" && cpack -G DEB -B "$packages" >/dev/null)
rm -rf "$packages/_CPack_Packages"

# Every library that a program in the armhf package needs comes from a
# package that it declares.
deb=$(ls "$packages"/tokard_*_armhf.deb)
depends=$(dpkg-deb -f "$deb" Depends)
contents=$build/deb-contents
rm -rf "$contents"
dpkg-deb -x "$deb" "$contents"
needed=$(find "$contents" -type f -exec sh -c 'file -b "$1" | grep -q "^ELF"' _ {} \; \
           -exec readelf -d {} \; | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | sort -u)
rm -rf "$contents"
for library in $needed; do
  case "$library" in
    libc.so.6|ld-linux-armhf.so.3|libm.so.6) package=libc6 ;;
    libgcc_s.so.1) package=libgcc-s1 ;;
    libstdc++.so.6) package=libstdc++6 ;;
    libmosquitto.so.1) package=libmosquitto1 ;;
    libprotobuf.so.32) package=libprotobuf32 ;;
    libsystemd.so.0) package=libsystemd0 ;;
    *) echo "$library: no package declared for it (TOKARD_DEB_DEPENDS in cmake/Packaging.cmake)" >&2
       exit 1 ;;
  esac
  case ", $depends," in
    *", $package "*|*", $package,"*) ;;
    *) echo "$(basename "$deb") does not depend on $package, which provides $library" >&2; exit 1 ;;
  esac
done

# Debian's own checks: no error and no warning; informational tags are
# listed, each justified in packaging/deb/lintian-overrides when overridden.
step "lintian"
lintian --fail-on error,warning --tag-display-limit 0 "$packages"/*.deb

step "summary"
stripped=$build/tokard.stripped
arm-linux-gnueabihf-strip -o "$stripped" "$program"
size=$(stat -c %s "$stripped")
# What the controller's flash has room for.
limit=1048576
echo "armhf tokard: $size bytes stripped (limit $limit); needs $(readelf -d "$program" |
  sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | paste -sd ' ')"
if [ "$size" -gt "$limit" ]; then
  echo "the stripped armhf tokard is larger than $limit bytes" >&2
  exit 1
fi
for deb in "$packages"/*.deb; do
  echo "$(basename "$deb"): $(stat -c %s "$deb") bytes; Depends: $(dpkg-deb -f "$deb" Depends)"
done
echo "done in $(($(date +%s) - started)) s"
