#!/bin/sh
# The first process of a test's system, in separate namespaces. It makes ROOT the root and runs the
# systemd of ROOT. usage: machine_init.sh ROOT
set -e
root=$1
mount --make-rprivate /
mount --bind "$root" "$root"
cd "$root"
mount -t proc -o nosuid,nodev,noexec proc proc
mount -t sysfs -o ro,nosuid,nodev,noexec sysfs sys
mount -t cgroup2 cgroup2 sys/fs/cgroup
mount -t tmpfs -o mode=755 tmpfs dev
mount -t tmpfs -o mode=755,nosuid,nodev tmpfs run
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs tmp
for device in null zero full random urandom tty; do
  touch "dev/$device"
  mount --bind "/dev/$device" "dev/$device"
done
mkdir dev/shm dev/pts
mount -t tmpfs -o mode=1777,nosuid,nodev tmpfs dev/shm
mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
ln -s pts/ptmx dev/ptmx
ln -s /proc/self/fd dev/fd
ip link set lo up
mkdir -p .outside
pivot_root . .outside
# After this, the outer system is not visible. With container=test, systemd behaves as in a
# container: it does not change the propagation of mounts. Credentials of units need the propagation
# that a boot sets, so it is set here.
exec chroot . /bin/sh -c 'umount -l /.outside && rmdir /.outside && mount --make-rshared / &&
  exec env -i container=test PATH=/usr/sbin:/usr/bin:/sbin:/bin /lib/systemd/systemd'
