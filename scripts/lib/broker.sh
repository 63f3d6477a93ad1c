# A private mosquitto on loopback, for scripts/run.sh, scripts/soak.sh and
# bench/run.sh (source this file).
#
#   broker_port_open PORT       status 0 when something listens on 127.0.0.1:PORT
#   broker_free_port            prints a loopback port nobody listens on
#   broker_start PORT LOG [LINE...]
#                               starts mosquitto on 127.0.0.1:PORT, anonymous, no
#                               delayed ACKs, no persistence, extra configuration
#                               LINEs appended; its output goes to LOG and the
#                               configuration beside it (LOG.conf). Leaves the pid
#                               in $broker_pid; fails when the port is not open
#                               within 5 s.
#   broker_stop                 SIGTERM to $broker_pid, SIGKILL after 5 s
#   broker_bridge_lines CONF ADDRESS
#                               prints the bridge section of a shipped broker
#                               configuration CONF (from its "connection" line
#                               on) with the remote address set to ADDRESS and
#                               the remote login left out, as LINEs for
#                               broker_start: that bridge on loopback, anonymous.

broker_port_open() {
  (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null
}

broker_free_port() {
  local port
  for _ in $(seq 100); do
    port=$((20000 + RANDOM % 40000))
    broker_port_open "$port" || { echo "$port"; return 0; }
  done
  return 1
}

broker_start() {
  local port=$1 log=$2 line
  shift 2
  {
    echo "listener $port 127.0.0.1"
    echo "allow_anonymous true"
    echo "set_tcp_nodelay true"
    echo "persistence false"
    for line in "$@"; do echo "$line"; done
  } >"$log.conf"
  mosquitto -c "$log.conf" >>"$log" 2>&1 &
  broker_pid=$!
  for _ in $(seq 100); do
    broker_port_open "$port" && return 0
    kill -0 "$broker_pid" 2>/dev/null || break
    sleep 0.05
  done
  echo "mosquitto did not start on port $port (see $log)" >&2
  return 1
}

broker_stop() {
  [ -n "${broker_pid:-}" ] || return 0
  kill "$broker_pid" 2>/dev/null || true
  for _ in $(seq 50); do
    kill -0 "$broker_pid" 2>/dev/null || break
    sleep 0.1
  done
  kill -KILL "$broker_pid" 2>/dev/null || true
  wait "$broker_pid" 2>/dev/null || true
  broker_pid=""
}

broker_bridge_lines() {
  local conf=$1 address=$2
  sed -n '/^connection /,$p' "$conf" |
    sed -e '/^[[:space:]]*#/d' -e '/^[[:space:]]*$/d' -e '/^remote_username /d' -e '/^remote_password /d' \
      -e "s/^address .*/address $address/"
}
