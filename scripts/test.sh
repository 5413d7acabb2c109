#!/usr/bin/env bash
# Installs what is needed, builds, and runs the whole test suite: once plainly and once
# under AddressSanitizer + UndefinedBehaviorSanitizer. Exits non-zero on any failure or
# sanitizer report. Build trees: build/ and build-asan/ (override with BUILD_ROOT).
set -euo pipefail
cd "$(dirname "$0")/.."
root=${BUILD_ROOT:-$PWD}
jobs=${JOBS:-$(nproc)}

stage() {
  local name=$1; shift
  local start=$SECONDS
  echo "=== $name"
  "$@"
  echo "=== $name: $((SECONDS - start)) s"
}

configure_build() {  # dir [cmake args...]
  local dir=$1; shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
}

run_suite() {  # dir
  ctest --test-dir "$1" --output-on-failure -j "$jobs" --timeout 300
}

stage "install packages" bash scripts/install-deps.sh
stage "build" configure_build "$root/build"
stage "tests" run_suite "$root/build"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
stage "build (ASan+UBSan)" configure_build "$root/build-asan" -DSANITIZE=address
stage "tests (ASan+UBSan)" run_suite "$root/build-asan"
