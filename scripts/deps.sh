#!/usr/bin/env bash
# Installs the Debian 12 packages tokard needs, only when some are missing.
# Usage: scripts/deps.sh run|test|bench|vm
set -euo pipefail

# mosquitto-clients: the README's example session talks to tokard with
# mosquitto_sub and mosquitto_pub. libsystemd-dev: readiness and watchdog
# notification (TOKARD_SYSTEMD). python3-paho-mqtt, python3-protobuf: the
# Python client the build stages in build/python/site.
packages=(g++ make cmake pkg-config git mosquitto mosquitto-clients libmosquitto-dev protobuf-compiler
          libprotobuf-dev libsystemd-dev nlohmann-json3-dev python3-paho-mqtt python3-protobuf)
if [ "${1:-run}" = test ]; then
  packages+=(libgtest-dev libgmock-dev googletest clang-format-14 clang-14 libclang-rt-14-dev llvm-14)
  packages+=(python3-pytest)  # the Python client's tests
fi
if [ "${1:-run}" = bench ]; then
  packages+=(libbenchmark-dev valgrind gnuplot-nox)
fi
if [ "${1:-run}" = vm ]; then
  packages+=(debootstrap qemu-system-x86 e2fsprogs)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
echo "Installing: ${missing[*]}"
$sudo apt-get update
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y --no-install-recommends "${missing[@]}"
