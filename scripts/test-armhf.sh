#!/usr/bin/env bash
# Cross-builds the whole project for armhf (32-bit ARM: ARMv7-A, NEON, hard-float) and runs
# every test under qemu-user through CTest, then runs the host tool under emulation: it
# loads the plug-in and lists the simulated camera's formats, and records H.264 (passed
# through from the camera, and encoded from YUYV) that the host's ffprobe must decode.
# Prints the time of each stage; exits non-zero on any failure.
#
# Build tree: build-armhf/ under BUILD_ROOT (default the checkout). Packages, downloads and
# the sysroot: scripts/install-armhf.sh, cached in $CAMERA_CACHE_DIR/armhf.
# ARMHF_QEMU_CPU picks the emulated core (default cortex-a8), JOBS the parallelism.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib/common.sh
. scripts/lib/common.sh
# shellcheck source=scripts/lib/stages.sh
. scripts/lib/stages.sh
dir=$build_root/build-armhf
cpu=${ARMHF_QEMU_CPU:-cortex-a8}
start_all=$SECONDS

sysroot_file=$(mktemp)
at_exit() {
  rm -f "$sysroot_file"
  echo "=== armhf total: $((SECONDS - start_all)) s"
}
trap at_exit EXIT
install_step() {
  bash scripts/install-armhf.sh | tail -n 1 > "$sysroot_file"
}

# The emulator line the toolchain gives CTest. The tool re-runs itself with the simulator
# preloaded; the sysroot's shim turns that exec into one of qemu.
emulate() {
  qemu-arm-static -cpu "$cpu" -L "$sysroot" \
    -E "ARMHF_QEMU=$(command -v qemu-arm-static),QEMU_CPU=$cpu,QEMU_LD_PREFIX=$sysroot" "$@"
}

plugin_loads() {
  emulate "$dir/bin/camcap" --plugin "$dir/plugins/libV4LCameraCapturePlugin.so" \
    --simulate --list-formats
}

# 30 frames each: the camera's own H.264, and YUYV the element encodes.
record_h264() {
  local out=$dir/armhf-record source frames
  mkdir -p "$out"
  for source in h264 yuyv; do
    rm -f "$out/$source.h264"
    emulate "$dir/bin/camcap" --plugin "$dir/plugins/libV4LCameraCapturePlugin.so" \
      --simulate "$source" --format "$source" --size 640x480 --frames 30 --no-progress \
      --output "$out/$source.h264"
    frames=$(ffprobe -v error -f h264 -count_frames -select_streams v:0 \
               -show_entries stream=nb_read_frames -of csv=p=0 "$out/$source.h264")
    echo "$source: ffprobe decoded ${frames:-no} frames"
    [ "$frames" = 30 ] || return 1
  done
}

stage "install (host packages, armhf sysroot)" install_step
sysroot=$(cat "$sysroot_file")
echo "armhf sysroot: $sysroot (download cache: $(dirname "$sysroot")/debs)"
stage "configure" armhf_configure "$camera_repo" "$dir" "$sysroot"
stage "build" cmake --build "$dir" -j "$jobs"
# Label vm: scenarios that boot an x86-64 VM around the build tree; not for ARM binaries.
stage "tests under qemu-user" ctest --test-dir "$dir" --output-on-failure -j "$jobs" --timeout 600 -LE "vm|armvm|soak"
stage "plug-in under emulation" plugin_loads
stage "H.264 recording under emulation" record_h264
