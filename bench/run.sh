#!/usr/bin/env bash
# tokard beside a zero-logic responder, on private loopback brokers:
#  1. round trip and answers/s, alternating responder and tokard runs
#     (A B A B ...) at 1, 4 and 16 concurrent clients; medians and ratios;
#  2. resident memory idle and after 10,000 distinct ECUs have been named;
#  3. mix mode (acquire, answer, release, next acquire): tokard with
#     token_status on beside tokard with token_status off, alternating, at 1
#     and 16 clients;
#  4. bridged round trip: the load on a second broker bridged to tokard's
#     with the shipped bridge section, beside the load on tokard's own
#     broker, alternating, at 1 and 16 clients;
#  5. user-space instructions per acquire (callgrind, long run minus short
#     run, so start-up cancels);
#  6. a plot of the round-trip distribution (docs/roundtrip.png);
#  7. the micro-benchmarks;
#  8. the line of waiting clients (bench/handover, on part 1's tokard):
#     hand-over time, renewals beside 64 waiters, a waiter's requests in 30 s.
# Every run is bounded in count or time; the whole takes about 5 minutes
# after the build on two cores (parts 3 and 4 about 1.5 of them).
#
# Usage: bench/run.sh
# Environment: BUILD_DIR (build-bench), PAIRS (5), DURATION (seconds per run, 3),
#   SIDE_PAIRS (pairs of runs of parts 3 and 4, 3), PLOT (docs/roundtrip.png),
#   MIX=0, BRIDGE=0, CALLGRIND=0, MICRO=0 and HANDOVER=0 to skip those parts.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
source scripts/lib/broker.sh
source scripts/lib/session.sh
scripts/deps.sh bench

BUILD_DIR=${BUILD_DIR:-build-bench}
PAIRS=${PAIRS:-5}
DURATION=${DURATION:-3}
WARMUP_MS=300
LAT_ECUS=100
CLIENT_COUNTS=(1 4 16)
NAMED_ECUS=10000
CG_CLIENTS=1  # one at a time: the loop passes per request do not depend on the load
CG_ECUS=16
CG_SHORT=${CG_SHORT:-1000}
CG_LONG=${CG_LONG:-6000}
SIDE_PAIRS=${SIDE_PAIRS:-3}
SIDE_CLIENT_COUNTS=(1 16)
BRIDGE_CONF=packaging/mosquitto/controller-bridge.conf
PLOT=${PLOT:-docs/roundtrip.png}
MIX=${MIX:-1}
BRIDGE=${BRIDGE:-1}
CALLGRIND=${CALLGRIND:-1}
MICRO=${MICRO:-1}
HANDOVER=${HANDOVER:-1}

# --- tools ------------------------------------------------------------------
need=()
for tool in cmake:cmake g++:g++ mosquitto:mosquitto pkg-config:pkg-config; do
  command -v "${tool%%:*}" >/dev/null || need+=("${tool##*:}")
done
[ -e /usr/include/benchmark/benchmark.h ] || need+=(libbenchmark-dev)
[ "$CALLGRIND" = 0 ] || command -v valgrind >/dev/null || need+=(valgrind)
command -v gnuplot >/dev/null || need+=(gnuplot-nox)
if [ ${#need[@]} -gt 0 ]; then
  echo "missing: apt-get install -y ${need[*]} (and scripts/deps.sh run)" >&2
  exit 1
fi

# --- build ------------------------------------------------------------------
if ! grep -qs '^TOKARD_BUILD_BENCH:BOOL=ON' "$BUILD_DIR/CMakeCache.txt"; then
  cmake --preset bench -B "$BUILD_DIR" >/dev/null
fi
cmake --build "$BUILD_DIR" -j2 --target tokard tokard_loadgen tokard_responder \
  tokard_microbench tokard_handover >/dev/null
TOKARD=$root/$BUILD_DIR/src/main/tokard
LOADGEN=$root/$BUILD_DIR/bench/loadgen
RESPONDER=$root/$BUILD_DIR/bench/responder
MICROBENCH=$root/$BUILD_DIR/bench/microbench
HANDOVER_TOOL=$root/$BUILD_DIR/bench/handover

session_start bench
median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", (b > 0) ? a / b : 0}'; }
verdict() { awk -v v="$1" -v op="$2" -v lim="$3" 'BEGIN {ok = (op == "<=") ? v <= lim : v >= lim; print ok ? "met" : "MISSED"}'; }

# A private mosquitto on a free loopback port, left in $broker_port; further
# arguments are configuration lines.
start_broker() {
  local name=$1
  shift
  broker_port=$("$LOADGEN" -P)
  broker_start "$broker_port" "$work/$name.log" "log_dest stderr" "log_type error" "log_type warning" "$@" || exit 1
  pids+=("$broker_pid")
}

# tokard on broker port $1 with "token_status = $2" in the file that
# TOKARD_CONFIG names; its pid in $tokard_pid.
start_tokard() {
  local port=$1 status=$2
  printf 'token_status = %s\n' "$status" >"$work/tokard-$status.conf"
  TOKARD_CONFIG=$work/tokard-$status.conf "$TOKARD" -H 127.0.0.1 -p "$port" -L -l NOTICE \
    >>"$work/tokard-$port.log" 2>&1 &
  tokard_pid=$!
  pids+=("$tokard_pid")
}

# Waits until the service on broker port $1 answers an acquire ($2 tries);
# $3 the load mode (acquire; mix leaves no token held).
wait_answering() {
  local port=$1 tries=$2 mode=${3:-acquire} out
  for _ in $(seq "$tries"); do
    out=$("$LOADGEN" -p "$port" -m "$mode" -c 1 -e 1 -n 1 -t 3000 -T 10 -x ping 2>/dev/null | grep '^RESULT' || true)
    [ "$(field answered "$out")" = 1 ] && return 0
    sleep 0.2
  done
  echo "nothing answers on port $port" >&2
  exit 1
}

# Stops pid $1 (one of ours) with SIGTERM, waits up to $2 seconds, and
# forgets it so that the clean-up never signals a reused number.
stop_pid() {
  local pid=$1 limit=$2 kept=() p
  if kill "$pid" 2>/dev/null; then
    for _ in $(seq $((limit * 10))); do
      kill -0 "$pid" 2>/dev/null || break
      sleep 0.1
    done
    kill -0 "$pid" 2>/dev/null && kill -KILL "$pid" 2>/dev/null
  fi
  wait "$pid" 2>/dev/null || true
  for p in "${pids[@]}"; do
    [ "$p" = "$pid" ] || kept+=("$p")
  done
  pids=("${kept[@]}")
}

say "tokard benchmark, $(date -u '+%Y-%m-%d %H:%M UTC'), $(nproc) cores, load:$(uptime | sed 's/.*load average://')"
say "build: $BUILD_DIR ($(sed -n 's/^CMAKE_BUILD_TYPE:STRING=//p' "$BUILD_DIR/CMakeCache.txt")), mosquitto $(mosquitto -h 2>/dev/null | sed -n '1s/.*version //p')"

begin_s=$SECONDS
start_broker broker_responder
port_r=$broker_port
start_broker broker_tokard
port_t=$broker_port
"$RESPONDER" -p "$port_r" >"$work/responder.log" 2>&1 &
pid_r=$!
pids+=($pid_r)
start_tokard "$port_t" on
pid_t=$tokard_pid
wait_answering "$port_r" 50
wait_answering "$port_t" 50
sleep 1
rss_idle_r=$(rss_kib "$pid_r")
rss_idle_t=$(rss_kib "$pid_t")

# --- round trip and throughput ------------------------------------------------
say ""
say "== Round trip and throughput: $PAIRS pairs per client count (responder, tokard, ...), ${DURATION} s each after ${WARMUP_MS} ms warm-up, $LAT_ECUS ECUs"
lost_total=0
declare -A med
# keep_figures WHO C RESULT_LINE: the run's rate, p50 and p99 into the files
# the medians are taken from, and its losses into $lost_total.
keep_figures() {
  echo "$(field rate "$3")" >>"$work/rate_$1_$2"
  echo "$(field p50_us "$3")" >>"$work/p50_$1_$2"
  echo "$(field p99_us "$3")" >>"$work/p99_$1_$2"
  lost_total=$((lost_total + $(field lost_total "$3") + $(field errors "$3")))
}

for c in "${CLIENT_COUNTS[@]}"; do
  for i in $(seq "$PAIRS"); do
    for who in responder tokard; do
      port=$port_r
      [ "$who" = tokard ] && port=$port_t
      out=$("$LOADGEN" -p "$port" -c "$c" -e "$LAT_ECUS" -d "$DURATION" -w "$WARMUP_MS" \
        -T $((DURATION + 20)) -x "$who$c" -o "$work/rtt_${who}_c$c.txt" | grep '^RESULT')
      printf '  C=%-2s pair %d %-9s answers/s %8s  p50 %7s us  p99 %7s us  lost %s\n' "$c" "$i" "$who" \
        "$(field rate "$out")" "$(field p50_us "$out")" "$(field p99_us "$out")" "$(field lost_total "$out")"
      keep_figures "$who" "$c" "$out"
    done
  done
  for who in responder tokard; do
    for m in rate p50 p99; do
      med[$m,$who,$c]=$(median <"$work/${m}_${who}_$c")
    done
  done
done

# --- the line of waiting clients -----------------------------------------------
if [ "$HANDOVER" != 0 ]; then
  say ""
  say "== The line of waiting clients (bench/handover)"
  "$HANDOVER_TOOL" -p "$port_t" | sed 's/^/  /'
fi

# --- memory -------------------------------------------------------------------
say ""
say "== Naming $NAMED_ECUS distinct ECUs (16 clients, one acquire each)"
for who in responder tokard; do
  port=$port_r
  [ "$who" = tokard ] && port=$port_t
  out=$("$LOADGEN" -p "$port" -c 16 -e "$NAMED_ECUS" -n "$NAMED_ECUS" -T 120 -x "named$who" | grep '^RESULT')
  say "  $who: answered $(field answered "$out") of $(field requests "$out"), lost $(field lost_total "$out"), answers/s $(field rate "$out")"
  lost_total=$((lost_total + $(field lost_total "$out") + $(field errors "$out")))
done
sleep 1
rss_named_r=$(rss_kib "$pid_r")
rss_named_t=$(rss_kib "$pid_t")
stop_pid "$pid_t" 10
stop_pid "$pid_r" 10
acquire_s=$((SECONDS - begin_s))

# --- side by side: two setups alternating, A B A B ... ----------------------------
# side_by_side MODE NAME_A PORT_A NAME_B PORT_B: SIDE_PAIRS pairs of runs per
# client count; per-run lines, and medians in med[figure,NAME,C].
side_by_side() {
  local mode=$1 c i k who port out
  local names=("$2" "$4") ports=("$3" "$5")
  for c in "${SIDE_CLIENT_COUNTS[@]}"; do
    for i in $(seq "$SIDE_PAIRS"); do
      for k in 0 1; do
        who=${names[$k]}
        port=${ports[$k]}
        out=$("$LOADGEN" -p "$port" -m "$mode" -c "$c" -e "$LAT_ECUS" -d "$DURATION" -w "$WARMUP_MS" \
          -T $((DURATION + 20)) -x "$who$c" | grep '^RESULT')
        printf '  C=%-2s pair %d %-9s answers/s %8s  p50 %7s us  p99 %7s us  lost %s  busy %s\n' "$c" "$i" "$who" \
          "$(field rate "$out")" "$(field p50_us "$out")" "$(field p99_us "$out")" "$(field lost_total "$out")" \
          "$(field busy "$out")"
        keep_figures "$who" "$c" "$out"
      done
    done
    for who in "${names[@]}"; do
      for m in rate p50 p99; do
        med[$m,$who,$c]=$(median <"$work/${m}_${who}_$c")
      done
    done
  done
}

# side_summary TITLE NAME_A NAME_B: the medians of both and B / A.
side_summary() {
  local c m name
  say ""
  say "== $1 (medians over $SIDE_PAIRS pairs; ratio = $3 / $2)"
  printf '  %-3s %-22s %12s %12s %8s\n' C figure "$2" "$3" ratio
  for c in "${SIDE_CLIENT_COUNTS[@]}"; do
    for m in p50 p99 rate; do
      case $m in
        p50) name="round trip p50 (us)" ;;
        p99) name="round trip p99 (us)" ;;
        rate) name="answers/s" ;;
      esac
      printf '  %-3s %-22s %12s %12s %8s\n' "$c" "$name" "${med[$m,$2,$c]}" "${med[$m,$3,$c]}" \
        "$(ratio "${med[$m,$3,$c]}" "${med[$m,$2,$c]}")"
    done
  done
}

# --- mix mode: token_status on and off ------------------------------------------------
if [ "$MIX" != 0 ]; then
  say ""
  say "== Mix mode (acquire, answer, release, next acquire; every pair grants and frees a token):"
  say "   token_status on, off, ... $SIDE_PAIRS pairs per client count, ${DURATION} s each after ${WARMUP_MS} ms warm-up, $LAT_ECUS ECUs"
  start_broker broker_status_on
  port_on=$broker_port
  broker_on=$broker_pid
  start_broker broker_status_off
  port_off=$broker_port
  broker_off=$broker_pid
  start_tokard "$port_on" on
  pid_on=$tokard_pid
  start_tokard "$port_off" off
  pid_off=$tokard_pid
  wait_answering "$port_on" 50 mix
  wait_answering "$port_off" 50 mix
  side_by_side mix status_on "$port_on" status_off "$port_off"
  stop_pid "$pid_on" 10
  stop_pid "$pid_off" 10
  stop_pid "$broker_on" 10
  stop_pid "$broker_off" 10
fi
mix_s=$((SECONDS - begin_s))

# --- bridged round trip ---------------------------------------------------------------
if [ "$BRIDGE" != 0 ]; then
  say ""
  say "== Bridged round trip: tokard on broker A; the load on A (direct) or on broker B, bridged to A"
  say "   by the bridge section of $BRIDGE_CONF (anonymous, loopback), direct, bridged, ..."
  say "   acquire mode, $SIDE_PAIRS pairs per client count, ${DURATION} s each after ${WARMUP_MS} ms warm-up, $LAT_ECUS ECUs"
  start_broker broker_a
  port_a=$broker_port
  mapfile -t bridge_lines < <(broker_bridge_lines "$BRIDGE_CONF" "127.0.0.1:$port_a")
  start_broker broker_b "${bridge_lines[@]}"
  port_b=$broker_port
  start_tokard "$port_a" on
  pid_a=$tokard_pid
  wait_answering "$port_a" 50
  wait_answering "$port_b" 20  # until the bridge carries both ways
  side_by_side acquire direct "$port_a" bridged "$port_b"
  stop_pid "$pid_a" 10
fi
bridge_s=$((SECONDS - begin_s))

# --- instructions per acquire ---------------------------------------------------
# User-space instructions of the whole process (callgrind Ir) serving n
# acquires, left in $ir.
instructions() {
  local who=$1 n=$2 port=$3 out pid file
  file=$work/callgrind.$who.$n
  local cmd=("$RESPONDER" -p "$port")
  [ "$who" = tokard ] && cmd=("$TOKARD" -H 127.0.0.1 -p "$port" -L -l NOTICE)
  valgrind --tool=callgrind --callgrind-out-file="$file" "${cmd[@]}" >"$work/cg.$who.$n.log" 2>&1 &
  pid=$!
  pids+=($pid)
  wait_answering "$port" 60
  out=$("$LOADGEN" -p "$port" -c "$CG_CLIENTS" -e "$CG_ECUS" -n "$n" -t 10000 -T 300 -x "cg$who" | grep '^RESULT')
  lost_total=$((lost_total + $(field lost_total "$out") + $(field errors "$out")))
  stop_pid "$pid" 60
  ir=$(awk '/^summary:/ {print $2}' "$file")
}

if [ "$CALLGRIND" != 0 ]; then
  say ""
  say "== Instructions per acquire (callgrind, $CG_CLIENTS client at a time, $CG_ECUS ECUs, $CG_LONG minus $CG_SHORT acquires)"
  declare -A ipr
  for who in responder tokard; do
    port=$port_r
    [ "$who" = tokard ] && port=$port_t
    instructions "$who" "$CG_SHORT" "$port"
    short=$ir
    instructions "$who" "$CG_LONG" "$port"
    long=$ir
    ipr[$who]=$(awk -v a="$long" -v b="$short" -v n=$((CG_LONG - CG_SHORT)) 'BEGIN {printf "%.0f", (a - b) / n}')
    say "  $who: $short instructions for $CG_SHORT, $long for $CG_LONG: ${ipr[$who]} per acquire"
  done
fi

# --- plot -------------------------------------------------------------------------
cdf() {  # at most ~2000 points of the empirical distribution
  sort -g "$1" | awk -v n="$(wc -l <"$1")" 'BEGIN {step = int(n / 2000) + 1} NR % step == 0 || NR == n {print $1, NR / n}' >"$2"
}
for c in 1 16; do
  cdf "$work/rtt_responder_c$c.txt" "$work/cdf_r$c"
  cdf "$work/rtt_tokard_c$c.txt" "$work/cdf_t$c"
done
mkdir -p "$(dirname "$PLOT")"
gnuplot <<EOF
set terminal pngcairo size 900,540 font "DejaVu Sans,10"
set output "$PLOT"
set title "Round trip of a token acquire through mosquitto on loopback (closed loop, QoS 1, last pair of runs)"
set xlabel "round trip (microseconds, log scale)"
set ylabel "fraction answered within"
set logscale x
set grid
set key bottom right
set yrange [0:1]
plot "$work/cdf_r1" with lines lw 2 dt 2 lc rgb "#888888" title "responder, 1 client", \
     "$work/cdf_t1" with lines lw 2 lc rgb "#1f77b4" title "tokard, 1 client", \
     "$work/cdf_r16" with lines lw 2 dt 2 lc rgb "#d62728" title "responder, 16 clients", \
     "$work/cdf_t16" with lines lw 2 lc rgb "#ff7f0e" title "tokard, 16 clients"
EOF

# --- summary ----------------------------------------------------------------------
say ""
say "== Summary (medians over $PAIRS pairs; ratio = tokard / responder)"
printf '  %-3s %-22s %12s %12s %8s  %-8s %s\n' C figure responder tokard ratio target verdict
for c in "${CLIENT_COUNTS[@]}"; do
  for m in p50 p99 rate; do
    r=${med[$m,responder,$c]}
    t=${med[$m,tokard,$c]}
    q=$(ratio "$t" "$r")
    case $m in
      p50) name="round trip p50 (us)"; op="<="; lim=1.10 ;;
      p99) name="round trip p99 (us)"; op="<="; lim=1.25 ;;
      rate) name="answers/s"; op=">="; lim=0.90 ;;
    esac
    target="$op $lim"
    v=$(verdict "$q" "$op" "$lim")
    if [ "$m" = rate ] && [ "$c" != 16 ]; then target="-"; v="(no target)"; fi
    printf '  %-3s %-22s %12s %12s %8s  %-8s %s\n' "$c" "$name" "$r" "$t" "$q" "$target" "$v"
  done
done
say ""
printf '  %-44s %10s %10s %10s  %-10s %s\n' figure responder tokard difference target verdict
d=$((rss_idle_t - rss_idle_r))
printf '  %-44s %7s KiB %6s KiB %6s KiB  %-10s %s\n' "resident memory, idle" "$rss_idle_r" "$rss_idle_t" "$d" "<= 2048" \
  "$(verdict "$d" "<=" 2048)"
d=$((rss_named_t - rss_named_r))
printf '  %-44s %7s KiB %6s KiB %6s KiB  %-10s %s\n' "resident memory, $NAMED_ECUS ECUs named" "$rss_named_r" "$rss_named_t" "$d" \
  "<= 8192" "$(verdict "$d" "<=" 8192)"
if [ "$CALLGRIND" != 0 ]; then
  q=$(ratio "${ipr[tokard]}" "${ipr[responder]}")
  printf '  %-44s %10s %10s %9sx  %-10s %s\n' "instructions per acquire (user space)" "${ipr[responder]}" "${ipr[tokard]}" "$q" \
    "<= 1.5x" "$(verdict "$q" "<=" 1.5)"
fi
printf '  %-44s %43s  %-10s %s\n' "requests lost or failed, all runs" "$lost_total" "0" "$([ "$lost_total" = 0 ] && echo met || echo MISSED)"
[ "$MIX" = 0 ] || side_summary "Mix mode, token_status on and off" status_off status_on
[ "$BRIDGE" = 0 ] || side_summary "Bridged and direct round trip (acquire mode)" direct bridged
say ""
say "  plot: $PLOT"
say "  seconds: acquire and memory $acquire_s, mix $((mix_s - acquire_s)), bridged $((bridge_s - mix_s)), all up to here $((SECONDS - begin_s))"
say "  load at the end:$(uptime | sed 's/.*load average://')"

# --- micro-benchmarks -------------------------------------------------------------------
if [ "$MICRO" != 0 ]; then
  say ""
  say "== Micro-benchmarks (no broker)"
  "$MICROBENCH" --benchmark_min_time=0.2 2>/dev/null | sed -n '/^Benchmark/,$p' | sed '/^-*$/d; s/^/  /'
fi
