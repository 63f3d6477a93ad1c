#!/usr/bin/env bash
# Times tokard's republish after a broker that lost its retained messages:
# ECUS tokens held on a broker without persistence, the broker restarted,
# then how long until every status is back on the broker, and the round trips
# of acquires sent every 20 ms meanwhile (each for an ECU of its own, so an
# answer names its request).
#
# Usage: bench/republish.sh [BUILD_DIR]     (default build; tokard, tokctl and
#        bench/loadgen built there, -DTOKARD_BUILD_BENCH=ON)
# Environment: ECUS (10000), PROBES (100), FLAPS (0: after the measurement,
#   kill and start the broker again FLAPS times 1.1 s apart, then count the
#   statuses on the broker and tokard's resident memory).
set -euo pipefail
build=$(cd "${1:-build}" && pwd)
ecus=${ECUS:-10000}
probes=${PROBES:-100}
flaps=${FLAPS:-0}
tmp=$(mktemp -d)
pids=()
trap 'kill "${pids[@]}" 2>/dev/null || true; rm -rf "$tmp"' EXIT

port=$("$build/bench/loadgen" -P)
printf 'listener %s 127.0.0.1\nallow_anonymous true\nset_tcp_nodelay true\nmax_queued_messages 100000\n' \
  "$port" >"$tmp/mosquitto.conf"
broker_up() {
  mosquitto -c "$tmp/mosquitto.conf" >>"$tmp/broker.log" 2>&1 &
  broker=$!
  pids+=("$broker")
  for _ in $(seq 200); do
    (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null && return
    sleep 0.01
  done
  echo "mosquitto did not come up" >&2
  exit 1
}
broker_up
"$build/src/main/tokard" -L -l INFO -H 127.0.0.1 -p "$port" >"$tmp/tokard.log" 2>&1 &
tokard=$!
pids+=("$tokard")
for _ in $(seq 500); do
  grep -q 'Read back' "$tmp/tokard.log" && break
  sleep 0.02
done

echo "== $ecus tokens held"
"$build/bench/loadgen" -p "$port" -c 16 -e "$ecus" -n "$ecus" -t 5000 -T 120 -x hold | grep '^RESULT'
# One framed acquire per probe, as tokctl sends it.
for i in $(seq "$probes"); do
  mosquitto_sub -p "$port" -t system/tokard/request -C 1 -N >"$tmp/request$i" &
  sub=$!
  sleep 0.05
  "$build/tools/tokctl/tokctl" acquire "rt/P$i" --client probe -H 127.0.0.1 -p "$port" >/dev/null
  wait "$sub"
done

echo "== broker restarted without persistence"
kill "$broker"
wait "$broker" || true
broker_up
restarted=$(date +%s.%N)
mosquitto_sub -p "$port" -q 1 -t 'system/tokard/status/+' -t app/probe/pgn/response \
  -F '%U %t %x' >"$tmp/arrivals" &
pids+=($!)
for i in $(seq "$probes"); do
  echo "$i $(date +%s.%N)" >>"$tmp/sent"
  mosquitto_pub -p "$port" -q 1 -t system/tokard/request -f "$tmp/request$i"
  sleep 0.02
done
for _ in $(seq 300); do
  [ "$(grep -c ' system/tokard/status/' "$tmp/arrivals")" -ge "$ecus" ] && break
  sleep 0.1
done
sleep 1

python3 - "$tmp" "$restarted" "$ecus" <<'EOF'
import re, sys
tmp, restarted, ecus = sys.argv[1], float(sys.argv[2]), int(sys.argv[3])
statuses, answers = [], {}
for line in open(tmp + "/arrivals"):
    t, topic, payload = (line.split(" ", 2) + [""])[:3]
    if topic.startswith("system/tokard/status/"):
        statuses.append(float(t))
    else:
        m = re.search(rb"rt/P(\d+)", bytes.fromhex(payload.strip()))
        if m:
            answers[int(m.group(1))] = float(t)
sent = {int(i): float(t) for i, t in (l.split() for l in open(tmp + "/sent"))}
print(f"  statuses back      {len(statuses)} of {ecus}")
if statuses:
    print(f"  broker up -> first status   {1000 * (statuses[0] - restarted):7.0f} ms")
    print(f"  first -> last status        {1000 * (statuses[-1] - statuses[0]):7.0f} ms")
rtt = sorted(1000 * (answers[i] - sent[i]) for i in answers if i in sent)
during = sorted(1000 * (answers[i] - sent[i]) for i in answers
                if i in sent and statuses and sent[i] <= statuses[-1])
print(f"  probes answered    {len(rtt)} of {len(sent)} (those sent before tokard was back are lost)")
if during:
    print(f"  sent during the republish: {len(during)}, round trip min {during[0]:.0f} ms, "
          f"max {during[-1]:.0f} ms")
if rtt:
    print(f"  all answered: median {rtt[len(rtt) // 2]:.1f} ms, max {rtt[-1]:.0f} ms")
EOF
grep 'tokard.status' "$tmp/tokard.log" | sed 's/^/  tokard: /'

[ "$flaps" -gt 0 ] || exit 0
echo "== broker killed and started again $flaps times, 1.1 s apart"
rss() { awk '/^VmRSS/ {print $2, $3}' "/proc/$tokard/status"; }
echo "  tokard VmRSS before: $(rss)"
rounds_before=$(grep -c 'token statuses again' "$tmp/tokard.log" || true)
for _ in $(seq "$flaps"); do
  kill -KILL "$broker"
  wait "$broker" 2>/dev/null || true
  broker_up
  sleep 1.1
  echo "  tokard VmRSS: $(rss)"
done
for _ in $(seq 300); do
  [ "$(grep -c 'token statuses again' "$tmp/tokard.log")" -gt "$rounds_before" ] && break
  sleep 0.1
done
sleep 2
# Ends at the first live message or after 5 s (status 27).
kept=$({ mosquitto_sub -p "$port" -t 'system/tokard/status/+' --retained-only -W 5 -F '%t' \
          2>/dev/null || true; } | wc -l)
echo "  statuses on the broker at the end: $kept (of $((ecus + probes)))"
echo "  tokard connected $(grep -c ' as tokard ' "$tmp/broker.log") times in all, VmRSS after: $(rss)"
grep 'token statuses again' "$tmp/tokard.log" | tail -n +$((rounds_before + 1)) | sed 's/^/  tokard: /'
