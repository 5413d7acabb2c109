#!/usr/bin/env bash
# End-to-end tests against real kernel drivers in a QEMU VM (tests/vm): installs QEMU and
# Debian's kernel (scripts/install-vm.sh), builds the project if needed, checks that a VM
# boots, then runs `ctest -L vm -LE bench` (all but the benchmark on the host's clock) and
# prints the time of every stage and scenario.
# Exits non-zero when a scenario fails. When no VM can boot on this machine the stage is
# skipped with the reason (VM_REQUIRED=1 makes that a failure).
# Build tree: build/ under BUILD_ROOT (default the checkout), as scripts/test.sh builds it.
# shellcheck disable=SC2317  # (the functions below run through stage)
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
# shellcheck source=scripts/lib/common.sh
. scripts/lib/common.sh
# shellcheck source=scripts/lib/stages.sh
. scripts/lib/stages.sh
build=$build_root/build
start=$SECONDS

stage "install VM packages and kernel" bash scripts/install-vm.sh || no_vm "VM: scripts/install-vm.sh failed"
stage "build" native_build "$build" || exit 1

# A probe boot: TCG must work; KVM is used only when a boot with it works here too (on
# some hosts /dev/kvm exists but a stock kernel hangs under it).
# A KVM boot takes seconds; one that hangs is given up after 15 s, not 90 (TCG boots in about 5).
probe() {
  if [ "${1:-}" = --kvm ]; then probe_boot --kvm -t 15 -- true; else probe_boot -t 90 -- true; fi
}
if [ -z "${VM_ACCEL:-}" ] && [ -r /dev/kvm ] && [ -w /dev/kvm ]; then
  if stage "probe boot (KVM)" probe --kvm; then export VM_ACCEL=kvm; else echo "KVM does not boot here: TCG"; fi
fi
export VM_ACCEL=${VM_ACCEL:-tcg}
stage "probe boot ($VM_ACCEL)" probe || no_vm "qemu-system-x86_64 could not boot the test kernel"

stage "VM scenarios" ctest --test-dir "$build" -L vm -LE bench --no-tests=error --output-on-failure --timeout 300
rc=$?

scenario_times "$build"/tests/vm/artifacts/*/summary.txt
echo "=== VM stage total: $((SECONDS - start)) s"
exit $rc
