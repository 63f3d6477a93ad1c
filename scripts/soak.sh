#!/usr/bin/env bash
# Soak and leak check of the built tokard on a private loopback broker:
#  1. REQUESTS acquires from CLIENTS closed-loop clients over ECUS ECUs (bench/loadgen),
#     in CHUNKS steps, with signal groups on an ECU's topics between steps; tokard's
#     resident memory (VmRSS) before, after every step and at the end;
#  2. a shorter run with tokard under valgrind memcheck, the broker killed and
#     restarted halfway, tokard stopped with SIGTERM; any leak or memory error
#     fails the script.
# Every run is bounded in count and time; the whole takes about two minutes
# once built.
#
# Usage: scripts/soak.sh
# Environment: BUILD_DIR (build-faults), REQUESTS (100000), CHUNKS (10), CLIENTS (16),
#   ECUS (2000), VG_REQUESTS (5000), VG_ECUS (500), VALGRIND=0 to skip the memcheck run.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh bench
root=$(pwd)
source scripts/lib/broker.sh
source scripts/lib/session.sh

BUILD_DIR=${BUILD_DIR:-build-faults}
REQUESTS=${REQUESTS:-100000}
CHUNKS=${CHUNKS:-10}
CLIENTS=${CLIENTS:-16}
ECUS=${ECUS:-2000}
VG_REQUESTS=${VG_REQUESTS:-5000}
VG_ECUS=${VG_ECUS:-500}
VALGRIND=${VALGRIND:-1}

need=()
for tool in cmake g++ mosquitto mosquitto_pub pkg-config; do
  command -v "$tool" >/dev/null || need+=("$tool")
done
[ -e /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
[ "$VALGRIND" = 0 ] || command -v valgrind >/dev/null || need+=(valgrind)
if [ ${#need[@]} -gt 0 ]; then
  echo "soak: missing ${need[*]} (scripts/deps.sh, apt-get install -y valgrind libbenchmark-dev)" >&2
  exit 2
fi

# The load generator is bench/loadgen, built with the benchmarks.
if ! grep -qs '^TOKARD_BUILD_BENCH:BOOL=ON' "$BUILD_DIR/CMakeCache.txt"; then
  cmake --preset bench -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
fi
cmake --build "$BUILD_DIR" -j2 --target tokard tokard_loadgen >/dev/null
TOKARD=$root/$BUILD_DIR/src/main/tokard
LOADGEN=$root/$BUILD_DIR/bench/loadgen

session_start soak
hwm_kib() { awk '/^VmHWM:/ {print $2}' "/proc/$1/status"; }
now_ms() { date +%s%3N; }

# Signal groups for rt/ECU1 as the gateway frames them: EngineState with
# Speed and Torque, status 0 (valid, the ECU is busy) or 3 (not valid, its
# token is freed).
cat >"$work/rt_signals.json" <<'EOF'
{"groups": [{"topic": "rt/ECU1", "name": "EngineState", "signals": ["Speed", "Torque"]}]}
EOF
"$LOADGEN" -G 0 >"$work/valid.bin"
"$LOADGEN" -G 3 >"$work/invalid.bin"

port=$("$LOADGEN" -P)
start_broker() {
  broker_start "$port" "$work/broker.log" || exit 1
  pids+=("$broker_pid")
}
start_broker

# Waits until something answers an acquire on the broker ($1 tries, 0.2 s apart).
wait_answering() {
  local out
  for _ in $(seq "$1"); do
    out=$("$LOADGEN" -p "$port" -c 1 -e 1 -n 1 -t 3000 -T 10 -x ping 2>/dev/null | grep '^RESULT' || true)
    [ "$(field answered "$out")" = 1 ] && return 0
    sleep 0.2
  done
  echo "soak: tokard does not answer on port $port" >&2
  exit 1
}

# Stops pid $1 with SIGTERM, waits up to $2 s; its exit status in $stopped_status.
stop_pid() {
  local pid=$1 limit=$2 kept=() p
  kill -TERM "$pid"
  for _ in $(seq $((limit * 10))); do
    kill -0 "$pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -0 "$pid" 2>/dev/null && kill -KILL "$pid"
  stopped_status=0
  wait "$pid" || stopped_status=$?
  for p in "${pids[@]}"; do
    [ "$p" = "$pid" ] || kept+=("$p")
  done
  pids=("${kept[@]}")
}

failed=0
say "tokard soak, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, load:$(uptime | sed 's/.*load average://')"
say "build: $BUILD_DIR ($(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$BUILD_DIR/CMakeCache.txt")), $(mosquitto -h 2>/dev/null | sed -n '1s/.*version /mosquitto /p')"

# --- 1. soak ------------------------------------------------------------------
LAPI_RT_SIGNALS=$work/rt_signals.json "$TOKARD" -H 127.0.0.1 -p "$port" -L -l NOTICE >"$work/tokard.log" 2>&1 &
tokard_pid=$!
pids+=($tokard_pid)
wait_answering 50
rss_start=$(rss_kib "$tokard_pid")
say ""
say "== Soak: $REQUESTS acquires, $CLIENTS clients, $ECUS ECUs, $CHUNKS steps; signal groups on rt/ECU1 between steps"
printf '  %-8s %10s %9s %6s %10s %12s\n' step requests answered lost answers/s "VmRSS KiB"
printf '  %-8s %10s %9s %6s %10s %12s\n' start 0 - - - "$rss_start"
per_chunk=$((REQUESTS / CHUNKS))
served=0
lost=0
started=$(now_ms)
for step in $(seq "$CHUNKS"); do
  out=$("$LOADGEN" -p "$port" -c "$CLIENTS" -e "$ECUS" -n "$per_chunk" -t 2000 -T 120 -x soak | grep '^RESULT')
  served=$((served + $(field answered "$out")))
  lost=$((lost + $(field lost_total "$out") + $(field errors "$out")))
  mosquitto_pub -h 127.0.0.1 -p "$port" -q 1 -t rt/ECU1 -f "$work/valid.bin"
  mosquitto_pub -h 127.0.0.1 -p "$port" -q 1 -t rttx/ECU1 -f "$work/invalid.bin"
  kill -0 "$tokard_pid" 2>/dev/null || { say "  tokard died"; failed=1; break; }
  rss=$(rss_kib "$tokard_pid")
  [ "$step" = 1 ] && rss_warm=$rss
  printf '  %-8s %10s %9s %6s %10s %12s\n' "$step" "$((step * per_chunk))" "$(field answered "$out")" \
    "$(field lost_total "$out")" "$(field rate "$out")" "$rss"
done
elapsed_ms=$(($(now_ms) - started))
rss_end=$(rss_kib "$tokard_pid")
hwm=$(hwm_kib "$tokard_pid")
stop_pid "$tokard_pid" 5
problems=$(grep -cE '^(EMERG|ALERT|CRITICAL|ERROR|WARNING) ' "$work/tokard.log" || true)
say ""
say "  requests served    $served of $REQUESTS ($lost lost or failed) in $((elapsed_ms / 1000)).$(printf '%03d' $((elapsed_ms % 1000))) s"
say "  VmRSS              start $rss_start KiB, after step 1 (warm-up) $rss_warm KiB, end $rss_end KiB, peak $hwm KiB"
growth=$((rss_end - rss_warm))
verdict=flat
[ "$growth" -gt 1024 ] && verdict=GREW
say "  after warm-up      $growth KiB over $((REQUESTS - per_chunk)) requests: $verdict"
say "  tokard             exit status $stopped_status after SIGTERM; $problems WARNING-or-worse log lines"
[ "$served" = "$REQUESTS" ] && [ "$lost" = 0 ] && [ "$stopped_status" = 0 ] || failed=1
if [ "$problems" != 0 ]; then
  grep -E '^(EMERG|ALERT|CRITICAL|ERROR|WARNING) ' "$work/tokard.log" | sort | uniq -c | head -5 | sed 's/^/    /'
fi

# --- 2. valgrind memcheck ---------------------------------------------------------
if [ "$VALGRIND" != 0 ]; then
  say ""
  say "== valgrind memcheck: $VG_REQUESTS acquires, 4 clients, $VG_ECUS ECUs, the broker killed and restarted halfway, signal groups, SIGTERM"
  LAPI_RT_SIGNALS=$work/rt_signals.json valgrind --leak-check=full --show-leak-kinds=definite,indirect,possible \
    --errors-for-leak-kinds=definite,indirect,possible --error-exitcode=99 \
    --log-file="$work/valgrind.log" \
    "$TOKARD" -H 127.0.0.1 -p "$port" -L -l INFO >"$work/tokard-vg.log" 2>&1 &
  vg_pid=$!
  pids+=($vg_pid)
  started=$(now_ms)
  wait_answering 150
  out=$("$LOADGEN" -p "$port" -c 4 -e "$VG_ECUS" -n $((VG_REQUESTS / 2)) -t 10000 -T 240 -x vg | grep '^RESULT')
  vg_served=$(field answered "$out")
  vg_lost=$(field lost_total "$out")
  # The broker dies and comes back: reconnecting and subscribing again leak nothing either.
  kill -KILL "$broker_pid"
  wait "$broker_pid" 2>/dev/null || true
  start_broker
  wait_answering 150
  out=$("$LOADGEN" -p "$port" -c 4 -e "$VG_ECUS" -n $((VG_REQUESTS - VG_REQUESTS / 2)) -t 10000 -T 240 -x vg | grep '^RESULT')
  vg_served=$((vg_served + $(field answered "$out")))
  vg_lost=$((vg_lost + $(field lost_total "$out")))
  mosquitto_pub -h 127.0.0.1 -p "$port" -q 1 -t rt/ECU1 -f "$work/valid.bin"
  mosquitto_pub -h 127.0.0.1 -p "$port" -q 1 -t rttx/ECU1 -f "$work/invalid.bin"
  mosquitto_pub -h 127.0.0.1 -p "$port" -q 1 -t rt/ECU1 -m 'not a frame'
  sleep 1
  stop_pid "$vg_pid" 30
  elapsed_ms=$(($(now_ms) - started))
  say "  requests served    $vg_served of $VG_REQUESTS ($vg_lost lost) in $((elapsed_ms / 1000)) s under valgrind"
  sed -n 's/^==[0-9]*== //p' "$work/valgrind.log" |
    grep -E 'in use at exit:|definitely lost:|indirectly lost:|possibly lost:|still reachable:|All heap blocks|ERROR SUMMARY:' |
    sed 's/^/  /'
  say "  valgrind exit status $stopped_status (0 clean, 99 errors or leaks)"
  [ "$vg_served" = "$VG_REQUESTS" ] || failed=1
  if [ "$stopped_status" != 0 ]; then
    failed=1
    sed -n 's/^==[0-9]*== //p' "$work/valgrind.log" | head -60 | sed 's/^/    /'
  fi
fi

say ""
if [ "$failed" = 0 ]; then
  say "soak: passed"
else
  say "soak: FAILED"
fi
exit "$failed"
