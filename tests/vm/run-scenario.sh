#!/usr/bin/env bash
# run-scenario.sh --build DIR [--arch armhf] [--tag T] [--env K=V]... [--cpus N] [--append S]
#                 [--timeout SEC] NAME [ARGS...]
#
# One VM test as CTest runs it: boots the VM (tools/vm/vm-run.sh), runs guest/NAME.sh inside with
# the build tree, then decodes on this machine every recording the guest listed in
# decode.list. Results, recordings and logs stay in DIR/tests/vm/artifacts/NAME[-ARG] (or
# DIR/tests/vm/artifacts/T). --arch armhf runs DIR's ARM build in the armhf VM, its
# sysroot as root; --env passes variables to the guest script.
# Exit: 0 passed, 1 failed, 77 skipped (the reason is printed and kept in summary.txt).
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=scripts/lib/common.sh
. "$here/../../scripts/lib/common.sh"
vm_run=$camera_repo/tools/vm/vm-run.sh
build='' cpus=1 append='' tmo=300 arch=amd64 tag='' envs=()
while [ $# -gt 0 ]; do
  case "$1" in
    --arch) arch=$2; shift 2 ;;
    --tag) tag=$2; shift 2 ;;
    --env) envs+=(-e "$2"); shift 2 ;;
    --build) build=$(realpath "$2"); shift 2 ;;
    --cpus) cpus=$2; shift 2 ;;
    --append) append=$2; shift 2 ;;
    --timeout) tmo=$2; shift 2 ;;
    *) break ;;
  esac
done
name=${1:?usage: $0 --build DIR [options] NAME [ARGS]}
shift
tag=${tag:-$name${1:+-$1}}
art=$build/tests/vm/artifacts/$tag
rm -rf "$art"
mkdir -p "$art"
t0=$EPOCHREALTIME

summary() {  # STATUS REASON
  printf '%s %s boot=%s %s\n' "$1" "$(seconds_since "$t0")" "${boot:--}" "$2" > "$art/summary.txt"
  echo "== $tag: $1 in $(seconds_since "$t0")s (boot ${boot:--}s)${2:+: $2}"
}
skipped() { summary skipped "$1"; echo "SKIPPED: $1"; exit 77; }

cache=$vm_cache
if [ "$arch" = armhf ]; then
  qemu_bin=qemu-system-arm kernel=kernel-armhf-${VM_KERNEL:-6.12} install="scripts/install-vm.sh --armhf"
else
  qemu_bin=qemu-system-x86_64 kernel=kernel-${VM_KERNEL:-6.12} install=scripts/install-vm.sh
fi
command -v $qemu_bin >/dev/null || skipped "$qemu_bin is not installed ($install)"
ls "$cache/$kernel"/boot/vmlinuz-* >/dev/null 2>&1 || skipped "no $kernel in $cache ($install)"
command -v ffprobe >/dev/null || skipped "ffprobe is not installed"
[ -x "$build/bin/camcap" ] || skipped "$build/bin/camcap is not built"

# The guest runs as root with the host's tree read-only; OUT is the only way back.
vm_args=(-c "$cpus" -t "$tmo" -o "$art" -e "SCENARIO=$tag" -e "BUILD_DIR=$build" -e "OUT=$art" "${envs[@]}")
# The ARM VM's root is the sysroot: the checkout (guest scripts) and build tree come as shares.
[ "$arch" = armhf ] && vm_args+=(--arch armhf -v "$camera_repo" -v "$build")
[ -n "$append" ] && vm_args+=(--append "$append")
(cd "$here" && "$vm_run" "${vm_args[@]}" -- bash "$here/guest/$name.sh" "$@") \
  > "$art/vm.log" 2> "$art/vm-timing.log"
guest=$?
boot=$(sed -n 's/^VM_TIMING boot \([0-9.]*\)s.*/\1/p' "$art/vm-timing.log")
# The console, less the kernel's own lines.
grep -av '^\[ *[0-9]*\.[0-9]*\]' "$art/vm.log" | tr -d '\r' | sed -n '/VM_CMD_START/,$p'
cat "$art/vm-timing.log"

case $guest in
  0|77) ;;
  124) summary failed "the VM hit its ${tmo}s time limit"; exit 1 ;;
  125|126) summary failed "the VM did not start the scenario (exit $guest)"; exit 1 ;;
  *) ;;
esac

# Host side: every listed recording must decode, packet for packet, without an error.
host_pass=0 host_fail=0
[ -f "$art/decode.list" ] || { echo "(no decode.list from the guest)"; : > "$art/decode.list"; }
while IFS='|' read -r label file demuxer min max; do
  [ -n "$label" ] || continue
  f=$art/$file
  if [ ! -s "$f" ]; then
    echo "FAIL: $label: decodes -- $file is missing or empty"; host_fail=$((host_fail + 1)); continue
  fi
  counts=$(ffprobe -v error -f "$demuxer" -count_frames -count_packets \
             -show_entries stream=nb_read_frames,nb_read_packets -of csv=p=0 "$f" 2>&1 | head -n1)
  frames=${counts%%,*} packets=${counts##*,}
  errors=$(ffmpeg -nostdin -v error -f "$demuxer" -i "$f" -f null - 2>&1 | head -n3)
  if [ -z "$errors" ] && [ "$frames" = "$packets" ] && [ "$frames" -ge "$min" ] 2>/dev/null \
     && [ "$frames" -le "$max" ]; then
    echo "PASS: $label: decodes, $frames frames (wanted $min..$max)"; host_pass=$((host_pass + 1))
  else
    echo "FAIL: $label: decodes -- $frames frames of $packets packets (wanted $min..$max)${errors:+; decoder: $errors}"
    host_fail=$((host_fail + 1))
  fi
done < "$art/decode.list"

guest_line=$(grep -a '^SCENARIO ' "$art/vm.log" | tr -d '\r' | sed 's/^SCENARIO [^:]*: //; s/ in the guest//')
checks="guest: ${guest_line:-no result line}; host decode: $host_pass passed, $host_fail failed"
skips=$(grep -a '^SKIP: ' "$art/vm.log" | tr -d '\r' | sed 's/^SKIP: //' | paste -sd ';' -)
[ -n "$skips" ] && checks+="; skipped: $skips"
if [ "$guest" = 0 ] && [ "$host_fail" = 0 ]; then
  summary passed "$checks"; exit 0
fi
if [ "$guest" = 77 ] && [ "$host_fail" = 0 ] && [ "$host_pass" = 0 ]; then
  reason=$(grep -a '^SKIP: ' "$art/vm.log" | tr -d '\r' | sed 's/^SKIP: //' | paste -sd ';' -)
  skipped "${reason:-the guest skipped}"
fi
summary failed "guest exit $guest; $checks"
exit 1
