#!/usr/bin/env bash
# Installs what is missing, builds, starts a private mosquitto on 127.0.0.1:1883
# unless a broker already answers there, and runs tokard in the foreground
# with its log on standard output (the broker logs to build/mosquitto.log).
# Extra arguments go to tokard.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/lib/broker.sh
scripts/deps.sh run
scripts/build.sh default >/dev/null

# Signal definitions from the source tree unless the caller names others.
export LAPI_RT_SIGNALS="${LAPI_RT_SIGNALS:-$PWD/packaging/rt_signals.json}"

if ! broker_port_open 1883; then
  broker_start 1883 build/mosquitto.log
  trap broker_stop EXIT
fi
build/src/main/tokard -L -l INFO "$@"
