#!/usr/bin/env bash
# The armhf build on a real 32-bit ARM kernel: Debian's armmp 6.12 kernel boots under
# qemu-system-arm (-M virt, TCG) with the armhf sysroot as its root and the build tree
# shared read-only, and CTest's `armvm` scenarios (tests/vm) run there against the real
# vivid and uvcvideo drivers, capture memory from vgem's DRM dumb buffers. Twice: the
# build of scripts/test-armhf.sh (32-bit time_t) and a second build with
# -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 (the 80-byte struct v4l2_buffer of newer armhf
# userlands), since only a real kernel tells whether the ioctl layouts match.
# Prints each stage's and scenario's time. Exits non-zero when a scenario fails or the
# VM cannot boot (VM_REQUIRED=0 makes the latter a skip).
# Build trees: build-armhf/ and build-armhf-t64/ under BUILD_ROOT (default the checkout).
# Downloads: CAMERA_CACHE_DIR (default /var/cache/camera-build).
# shellcheck disable=SC2317  # (the functions below run through stage)
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1
# shellcheck source=scripts/lib/common.sh
. scripts/lib/common.sh
# shellcheck source=scripts/lib/stages.sh
. scripts/lib/stages.sh
start=$SECONDS
export CAMERA_CACHE_DIR=$camera_cache
export ARMHF_SYSROOT=${ARMHF_SYSROOT:-$camera_cache/armhf/sysroot}
export VM_REQUIRED=${VM_REQUIRED:-1}

# As scripts/test-armhf.sh configures, plus the time layout; only what the VM runs is built.
build_tree() {  # DIR [EXTRA C FLAGS]
  armhf_configure "$camera_repo" "$1" "$ARMHF_SYSROOT" "${2:-}" &&
    cmake --build "$1" -j "$jobs" --target camcap V4LCameraCapturePlugin uvc-gadget-camera vm-play-probe
}
probe() { probe_boot --arch armhf -t 120 -v "$PWD" -- 'test -x /bin/bash'; }
scenarios() {  # DIR
  ctest --test-dir "$1" -L armvm --no-tests=error --output-on-failure --timeout 300
}

stage "install (armhf sysroot)" bash scripts/install-armhf.sh >/dev/null || no_vm "armhf VM: scripts/install-armhf.sh failed"
stage "install (qemu-system-arm, armmp kernel)" bash scripts/install-vm.sh --armhf || no_vm "scripts/install-vm.sh --armhf failed"
stage "build (32-bit time_t)" build_tree "$build_root/build-armhf" || exit 1
stage "build (64-bit time_t)" build_tree "$build_root/build-armhf-t64" "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64" || exit 1
stage "probe boot (armhf, TCG)" probe || no_vm "qemu-system-arm could not boot the armmp kernel"

rc=0
stage "armhf VM scenarios (32-bit time_t)" scenarios "$build_root/build-armhf" || rc=1
stage "armhf VM scenarios (64-bit time_t)" scenarios "$build_root/build-armhf-t64" || rc=1

scenario_times "$build_root"/build-armhf/tests/vm/artifacts/armvm.*/summary.txt \
               "$build_root"/build-armhf-t64/tests/vm/artifacts/armvm.*/summary.txt
echo "=== armhf VM stage total: $((SECONDS - start)) s"
exit $rc
