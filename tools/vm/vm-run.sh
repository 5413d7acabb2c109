#!/usr/bin/env bash
# vm-run.sh [options] [--] COMMAND...
#
# Boots a Debian kernel under QEMU with the initramfs of build-initramfs.sh, shares this
# machine's / read-only (writable in the guest through a tmpfs overlay), runs COMMAND (a
# shell command line, in the caller's directory) as root inside it, copies the serial
# console to stdout, powers off, and exits with COMMAND's status.
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
# On stderr: "VM_TIMING boot S" (QEMU start to the command) and "VM_TIMING total S".
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
cache=${VM_CACHE:-${CAMERA_CACHE_DIR:-/var/cache/camera-build}/vm}
kernel_arg=${VM_KERNEL:-6.12} cpus=1 mem=1024 tmo=300 outdir= extra= shell=
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
    --) shift; break ;;
    -*) echo "vm-run: unknown option $1" >&2; exit 2 ;;
    *) break ;;
  esac
done

if [ -d "$kernel_arg" ]; then kdir=$(realpath "$kernel_arg"); else kdir=$cache/kernel-$kernel_arg; fi
vmlinuz=$(ls "$kdir"/boot/vmlinuz-* 2>/dev/null | head -n1)
[ -f "$vmlinuz" ] || { echo "vm-run: no kernel in $kdir (run scripts/install-vm.sh)" >&2; exit 126; }
command -v qemu-system-x86_64 >/dev/null || { echo "vm-run: qemu-system-x86_64 missing" >&2; exit 126; }
initrd=$kdir.initramfs.gz
"$here/build-initramfs.sh" "$kdir" "$initrd" >&2 || exit 126

b64() { printf '%s' "$1" | base64 -w0; }
append="console=ttyS0 panic=-1 quiet rdinit=/init vmcwd=$(b64 "$PWD")"
[ -n "$shell" ] && append+=" vmshell=1"
[ $# -gt 0 ] && append+=" vmcmd=$(b64 "$*")"
[ -n "$outdir" ] && append+=" vmout=$(b64 "$outdir")"
[ -n "$extra" ] && append+=" $extra"
# The kernel keeps 2048 bytes of command line on x86.
[ ${#append} -lt 2000 ] || { echo "vm-run: command line too long" >&2; exit 2; }

qemu=(qemu-system-x86_64 -nodefaults -no-user-config -nographic -machine pc
      -m "$mem" -smp "$cpus" -no-reboot
      -kernel "$vmlinuz" -initrd "$initrd" -append "$append" -serial stdio
      -virtfs local,path=/,mount_tag=hostroot,security_model=none,readonly=on,multidevs=remap)
if [ "$accel" = kvm ]; then
  # Plain "-cpu host" aborts on nested hosts that refuse MSR 0x10a.
  qemu+=(-enable-kvm -cpu "${VM_CPU:-host,-arch-capabilities}")
else
  qemu+=(-accel tcg,thread=multi -cpu "${VM_CPU:-max}")
fi
[ -n "$outdir" ] && qemu+=(-virtfs "local,path=$outdir,mount_tag=out,security_model=none")

[ -n "$shell" ] && exec "${qemu[@]}"

t0=$EPOCHREALTIME
since() { awk -v a="$t0" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.1f", b - a }'; }
rc=124
while IFS= read -r line; do
  line=${line%$'\r'}
  case "$line" in
    *VM_CMD_START*) echo "VM_TIMING boot $(since)s ($accel, $cpus vCPU, ${line#*VM_CMD_START })" >&2 ;;
    *VM_EXIT_CODE=*) rc=${line##*VM_EXIT_CODE=} ;;
  esac
  printf '%s\n' "$line"
done < <(timeout -k 5 "$tmo" "${qemu[@]}" </dev/null 2>&1)
echo "VM_TIMING total $(since)s exit $rc" >&2
exit "$rc"
