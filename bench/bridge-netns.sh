#!/usr/bin/env bash
# The bridged round trip at one client, over a real link: two network
# namespaces joined by a veth pair stand for the two controllers.
#
#   controller 1 (namespace A)                 controller 2 (namespace B)
#   tokard <-> mosquitto A  10.213.7.1 <-veth-> 10.213.7.2  mosquitto B <-> loadgen
#
# mosquitto B carries the bridge section of the shipped
# packaging/mosquitto/controller-bridge.conf (address set to A, login left
# out). For each setting below, both brokers and tokard are started afresh
# (no connection or token left from the setting before), the bridge is
# awaited, and loadgen makes a bounded count of acquires, one client, one
# request at a time, through B; p50/p99 are printed. The same count made
# directly on A is the reference.
#
#   stock        set_tcp_nodelay false on both brokers, no route change
#   quickack     ... plus a route with "quickack 1" on each side to the other
#   nodelay      set_tcp_nodelay true on both brokers (the shipped configuration)
#   both         set_tcp_nodelay true and quickack on both sides
#   nodelay-qaA  set_tcp_nodelay true, quickack on controller 1's route only
#   nodelay-qaB  set_tcp_nodelay true, quickack on controller 2's route only
#   both-late    as both, the routes changed only once the bridge is up
# and, at 16 clients, nodelay and both.
#
# Needs root (ip netns, veth). Nothing outside the two namespaces changes;
# they, their processes and the scratch folder go on exit.
#
# Usage: bench/bridge-netns.sh
# Environment: BUILD_DIR (build-bench), REQUESTS (measured acquires per
#   setting, 300), WARMUP_MS (300).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
source scripts/lib/broker.sh
source scripts/lib/session.sh

BUILD_DIR=${BUILD_DIR:-build-bench}
REQUESTS=${REQUESTS:-300}
WARMUP_MS=${WARMUP_MS:-300}
BRIDGE_CONF=packaging/mosquitto/controller-bridge.conf
PORT=1883 # each namespace has its own ports
ADDR_A=10.213.7.1
ADDR_B=10.213.7.2

[ "$(id -u)" = 0 ] || { echo "needs root (network namespaces)" >&2; exit 1; }
for tool in ip mosquitto; do
  command -v "$tool" >/dev/null || { echo "missing: $tool" >&2; exit 1; }
done
if [ ! -x "$BUILD_DIR/src/main/tokard" ] || [ ! -x "$BUILD_DIR/bench/loadgen" ]; then
  grep -qs '^TOKARD_BUILD_BENCH:BOOL=ON' "$BUILD_DIR/CMakeCache.txt" ||
    cmake --preset bench -B "$BUILD_DIR" >/dev/null
  cmake --build "$BUILD_DIR" -j2 --target tokard tokard_loadgen >/dev/null
fi
case $BUILD_DIR in /*) ;; *) BUILD_DIR=$root/$BUILD_DIR ;; esac
TOKARD=$BUILD_DIR/src/main/tokard
LOADGEN=$BUILD_DIR/bench/loadgen

ns_a=tokard-bridge-a-$$
ns_b=tokard-bridge-b-$$
session_start bridge-netns
teardown() {
  session_end
  ip netns del "$ns_a" 2>/dev/null || true
  ip netns del "$ns_b" 2>/dev/null || true
}
trap teardown EXIT

ip netns add "$ns_a"
ip netns add "$ns_b"
ip -n "$ns_a" link add veth0 type veth peer name veth0 netns "$ns_b"
ip -n "$ns_a" addr add "$ADDR_A/24" dev veth0
ip -n "$ns_b" addr add "$ADDR_B/24" dev veth0
for ns in "$ns_a" "$ns_b"; do
  ip -n "$ns" link set lo up
  ip -n "$ns" link set veth0 up
done

# quickack NS PEER 0|1: a host route to the other side with quickack, as the
# recipe has it, or none (the connected route of the link then applies).
quickack() {
  ip -n "$1" route del "$2/32" 2>/dev/null || true
  [ "$3" = 0 ] || ip -n "$1" route add "$2/32" dev veth0 quickack 1
}

# broker NS NAME NODELAY [LINE...]: mosquitto in NS on port $PORT of every
# address of NS; pid in $broker_pid.
broker() {
  local ns=$1 name=$2 nodelay=$3 line
  shift 3
  {
    echo "listener $PORT"
    echo "allow_anonymous true"
    echo "set_tcp_nodelay $nodelay"
    echo "persistence false"
    echo "log_dest stderr"
    echo "log_type error"
    echo "log_type warning"
    for line in "$@"; do echo "$line"; done
  } >"$work/$name.conf"
  ip netns exec "$ns" mosquitto -c "$work/$name.conf" >>"$work/$name.log" 2>&1 &
  broker_pid=$!
  pids+=("$broker_pid")
}

# load NS C N PREFIX: loadgen's RESULT line, C clients, N acquires in all.
load() {
  ip netns exec "$1" "$LOADGEN" -p "$PORT" -c "$2" -e 100 -n "$3" -w "$WARMUP_MS" -t 2000 -T 120 \
    -x "$4" 2>>"$work/loadgen.log" | grep '^RESULT' || true
}

# answering NS: waits (at most 100 tries) until an acquire made in NS is answered.
answering() {
  local out
  for _ in $(seq 100); do
    out=$(ip netns exec "$1" "$LOADGEN" -p "$PORT" -c 1 -e 1 -n 1 -t 1000 -T 5 -x ping \
      2>/dev/null | grep '^RESULT' || true)
    [ "$(field answered "$out")" = 1 ] && return 0
    sleep 0.1
  done
  echo "nothing answers in $1 (logs in $work)" >&2
  exit 1
}

# stop_all: ends the brokers and tokard of one setting.
stop_all() {
  local pid
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  for pid in "${pids[@]}"; do
    wait "$pid" 2>/dev/null || true
  done
  pids=()
}

mapfile -t bridge_lines < <(broker_bridge_lines "$BRIDGE_CONF" "$ADDR_A:$PORT")
printf 'token_status = on\n' >"$work/tokard.conf"

row() { printf '  %-12s %3s %-8s %-10s %-10s %-8s %10s %10s %10s %10s %5s\n' "$@"; }

# setting NAME C NODELAY QUICKACK_A QUICKACK_B WHERE: one measurement. WHERE:
# direct (the load on A), bridged (on B), late (on B, with the routes changed
# only once the bridge is up).
setting() {
  local name=$1 c=$2 nodelay=$3 qa_a=$4 qa_b=$5 where=$6 n=$REQUESTS ns=$ns_b out
  [ "$where" = late ] || {
    quickack "$ns_a" "$ADDR_B" "$qa_a"
    quickack "$ns_b" "$ADDR_A" "$qa_b"
  }
  broker "$ns_a" "a-$name-$c" "$nodelay"
  TOKARD_CONFIG=$work/tokard.conf ip netns exec "$ns_a" "$TOKARD" -H 127.0.0.1 -p "$PORT" -L \
    -l NOTICE >>"$work/tokard-$name-$c.log" 2>&1 &
  pids+=($!)
  broker "$ns_b" "b-$name-$c" "$nodelay" "${bridge_lines[@]}"
  answering "$ns_a"
  answering "$ns_b" # the bridge carries both ways
  [ "$where" != late ] || {
    quickack "$ns_a" "$ADDR_B" "$qa_a"
    quickack "$ns_b" "$ADDR_A" "$qa_b"
  }
  [ "$where" != direct ] || ns=$ns_a
  [ "$c" = 1 ] || n=$((REQUESTS * 10))
  out=$(load "$ns" "$c" "$n" "x$name$c")
  [ -n "$out" ] || { echo "loadgen gave no result:" >&2; tail -5 "$work/loadgen.log" >&2; }
  row "$name" "$c" "$nodelay" "$qa_a" "$qa_b" "$where" "$(field p50_us "$out")" \
    "$(field p99_us "$out")" "$(field max_us "$out")" "$(field rate "$out")" "$(field lost_total "$out")"
  stop_all
}

say "bridged round trip over veth, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, load:$(uptime | sed 's/.*load average://')"
say "mosquitto $(mosquitto -h 2>/dev/null | sed -n '1s/.*version //p'), kernel $(uname -r), $REQUESTS acquires per setting at C = 1 ($((REQUESTS * 10)) at C = 16) after ${WARMUP_MS} ms warm-up"
say ""
row setting C nodelay quickackA quickackB load "p50 (us)" "p99 (us)" "max (us)" answers/s lost
setting direct 1 true 0 0 direct
setting stock 1 false 0 0 bridged
setting quickack 1 false 1 1 bridged
setting nodelay 1 true 0 0 bridged
setting both 1 true 1 1 bridged
setting nodelay-qaA 1 true 1 0 bridged
setting nodelay-qaB 1 true 0 1 bridged
setting both-late 1 true 1 1 late
setting nodelay 16 true 0 0 bridged
setting both 16 true 1 1 bridged
say ""
say "  load at the end:$(uptime | sed 's/.*load average://')"
