#!/usr/bin/env bash
# End-to-end tests against real kernel drivers in a QEMU VM (tests/vm): installs QEMU and
# Debian's kernel (scripts/install-vm.sh), builds the project if needed, checks that a VM
# boots, then runs `ctest -L vm` and prints the time of every stage and scenario.
# Exits non-zero when a scenario fails. When no VM can boot on this machine the stage is
# skipped with the reason (VM_REQUIRED=1 makes that a failure).
# Build tree: build/ (override with BUILD_ROOT, as scripts/test.sh does).
set -uo pipefail
cd "$(dirname "$0")/.."
root=${BUILD_ROOT:-$PWD}
build=$root/build
start=$SECONDS

stage() {
  local name=$1; shift
  local t=$SECONDS
  echo "=== $name"
  "$@"
  local rc=$?
  echo "=== $name: $((SECONDS - t)) s"
  return $rc
}
build_tree() {
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null &&
    cmake --build "$build" -j "${JOBS:-$(nproc)}"
}
no_vm() {
  echo "VM tests skipped: $1"
  [ "${VM_REQUIRED:-0}" = 1 ] && exit 1
  exit 0
}

stage "install VM packages and kernel" bash scripts/install-vm.sh || no_vm "scripts/install-vm.sh failed"
stage "build" build_tree || exit 1

# A probe boot: TCG must work; KVM is used only when a boot with it works here too (on
# some hosts /dev/kvm exists but a stock kernel hangs under it).
# A KVM boot takes seconds; one that hangs is given up after 30 s, not 90.
probe() {
  local log tmo=90
  [ "${1:-}" = --kvm ] && tmo=30
  log=$(tools/vm/vm-run.sh "$@" -t "$tmo" -- true 2>&1 >/dev/null) || { echo "$log" | tail -3; return 1; }
  echo "$log" | grep VM_TIMING
}
if [ -z "${VM_ACCEL:-}" ] && [ -r /dev/kvm ] && [ -w /dev/kvm ]; then
  if stage "probe boot (KVM)" probe --kvm; then export VM_ACCEL=kvm; else echo "KVM does not boot here: TCG"; fi
fi
export VM_ACCEL=${VM_ACCEL:-tcg}
stage "probe boot ($VM_ACCEL)" probe || no_vm "qemu-system-x86_64 could not boot the test kernel"

stage "VM scenarios" ctest --test-dir "$build" -L vm --no-tests=error --output-on-failure --timeout 300
rc=$?

echo "=== VM scenario times (boot = QEMU start to the scenario's first command)"
printf '%-28s %-8s %8s %7s  %s\n' scenario result seconds boot details
for s in "$build"/tests/vm/artifacts/*/summary.txt; do
  [ -f "$s" ] || continue
  read -r result secs boot details < "$s"
  printf '%-28s %-8s %8s %7s  %s\n' "$(basename "$(dirname "$s")")" "$result" "$secs" "${boot#boot=}" "$details"
done
echo "=== VM stage total: $((SECONDS - start)) s"
exit $rc
