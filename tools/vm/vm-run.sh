#!/usr/bin/env bash
# vm-run.sh [options] [--] COMMAND...
#
# Boots a Debian kernel under QEMU with the initramfs of build-initramfs.sh, shares this
# machine's / read-only (writable in the guest through a tmpfs overlay), runs COMMAND as
# root inside it, in the caller's directory, copies the serial console to stdout, powers
# off, and exits with COMMAND's status. COMMAND is one shell command line
# ('modprobe vivid && v4l2-ctl --list-devices'), or a program and its arguments, each
# passed as it is.
# 124: timed out; 125: the guest's init failed; 126: no kernel or QEMU.
#
#   -k VER|DIR   kernel: 6.12 (default) or 6.1 from $VM_CACHE, or an unpacked kernel dir
#   -c N         vCPUs (default 1)       -m MB   memory (default 1024)
#   -t SEC       time limit (default 300)
#   -o DIR       host directory shared read-write at the same path (results, logs)
#   --append S   extra kernel command line, e.g. "vivid.allocators=1"
#   --kvm|--tcg  accelerator; default TCG. KVM only when asked for (or VM_ACCEL=kvm):
#                a probe boot decides whether it works on a machine (see test-vm.sh).
#   --shell      interactive shell instead of COMMAND
#   --arch armhf the 32-bit ARM VM instead (qemu-system-arm -M virt, Debian's armmp kernel
#                from scripts/install-vm.sh --armhf, TCG only): its root is the armhf
#                sysroot ($ARMHF_SYSROOT, default the one of scripts/install-armhf.sh)
#   -v DIR       a host directory shared read-only at the same path (repeatable; on
#                amd64 the whole machine is shared already)
#   -e NAME=VAL  an environment variable for COMMAND (repeatable)
# VM_ICOUNT=N (environment, x86-64 TCG only): guest time advances 2^N ns per emulated
# instruction on one TCG thread, so CPU times measured in the guest vary less between runs.
# On stderr: "VM_TIMING boot S" (QEMU start to the command) and "VM_TIMING total S".
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/lib/common.sh
. "$here/../../scripts/lib/common.sh"
cache=$vm_cache
kernel_arg=${VM_KERNEL:-6.12} cpus=1 mem=1024 tmo=300 outdir='' extra='' shell='' arch=amd64
shares=() envs=()
accel=${VM_ACCEL:-tcg}
while [ $# -gt 0 ]; do
  case "$1" in
    -k) kernel_arg=$2; shift 2 ;;
    -c) cpus=$2; shift 2 ;;
    -m) mem=$2; shift 2 ;;
    -t) tmo=$2; shift 2 ;;
    -o) mkdir -p "$2"; outdir=$(realpath "$2"); shift 2 ;;
    --append) extra=$2; shift 2 ;;
    --kvm) accel=kvm; shift ;;
    --tcg) accel=tcg; shift ;;
    --shell) shell=1; shift ;;
    --arch) arch=$2; shift 2 ;;
    -v) shares+=("$(realpath "$2")"); shift 2 ;;
    -e) [[ $2 =~ ^[A-Za-z_][A-Za-z0-9_]*= ]] || { echo "vm-run: -e wants NAME=VALUE, not '$2'" >&2; exit 2; }
        envs+=("$2"); shift 2 ;;
    --) shift; break ;;
    -*) echo "vm-run: unknown option $1" >&2; exit 2 ;;
    *) break ;;
  esac
done

case $arch in
  amd64) qemu_bin=qemu-system-x86_64 kprefix=kernel- console=ttyS0 rootdir=/
         # The kernel keeps 2048 bytes of command line on x86.
         cmdline_max=2000 ;;
  armhf) qemu_bin=qemu-system-arm kprefix=kernel-armhf- console=ttyAMA0 accel=tcg
         rootdir=${ARMHF_SYSROOT:-$camera_cache/armhf/sysroot}
         # 32-bit ARM keeps 1024 bytes.
         cmdline_max=1000 ;;
  *) echo "vm-run: unknown architecture $arch (amd64 or armhf)" >&2; exit 2 ;;
esac
if [ -d "$kernel_arg" ]; then kdir=$(realpath "$kernel_arg"); else kdir=$cache/$kprefix$kernel_arg; fi
vmlinuz=$(find "$kdir/boot" -maxdepth 1 -name 'vmlinuz-*' 2>/dev/null | head -n1)
[ -f "$vmlinuz" ] || { echo "vm-run: no kernel in $kdir (run scripts/install-vm.sh)" >&2; exit 126; }
command -v $qemu_bin >/dev/null || { echo "vm-run: $qemu_bin missing" >&2; exit 126; }
[ -d "$rootdir/usr" ] || { echo "vm-run: no root tree at $rootdir (scripts/install-armhf.sh)" >&2; exit 126; }
initrd=$kdir.initramfs.gz
if [ "$arch" = armhf ]; then
  VM_ARCH=armhf BUSYBOX=$cache/busybox-armhf/bin/busybox "$here/build-initramfs.sh" "$kdir" "$initrd" >&2 || exit 126
else
  "$here/build-initramfs.sh" "$kdir" "$initrd" >&2 || exit 126
fi

b64() { printf '%s' "$1" | base64 -w0; }
append="console=$console panic=-1 quiet rdinit=/init vmcwd=$(b64 "$PWD")"
[ -n "$shell" ] && append+=" vmshell=1"
# What the guest runs (guest-init.sh writes it to a file for bash): the variables, each
# value quoted, then COMMAND as a line of its own or its words quoted one by one.
if [ $# -gt 0 ]; then
  script=
  for e in "${envs[@]}"; do
    script+="export ${e%%=*}=$(printf '%q' "${e#*=}")"$'\n'
  done
  if [ $# -eq 1 ]; then script+=$1; else script+=$(printf '%q ' "$@"); fi
  append+=" vmcmd=$(b64 "$script")"
fi
[ -n "$outdir" ] && append+=" vmout=$(b64 "$outdir")"
# The sysroot's /etc/ld.so.preload names the qemu-user shim, which has no place here.
[ "$arch" = armhf ] && append+=" vmnopreload=1"
[ -n "$extra" ] && append+=" $extra"

# 9p: the root tree as "hostroot", each -v DIR as "s<i>", the output directory as "out".
share9p() {  # TAG DIR READONLY
  if [ "$arch" = armhf ]; then
    qemu+=(-fsdev "local,id=$1,path=$2,security_model=none,multidevs=remap${3:+,readonly=on}"
           -device "virtio-9p-device,fsdev=$1,mount_tag=$1")
  else
    qemu+=(-virtfs "local,path=$2,mount_tag=$1,security_model=none,multidevs=remap${3:+,readonly=on}")
  fi
}
if [ "$arch" = armhf ]; then
  # highmem=off: the armmp (non-LPAE) kernel cannot reach the board's PCI window above 4 GiB.
  qemu=(qemu-system-arm -nodefaults -no-user-config -nographic -machine "virt,highmem=off"
        -m "$mem" -smp "$cpus" -no-reboot -cpu "${VM_CPU:-cortex-a15}" -accel "tcg,thread=multi")
else
  qemu=(qemu-system-x86_64 -nodefaults -no-user-config -nographic -machine pc
        -m "$mem" -smp "$cpus" -no-reboot)
  if [ "$accel" = kvm ]; then
    # Plain "-cpu host" aborts on nested hosts that refuse MSR 0x10a.
    qemu+=(-enable-kvm -cpu "${VM_CPU:-host,-arch-capabilities}")
  elif [ -n "${VM_ICOUNT:-}" ]; then
    qemu+=(-accel "tcg,thread=single" -icount "shift=$VM_ICOUNT,sleep=on" -cpu "${VM_CPU:-max}")
  else
    qemu+=(-accel "tcg,thread=multi" -cpu "${VM_CPU:-max}")
  fi
fi
share9p hostroot "$rootdir" ro
i=0
for d in "${shares[@]}"; do
  share9p "s$i" "$d" ro
  append+=" vmshare=s$i:$(b64 "$d")"
  i=$((i + 1))
done
[ -n "$outdir" ] && share9p out "$outdir"
[ ${#append} -lt $cmdline_max ] || { echo "vm-run: command line too long" >&2; exit 2; }
qemu+=(-kernel "$vmlinuz" -initrd "$initrd" -append "$append" -serial stdio)

[ -n "$shell" ] && exec "${qemu[@]}"

t0=$EPOCHREALTIME
rc=124
while IFS= read -r line; do
  line=${line%$'\r'}
  case "$line" in
    *VM_CMD_START*) echo "VM_TIMING boot $(seconds_since "$t0")s ($arch $accel, $cpus vCPU, ${line#*VM_CMD_START })" >&2 ;;
    *VM_EXIT_CODE=*) rc=${line##*VM_EXIT_CODE=} ;;
  esac
  printf '%s\n' "$line"
done < <(timeout -k 5 "$tmo" "${qemu[@]}" </dev/null 2>&1)
echo "VM_TIMING total $(seconds_since "$t0")s exit $rc" >&2
exit "$rc"
