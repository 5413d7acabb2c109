#!/bin/busybox sh
# /init of the test VM (see build-initramfs.sh and vm-run.sh).
#
# Kernel command line words read here (B64 = base64 of the value):
#   vmcmd=B64    the script vm-run.sh made of the command, run by bash in the host-root
#                chroot, as root
#   vmcwd=B64    directory to run it in (default /)
#   vmout=B64    host directory vm-run.sh shares read-write (9p tag "out"); mounted at
#                the same path, so files written there reach the host
#   vmshell=1    an interactive shell on the console instead of a command
#   vmshare=T:B64  9p share with tag T mounted read-only at path B64 in the chroot
#   vmnopreload=1  no /etc/ld.so.preload in the chroot (the armhf sysroot's is for qemu-user)
# The host's / (the armhf sysroot on the ARM VM) comes read-only as 9p tag "hostroot"; a
# tmpfs overlay on top lets the guest write anywhere (gone at power-off), so the build
# tree, Qt and v4l-utils run as they are. The initramfs's busybox is appended to the
# chroot's PATH for the tools a bare sysroot lacks (grep, sed, awk, modprobe, mount...).
/bin/busybox --install -s /bin
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
mount -t proc proc /proc
mount -t sysfs sysfs /sys
mount -t devtmpfs devtmpfs /dev

b64() { echo "$1" | base64 -d 2>/dev/null; }
CMD='' CWD=/ OUTP='' SHELLMODE='' SHARES='' NOPRELOAD=''
# shellcheck disable=SC2013  # (the words of its one line)
for a in $(cat /proc/cmdline); do
  case "$a" in
    vmcmd=*) CMD=$(b64 "${a#vmcmd=}") ;;
    vmcwd=*) CWD=$(b64 "${a#vmcwd=}") ;;
    vmout=*) OUTP=$(b64 "${a#vmout=}") ;;
    vmshell=1) SHELLMODE=1 ;;
    vmshare=*) SHARES="$SHARES ${a#vmshare=}" ;;
    vmnopreload=1) NOPRELOAD=1 ;;
  esac
done

die() { echo "VM_INIT_ERROR: $*"; echo "VM_EXIT_CODE=125"; poweroff -f; }

modprobe -a virtio_pci virtio_mmio 9pnet_virtio 9p overlay 2>/dev/null
mkdir -p /lower /ovl /newroot
mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=524288,cache=loose hostroot /lower \
  || die "9p mount of the host root failed"
mount -t tmpfs -o mode=755 tmpfs /ovl
mkdir -p /ovl/upper /ovl/work
mount -t overlay overlay -o lowerdir=/lower,upperdir=/ovl/upper,workdir=/ovl/work /newroot \
  || die "overlay on the host root failed"
R=/newroot
[ -n "$NOPRELOAD" ] && rm -f $R/etc/ld.so.preload
for s in $SHARES; do
  dir=$(b64 "${s#*:}")
  mkdir -p "$R$dir"
  mount -t 9p -o trans=virtio,version=9p2000.L,ro,msize=524288,cache=loose "${s%%:*}" "$R$dir" \
    || die "9p mount of $dir failed"
done
mkdir -p $R/usr/local/lib/vm-busybox
cp /bin/busybox $R/usr/local/lib/vm-busybox/busybox
for a in $(busybox --list); do ln -s busybox "$R/usr/local/lib/vm-busybox/$a" 2>/dev/null; done
# The armhf sysroot has no mount points of its own (they would hide the host's under
# qemu-user); the overlay takes them.
mkdir -p $R/dev $R/proc $R/sys $R/run $R/tmp
mount -t devtmpfs devtmpfs $R/dev
# What udev would add to a bare devtmpfs; bash's process substitution needs /dev/fd.
ln -sf /proc/self/fd $R/dev/fd
ln -sf /proc/self/fd/0 $R/dev/stdin
ln -sf /proc/self/fd/1 $R/dev/stdout
ln -sf /proc/self/fd/2 $R/dev/stderr
mkdir -p $R/dev/pts $R/dev/shm
mount -t devpts devpts $R/dev/pts
mount -t tmpfs tmpfs $R/dev/shm
mount -t proc proc $R/proc
mount -t sysfs sysfs $R/sys
mount -t tmpfs tmpfs $R/run
# The host's own modules are for another kernel: show the guest's to kmod in the chroot.
mkdir -p $R/lib/modules
mount --bind /lib/modules $R/lib/modules
if [ -n "$OUTP" ]; then
  mkdir -p "$R$OUTP"
  mount -t 9p -o trans=virtio,version=9p2000.L,msize=524288 out "$R$OUTP" \
    || echo "VM_INIT: could not mount the out share at $OUTP"
fi

if [ -n "$SHELLMODE" ] || [ -z "$CMD" ]; then
  echo "VM_INIT: shell (exit powers off)"
  chroot $R /bin/sh -c "export PATH=\$PATH:/usr/local/lib/vm-busybox; cd '$CWD'; exec /bin/bash -i" </dev/console >/dev/console 2>&1
  poweroff -f
fi

# The command runs as a script file, its text never parsed by this shell.
printf '%s\n' "$CMD" > $R/run/vm-command
read -r up _ < /proc/uptime
echo "VM_CMD_START uptime=${up}s kernel=$(uname -r) cpus=$(grep -c ^processor /proc/cpuinfo)"
# shellcheck disable=SC2016  # (the inner shell expands them)
chroot $R /usr/bin/env -i HOME=/root TERM=dumb LANG=C.UTF-8 VM_GUEST=1 \
  PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin:/usr/local/lib/vm-busybox \
  /bin/bash -c 'cd "$1" && exec /bin/bash /run/vm-command' vmsh "$CWD" </dev/null
rc=$?
sync
echo "VM_EXIT_CODE=$rc"
poweroff -f
