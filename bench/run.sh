#!/usr/bin/env bash
# tokard beside a zero-logic responder, on private loopback brokers:
#  1. round trip and answers/s, alternating responder and tokard runs
#     (A B A B ...) at 1, 4 and 16 concurrent clients; medians and ratios;
#  2. resident memory idle and after 10,000 distinct ECUs have been named;
#  3. user-space instructions per acquire (callgrind, long run minus short
#     run, so start-up cancels);
#  4. a plot of the round-trip distribution (docs/roundtrip.png);
#  5. the micro-benchmarks.
# Every run is bounded in count or time; the whole takes about 3 minutes
# after the build on two cores.
#
# Usage: bench/run.sh
# Environment: BUILD_DIR (build-bench), PAIRS (5), DURATION (seconds per run, 3),
#   PLOT (docs/roundtrip.png), CALLGRIND=0 and MICRO=0 to skip those parts.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
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
PLOT=${PLOT:-docs/roundtrip.png}
CALLGRIND=${CALLGRIND:-1}
MICRO=${MICRO:-1}

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
  cmake -S . -B "$BUILD_DIR" -DCMAKE_BUILD_TYPE=Release -DTOKARD_BUILD_BENCH=ON \
    -DTOKARD_BUILD_TESTS=OFF >/dev/null
fi
cmake --build "$BUILD_DIR" -j"$(nproc)" --target tokard tokard_loadgen tokard_responder \
  tokard_microbench >/dev/null
TOKARD=$root/$BUILD_DIR/src/main/tokard
LOADGEN=$root/$BUILD_DIR/bench/loadgen
RESPONDER=$root/$BUILD_DIR/bench/responder
MICROBENCH=$root/$BUILD_DIR/bench/microbench

work=$(mktemp -d /tmp/tokard-bench.XXXXXX)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

say() { printf '%s\n' "$*"; }
field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p" <<<"$2"; }
rss_kib() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }
median() { sort -g | awk '{v[NR] = $1} END {print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2}'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN {printf "%.3f", (b > 0) ? a / b : 0}'; }
verdict() { awk -v v="$1" -v op="$2" -v lim="$3" 'BEGIN {ok = (op == "<=") ? v <= lim : v >= lim; print ok ? "met" : "MISSED"}'; }

# A private mosquitto on a free loopback port, left in $broker_port.
start_broker() {
  local name=$1 port
  port=$("$LOADGEN" -P)
  cat >"$work/$name.conf" <<EOF
listener $port 127.0.0.1
allow_anonymous true
set_tcp_nodelay true
persistence false
log_dest stderr
log_type error
log_type warning
EOF
  mosquitto -c "$work/$name.conf" >"$work/$name.log" 2>&1 &
  pids+=($!)
  for _ in $(seq 100); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && { broker_port=$port; return; }
    sleep 0.05
  done
  echo "broker $name did not start" >&2
  exit 1
}

# Waits until the service on broker port $1 answers an acquire ($2 tries).
wait_answering() {
  local port=$1 tries=$2 out
  for _ in $(seq "$tries"); do
    out=$("$LOADGEN" -p "$port" -c 1 -e 1 -n 1 -t 3000 -T 10 -x ping 2>/dev/null | grep '^RESULT' || true)
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

start_broker broker_responder
port_r=$broker_port
start_broker broker_tokard
port_t=$broker_port
"$RESPONDER" -p "$port_r" >"$work/responder.log" 2>&1 &
pid_r=$!
pids+=($pid_r)
"$TOKARD" -H 127.0.0.1 -p "$port_t" -L -l NOTICE >"$work/tokard.log" 2>&1 &
pid_t=$!
pids+=($pid_t)
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
for c in "${CLIENT_COUNTS[@]}"; do
  for i in $(seq "$PAIRS"); do
    for who in responder tokard; do
      port=$port_r
      [ "$who" = tokard ] && port=$port_t
      out=$("$LOADGEN" -p "$port" -c "$c" -e "$LAT_ECUS" -d "$DURATION" -w "$WARMUP_MS" \
        -T $((DURATION + 20)) -x "$who$c" -o "$work/rtt_${who}_c$c.txt" | grep '^RESULT')
      printf '  C=%-2s pair %d %-9s answers/s %8s  p50 %7s us  p99 %7s us  lost %s\n' "$c" "$i" "$who" \
        "$(field rate "$out")" "$(field p50_us "$out")" "$(field p99_us "$out")" "$(field lost_total "$out")"
      echo "$(field rate "$out")" >>"$work/rate_${who}_$c"
      echo "$(field p50_us "$out")" >>"$work/p50_${who}_$c"
      echo "$(field p99_us "$out")" >>"$work/p99_${who}_$c"
      lost_total=$((lost_total + $(field lost_total "$out") + $(field errors "$out")))
    done
  done
  for who in responder tokard; do
    for m in rate p50 p99; do
      med[$m,$who,$c]=$(median <"$work/${m}_${who}_$c")
    done
  done
done

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
say "  plot: $PLOT"
say "  load at the end:$(uptime | sed 's/.*load average://')"

# --- micro-benchmarks -------------------------------------------------------------------
if [ "$MICRO" != 0 ]; then
  say ""
  say "== Micro-benchmarks (no broker)"
  "$MICROBENCH" --benchmark_min_time=0.2 2>/dev/null | sed -n '/^Benchmark/,$p' | sed '/^-*$/d; s/^/  /'
fi
