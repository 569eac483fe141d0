#!/bin/sh
# PID 1 of a fresh sandbox until it execs hxinit.py. Runs inside the new
# mount, net, pid, uts and ipc namespaces (see hxsim.py, Sandbox.start).
# Usage: sandbox-init.sh STATE_DIR SIM_DIR LAN_CIDR [PROJECT_DIR]
set -eu
S=$1 SIM=$2 LAN=$3 PROJ=${4:-}
M=$S/mnt
R=$M/root
ulimit -c 0

mount -t tmpfs -o mode=755 hxsim "$M"
mkdir -p "$M/upper" "$M/work" "$R"
mount -t overlay overlay -o "lowerdir=/,upperdir=$M/upper,workdir=$M/work" "$R"

robind() {
	mount --bind "$1" "$2"
	mount -o remount,bind,ro "$2"
}

# Fresh /proc of this pid namespace; no writes to host-wide kernel knobs,
# except the per-namespace network ones.
mount -t proc -o nosuid,nodev,noexec proc "$R/proc"
for p in sys sysrq-trigger irq bus fs; do
	if [ -e "$R/proc/$p" ]; then robind "$R/proc/$p" "$R/proc/$p"; fi
done
mount --bind "$R/proc/sys/net" "$R/proc/sys/net"
mount -o remount,bind,rw "$R/proc/sys/net"

mount -t sysfs -o ro,nosuid,nodev,noexec sysfs "$R/sys"
mount -t tmpfs -o mode=755 hxsim-battery "$R/sys/class/power_supply"
mount -t tmpfs -o mode=755 hxsim-block "$R/sys/block"

# A private /dev: only harmless nodes of the host, and a console FIFO.
mount -t tmpfs -o mode=755,nosuid hxsim-dev "$R/dev"
for n in null zero full random urandom tty; do
	touch "$R/dev/$n"
	mount --bind "/dev/$n" "$R/dev/$n"
done
mkdir "$R/dev/pts" "$R/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts "$R/dev/pts"
mount -t tmpfs -o mode=1777,nosuid,nodev hxsim-shm "$R/dev/shm"
ln -s pts/ptmx "$R/dev/ptmx"
ln -s /proc/self/fd "$R/dev/fd"
ln -s /proc/self/fd/0 "$R/dev/stdin"
ln -s /proc/self/fd/1 "$R/dev/stdout"
ln -s /proc/self/fd/2 "$R/dev/stderr"
mkfifo -m 622 "$R/dev/console"
cat <>"$R/dev/console" >>"$S/console.log" &

mount -t tmpfs -o mode=755 hxsim-run "$R/run"
mkdir -m 1777 "$R/run/lock"
mount -t tmpfs -o mode=1777 hxsim-tmp "$R/tmp"
mount -t tmpfs -o mode=1777 hxsim-vartmp "$R/var/tmp"

mkdir -p "$R/usr/lib/hxsim"
cp "$SIM/hxinit.py" "$R/usr/lib/hxsim/init.py"
printf 'major minor  #blocks  name\n\n' >"$R/usr/lib/hxsim/partitions"
mount --bind "$R/usr/lib/hxsim/partitions" "$R/proc/partitions"

if [ -n "$PROJ" ]; then
	mkdir -p "$R$PROJ"
	robind "$PROJ" "$R$PROJ"
fi

hostname hxsim
ip link set lo up
ip link add mlan0 type ifb
ip link set mlan0 up
ip link add br0 type bridge
ip link set br0 up
ip addr add "$LAN" dev br0

cd "$R"
mkdir -p .oldroot
pivot_root . .oldroot
cd /
umount -l /.oldroot
rmdir /.oldroot
exec /usr/bin/python3 -SE /usr/lib/hxsim/init.py
