#!/bin/busybox sh
# /init of a test VM (scripts/test-kernels.py): loads the modules in
# /modules/order, mounts the host's root (shared read-only over 9p) under a
# tmpfs overlay, prepares the kernel file systems the tests need, and runs the
# command named by quor.run= on the kernel command line, chrooted into that
# root, with quor.arg= as its argument. With quor.shell=busybox, the guest
# cannot run the host's programmes (another architecture): /bin/sh and the
# usual commands are this busybox. The VM powers off when the command ends.
/bin/busybox --install -s /bin
export PATH=/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev

run=""
arg=""
shell=""
for word in $(cat /proc/cmdline); do
  case "$word" in
    quor.run=*) run=${word#quor.run=} ;;
    quor.arg=*) arg=${word#quor.arg=} ;;
    quor.shell=*) shell=${word#quor.shell=} ;;
  esac
done

for m in $(cat /modules/order); do
  insmod "/modules/$m.ko" || echo "quorvm: cannot load module $m"
done

fail() {
  echo "quorvm: $*"
  echo "QUORVM-END 1"
  reboot -f
}

mount -t 9p -o trans=virtio,version=9p2000.L,msize=262144,ro hostroot /lower || fail "no 9p root"
mount -t tmpfs -o mode=0755 tmpfs /rw
mkdir -p /rw/upper /rw/work
mount -t overlay overlay -o lowerdir=/lower,upperdir=/rw/upper,workdir=/rw/work /newroot ||
  fail "no overlay root"

r=/newroot
mount --move /proc $r/proc
mount --move /sys $r/sys
mount --move /dev $r/dev
# No tmpfs of its own on /tmp: the overlay keeps it writable, and a checkout
# or build under the host's /tmp stays visible.
mount -t tmpfs -o mode=0755 tmpfs $r/run
mkdir -p $r/dev/pts $r/dev/shm
mount -t devpts devpts $r/dev/pts
mount -t tmpfs -o mode=1777 tmpfs $r/dev/shm
mount -t tracefs tracefs $r/sys/kernel/tracing 2>/dev/null
mount -t debugfs debugfs $r/sys/kernel/debug 2>/dev/null
mount -t cgroup2 cgroup2 $r/sys/fs/cgroup 2>/dev/null
# bpffs is left to the tests: they mount their own.
ln -sf /proc/self/fd $r/dev/fd
ln -sf /proc/self/fd/0 $r/dev/stdin
ln -sf /proc/self/fd/1 $r/dev/stdout
ln -sf /proc/self/fd/2 $r/dev/stderr
# A fresh kernel hands out low pids, which the service does not report.
echo 1000 >$r/proc/sys/kernel/ns_last_pid

path=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
if [ "$shell" = busybox ]; then
  mkdir -p $r/opt/quorvm/bin
  cp /bin/busybox $r/opt/quorvm/bin/busybox
  for applet in $(/bin/busybox --list); do
    [ "$applet" = busybox ] || ln -sf busybox "$r/opt/quorvm/bin/$applet"
  done
  rm -f $r/usr/bin/sh $r/bin/sh
  ln -sf /opt/quorvm/bin/busybox $r/usr/bin/sh
  [ -L $r/bin ] || ln -sf /opt/quorvm/bin/busybox $r/bin/sh
  path=/opt/quorvm/bin:$path
fi

echo "QUORVM-START $(uname -r) $(uname -m)"
PATH=$path HOME=/root TERM=dumb chroot $r /bin/sh "$run" "$arg"
echo "QUORVM-END $?"
sync
reboot -f
