#!/bin/sh
# Runs inside the virtual machine of scripts/service-vm.sh once tokard's unit
# has started: checks the service as systemd runs it and prints each result
# as "CHECK ok NAME" or "CHECK FAILED NAME" on the serial console, then
# powers the machine off.
exec > /dev/ttyS0 2>&1
app1() { tokctl -u app1 -P app1-secret "$@"; }
app2() { TOKCTL_USERNAME=app2 TOKCTL_PASSWORD=app2-secret tokctl -H 127.0.0.1 "$@"; }
check() {  # NAME EXPECTED ACTUAL
  if [ "$2" = "$3" ]; then echo "CHECK ok $1"; else echo "CHECK FAILED $1: '$3', expected '$2'"; fi
}
prop() { systemctl show tokard -P "$1"; }

echo "=== VMCHECK begin"
i=0
while [ "$(systemctl is-active tokard)" = activating ] && [ $i -lt 60 ]; do sleep 1; i=$((i + 1)); done
SYSTEMD_COLORS=0 systemctl status tokard --no-pager -l
check "ready under Type=notify" "active running 0" "$(prop ActiveState) $(prop SubState) $(prop NRestarts)"
check "runs as the tokard user" "tokard" "$(ps -o user= -C tokard | tr -d ' ')"
check "configuration readable by tokard only" "root:tokard 640" "$(stat -c '%U:%G %a' /etc/kesto/tokard.conf)"

app1 acquire rt/ECU1 --client app1
check "app1 acquires, default host, login by options" 0 $?
app2 acquire rt/ECU1 --client app2
check "app2 busy, login from the environment" 3 $?
app1 status
check "tokctl status sees tokard online" 0 $?

sleep 12
check "watchdog fed (WatchdogSec=5s, 12 s later)" "$(prop WatchdogUSec) active 0" "5s $(prop ActiveState) $(prop NRestarts)"

systemctl restart tokard
check "restart" 0 $?
app2 acquire rt/ECU1 --client app2
check "after the restart app1's token is not app2's" 3 $?
app1 acquire rt/ECU1 --client app1
check "after the restart app1 renews" 0 $?

echo "=== systemd-analyze security tokard"
systemd-analyze security tokard --no-pager | tail -1
systemctl stop tokard
check "stop" "0 success inactive" "$? $(prop Result) $(prop ActiveState)"
app1 status > /dev/null
check "tokctl status after the stop" 4 $?
echo "=== journal"
journalctl -u tokard --no-pager -o short-monotonic
echo "=== VMCHECK end"
systemctl poweroff
