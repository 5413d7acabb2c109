#!/usr/bin/env bash
# Installs what is needed, builds, and runs every test: the suite three times (plainly,
# under AddressSanitizer + UndefinedBehaviorSanitizer, under ThreadSanitizer), the
# scenarios against real kernel drivers in a QEMU VM, the armhf cross build's suite
# under qemu-user, and the armhf build on a real ARM kernel in a VM. Between the sanitizer
# suites run the chaos soak and the fuzz targets. Exits non-zero on any failure or
# sanitizer report. Build trees: build/, build-asan/, build-tsan/, build-fuzz/,
# build-armhf/, build-armhf-t64/ (under BUILD_ROOT, default the checkout).
# Downloads (kernels, armhf packages) are cached in CAMERA_CACHE_DIR
# (default /var/cache/camera-build).
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib/common.sh
. scripts/lib/common.sh
# shellcheck source=scripts/lib/stages.sh
. scripts/lib/stages.sh  # stage NAME COMMAND...: timed; a failed stage ends the run (set -e)
# The stage scripts below put their trees here too.
export BUILD_ROOT=$build_root

run_suite() {  # dir
  # Real-kernel scenarios (labels vm, armvm) and the chaos soak have stages of their own.
  ctest --test-dir "$1" --output-on-failure -j "$jobs" --timeout 300 -LE "vm|armvm|soak"
}

stage "install packages" bash scripts/install-deps.sh

# Compiler cache beside the downloads: the six builds below share most objects, and a
# second run on the same machine rebuilds only what changed.
if command -v ccache >/dev/null; then
  export CCACHE_DIR=${CCACHE_DIR:-$camera_cache/ccache}
  export CCACHE_BASEDIR=$PWD CCACHE_MAXSIZE=${CCACHE_MAXSIZE:-5G}
  export CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache
fi
stage "build" native_build "$build_root/build"
stage "tests" run_suite "$build_root/build"
# The release build's stop bound (50 ms) holds under chaos too.
stage "chaos soak (60 s)" env SOAK_SECONDS="${SOAK_PLAIN_SECONDS:-60}" \
  ctest --test-dir "$build_root/build" --output-on-failure -L soak

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# libx265 keeps allocations of every encoder it closes; the simulated camera uses it.
export LSAN_OPTIONS=suppressions=$PWD/sim/content/x265.lsan.supp
stage "build (ASan+UBSan)" native_build "$build_root/build-asan" -DSANITIZE=address -DCMAKE_BUILD_TYPE=Debug
stage "tests (ASan+UBSan)" run_suite "$build_root/build-asan"
# Faults arriving together for SOAK_SECONDS (the README has the hour-long command).
stage "chaos soak (ASan+UBSan)" env SOAK_SECONDS="${SOAK_SECONDS:-120}" \
  ctest --test-dir "$build_root/build-asan" --output-on-failure -L soak

export TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$PWD/tests/tsan.supp"
stage "build (TSan)" native_build "$build_root/build-tsan" -DSANITIZE=thread -DCMAKE_BUILD_TYPE=Debug
stage "tests (TSan)" run_suite "$build_root/build-tsan"

stage "fuzzing (clang, ${FUZZ_SECONDS:-60} s per target)" bash scripts/fuzz.sh

# The VM boots from this machine, so a VM that cannot boot is a failure here, not a skip.
stage "VM tests (real kernel drivers)" env VM_REQUIRED=1 bash scripts/test-vm.sh
stage "armhf (cross build, tests under qemu-user)" bash scripts/test-armhf.sh
stage "armhf VM (real 32-bit ARM kernel, both time layouts)" env VM_REQUIRED=1 bash scripts/test-armvm.sh
