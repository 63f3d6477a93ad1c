#!/usr/bin/env bash
# Installs what is missing, builds, starts a private mosquitto on 127.0.0.1:1883
# unless a broker already answers there, and runs tokard in the foreground
# with its log on standard output (the broker logs to build/mosquitto.log).
# Extra arguments go to tokard.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh run
scripts/build.sh -DTOKARD_BUILD_TESTS=OFF

# Signal definitions from the source tree unless the caller names others.
export LAPI_RT_SIGNALS="${LAPI_RT_SIGNALS:-$PWD/packaging/rt_signals.json}"

broker_pid=""
if ! (exec 3<>/dev/tcp/127.0.0.1/1883) 2>/dev/null; then
  mosquitto -c scripts/mosquitto-local.conf -p 1883 >build/mosquitto.log 2>&1 &
  broker_pid=$!
  trap 'kill "$broker_pid" 2>/dev/null || true' EXIT
  for _ in $(seq 50); do
    (exec 3<>/dev/tcp/127.0.0.1/1883) 2>/dev/null && break
    sleep 0.1
  done
fi
build/src/main/tokard -L -l INFO "$@"
