# The frame of a measuring script (bench/run.sh, scripts/soak.sh; source this
# file): a scratch folder in $work, the pids it started in $pids, all ended
# and the folder removed on exit, and the helpers that read the tools' output.
#
#   session_start NAME   makes $work (/tmp/tokard-NAME.XXXXXX) and sets the trap

session_start() {
  work=$(mktemp -d "/tmp/tokard-$1.XXXXXX")
  pids=()
  trap session_end EXIT
}

session_end() {
  for pid in "${pids[@]}"; do
    kill "$pid" 2>/dev/null || true
  done
  wait 2>/dev/null || true
  rm -rf "$work"
}

say() { printf '%s\n' "$*"; }
# The value of "NAME=value" in a RESULT line: field NAME LINE
field() { sed -n "s/.* $1=\([^ ]*\).*/\1/p" <<<"$2"; }
rss_kib() { awk '/^VmRSS:/ {print $2}' "/proc/$1/status"; }
