#!/usr/bin/env bash
# The Debian package as a controller runs it: boots Debian 12 under qemu
# (software emulation, no KVM needed) with tokard's amd64 package installed by
# dpkg, mosquitto with the shipped access-control configuration and two
# application accounts, and checks the service under its hardened systemd unit
# (scripts/lib/vm-check.sh): ready, watchdog fed, its user and file modes,
# tokctl logins and answers, tokens kept across a restart, a clean stop.
# Needs root (debootstrap, chroot) and the network to the Debian archive of
# this machine's apt sources (or TOKARD_VM_MIRROR, when set). About
# 10 minutes the first time (the Debian tree is then kept in build-vm/base),
# about 5 after. Not part of scripts/test.sh.
# Usage: scripts/service-vm.sh     exit status 0 when every check passed
set -euo pipefail
cd "$(dirname "$0")/.."
root_dir=$(pwd)
scripts/deps.sh vm
scripts/deps.sh run
vm=build-vm
mkdir -p "$vm"

echo "== package"
cmake --preset default -B "$vm/amd64" -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_INSTALL_SYSCONFDIR=/etc >/dev/null
cmake --build "$vm/amd64" -j2
rm -rf "$vm/packages"
(cd "$vm/amd64" && cpack -G DEB -B "$root_dir/$vm/packages" >/dev/null)
deb=$(ls "$vm"/packages/tokard_*_amd64.deb)

echo "== Debian 12 tree"
if [ ! -x "$vm/base/usr/sbin/mosquitto" ]; then
  . scripts/lib/apt-mirror.sh
  mirror=${TOKARD_VM_MIRROR:-$(apt_mirror)}
  rm -rf "$vm/base"
  debootstrap --variant=minbase \
    --include=systemd,systemd-sysv,dbus,linux-image-amd64,initramfs-tools,mosquitto,adduser,procps \
    bookworm "$vm/base" "$mirror"
fi
rm -rf "$vm/root"
cp -a "$vm/base" "$vm/root"
r="$vm/root"

echo "== set-up: package, broker accounts, tokard's login"
cp "$deb" "$r/tmp/tokard.deb"
mount -t proc proc "$r/proc"
trap 'umount "$r/proc" 2>/dev/null || true' EXIT
chroot "$r" dpkg -i /tmp/tokard.deb
install -m 644 packaging/mosquitto/tokard-acl.conf "$r/etc/mosquitto/conf.d/tokard-acl.conf"
install -m 644 packaging/mosquitto/tokard.acl "$r/etc/mosquitto/tokard.acl"
chroot "$r" mosquitto_passwd -c -b /etc/mosquitto/tokard.passwd tokard tokard-secret
chroot "$r" mosquitto_passwd -b /etc/mosquitto/tokard.passwd app1 app1-secret
chroot "$r" mosquitto_passwd -b /etc/mosquitto/tokard.passwd app2 app2-secret
chroot "$r" chown root:mosquitto /etc/mosquitto/tokard.passwd
chmod 640 "$r/etc/mosquitto/tokard.passwd"
printf 'username = tokard\npassword = tokard-secret\n' >> "$r/etc/kesto/tokard.conf"
umount "$r/proc"
echo "/dev/vda / ext4 rw 0 1" > "$r/etc/fstab"
echo controller > "$r/etc/hostname"
printf '127.0.0.1 localhost\n::1 localhost ip6-localhost ip6-loopback\n' > "$r/etc/hosts"
install -m 755 scripts/lib/vm-check.sh "$r/usr/local/sbin/vm-check.sh"
cat > "$r/etc/systemd/system/vm-check.service" <<'UNIT'
[Unit]
Description=tokard service check
After=tokard.service mosquitto.service

[Service]
Type=oneshot
ExecStart=/usr/local/sbin/vm-check.sh
TimeoutStartSec=infinity

[Install]
WantedBy=multi-user.target
UNIT
ln -sf /etc/systemd/system/vm-check.service "$r/etc/systemd/system/multi-user.target.wants/"
# The check writes to the serial console; a login prompt there would hang it up.
ln -sf /dev/null "$r/etc/systemd/system/serial-getty@ttyS0.service"

echo "== boot (software emulation, a few minutes)"
rm -f "$vm/disk.img"
mkfs.ext4 -q -d "$r" -L root "$vm/disk.img" 3G
kernel=$(ls "$r"/boot/vmlinuz-* | tail -1)
initrd=$(ls "$r"/boot/initrd.img-* | tail -1)
timeout 1200 qemu-system-x86_64 -m 1024 -smp 1 -nographic -no-reboot -nic none \
  -kernel "$kernel" -initrd "$initrd" -append "root=/dev/vda rw console=ttyS0 quiet" \
  -drive "file=$vm/disk.img,format=raw,if=virtio" > "$vm/console.log" 2>&1 || true

tr -d '\r' < "$vm/console.log" | sed -n '/=== VMCHECK begin/,/=== VMCHECK end/p'
if ! grep -q "=== VMCHECK end" "$vm/console.log"; then
  echo "the check did not finish; the whole console is in $vm/console.log"
  exit 1
fi
passed=$(grep -c "^CHECK ok" "$vm/console.log" || true)
failed=$(grep -c "^CHECK FAILED" "$vm/console.log" || true)
echo "== $passed checks passed, $failed failed"
[ "$failed" -eq 0 ] && [ "$passed" -gt 0 ]
