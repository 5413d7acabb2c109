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
# Build trees: build-armhf/ and build-armhf-t64/ (under BUILD_ROOT, default the checkout).
# Downloads: CAMERA_CACHE_DIR (default /var/cache/camera-build).
set -uo pipefail
cd "$(dirname "$0")/.."
root=${BUILD_ROOT:-$PWD}
jobs=${JOBS:-$(nproc)}
start=$SECONDS
export CAMERA_CACHE_DIR=${CAMERA_CACHE_DIR:-/var/cache/camera-build}
export ARMHF_SYSROOT=${ARMHF_SYSROOT:-$CAMERA_CACHE_DIR/armhf/sysroot}

. scripts/lib/stages.sh
export VM_REQUIRED=${VM_REQUIRED:-1}

# As scripts/test-armhf.sh configures, plus the time layout; only what the VM runs is built.
build_tree() {  # DIR [EXTRA C FLAGS]
  cmake -S . -B "$1" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_FLAGS_RELEASE="-O2 -DNDEBUG${2:+ $2}" -DCMAKE_CXX_FLAGS_RELEASE="-O2 -DNDEBUG${2:+ $2}" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-armhf.cmake" -DARMHF_SYSROOT="$ARMHF_SYSROOT" >/dev/null &&
    cmake --build "$1" -j "$jobs" --target camcap V4LCameraCapturePlugin uvc-gadget-camera vm-play-probe
}
probe() { probe_boot --arch armhf -t 120 -v "$PWD" -- 'test -x /bin/bash'; }
scenarios() {  # DIR
  ctest --test-dir "$1" -L armvm --no-tests=error --output-on-failure --timeout 300
}

stage "install (armhf sysroot)" bash scripts/install-armhf.sh >/dev/null || no_vm "armhf VM: scripts/install-armhf.sh failed"
stage "install (qemu-system-arm, armmp kernel)" bash scripts/install-vm.sh --armhf || no_vm "scripts/install-vm.sh --armhf failed"
stage "build (32-bit time_t)" build_tree "$root/build-armhf" || exit 1
stage "build (64-bit time_t)" build_tree "$root/build-armhf-t64" "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64" || exit 1
stage "probe boot (armhf, TCG)" probe || no_vm "qemu-system-arm could not boot the armmp kernel"

rc=0
stage "armhf VM scenarios (32-bit time_t)" scenarios "$root/build-armhf" || rc=1
stage "armhf VM scenarios (64-bit time_t)" scenarios "$root/build-armhf-t64" || rc=1

scenario_times "$root"/build-armhf/tests/vm/artifacts/armvm.*/summary.txt \
               "$root"/build-armhf-t64/tests/vm/artifacts/armvm.*/summary.txt
echo "=== armhf VM stage total: $((SECONDS - start)) s"
exit $rc
