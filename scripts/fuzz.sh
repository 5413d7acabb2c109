#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan+UBSan) in build-fuzz/ (under BUILD_ROOT,
# default the checkout) and runs each for
# FUZZ_SECONDS (default 60) from its checked-in corpus. New interesting inputs go to a
# scratch corpus; a crash input is left in build-fuzz/crashes/<target>/ and fails the run:
# copy it to fuzz/regressions/<target>/ once fixed, so the normal suites replay it.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib/common.sh
. scripts/lib/common.sh
dir=$build_root/build-fuzz
seconds=${FUZZ_SECONDS:-60}
read -r -a targets <<< "${FUZZ_TARGETS:-annexb hevccut modeltext camcapoptions}"

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DFUZZ=ON \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
cmake --build "$dir" -j "$jobs" --target "${targets[@]/#/fuzz_}"

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1
# fuzz_one TARGET: runs one target; its verdict goes to $dir/fuzz-TARGET.verdict.
fuzz_one() {
  local t=$1 scratch="$dir/corpus/$1" crashes="$dir/crashes/$1" start=$SECONDS
  mkdir -p "$scratch" "$crashes"
  local seeds=("fuzz/corpus/$t")
  [ -d "fuzz/regressions/$t" ] && seeds+=("fuzz/regressions/$t")
  if "$dir/bin/fuzz_$t" -max_total_time="$seconds" -print_final_stats=1 \
      -artifact_prefix="$crashes/" "$scratch" "${seeds[@]}" \
      >"$dir/fuzz-$t.log" 2>&1; then
    echo "fuzz $t: no finding in $((SECONDS - start)) s," \
      "$(grep -m1 -o 'stat::number_of_executed_units: *[0-9]*' "$dir/fuzz-$t.log" | grep -o '[0-9]*$') runs"
  else
    echo "fuzz $t: FINDING, see $dir/fuzz-$t.log and $crashes/"
    tail -n 30 "$dir/fuzz-$t.log"
    return 1
  fi
}

# One target per core at a time: each is single-threaded.
status=0
parallel=$jobs
pids=()
for t in "${targets[@]}"; do
  fuzz_one "$t" &
  pids+=($!)
  if [ ${#pids[@]} -ge "$parallel" ]; then
    wait "${pids[0]}" || status=1
    pids=("${pids[@]:1}")
  fi
done
for p in "${pids[@]}"; do wait "$p" || status=1; done
exit $status
