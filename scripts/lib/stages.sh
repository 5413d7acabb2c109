# shellcheck shell=bash
# Sourced by the test scripts: timed stages, and what the real-kernel stages share.

# stage NAME COMMAND...: runs COMMAND between "=== NAME" and "=== NAME: N s", returning its
# status (named in the closing line when it failed).
stage() {
  local name=$1 t=$SECONDS rc=0
  shift
  echo "=== $name"
  "$@" || rc=$?
  echo "=== $name: $((SECONDS - t)) s$([ "$rc" = 0 ] || echo " (exit $rc)")"
  return $rc
}

# no_vm REASON: this machine cannot run the stage. A skip, or a failure with VM_REQUIRED=1.
no_vm() {
  echo "skipped: $1"
  [ "${VM_REQUIRED:-0}" = 1 ] && exit 1
  exit 0
}

# probe_boot VM-RUN-ARGS...: one boot (tools/vm/vm-run.sh) that must come up; prints its
# timing line, or the end of its log when it does not.
probe_boot() {
  local log
  log=$(tools/vm/vm-run.sh "$@" 2>&1 >/dev/null) || { echo "$log" | tail -3; return 1; }
  echo "$log" | grep VM_TIMING
}

# scenario_times SUMMARY...: the table of the scenarios' summary.txt files
# (result, seconds, boot time, details), one row per scenario directory.
scenario_times() {
  local s result secs boot details
  echo "=== scenario times (boot = QEMU start to the scenario's first command)"
  printf '%-30s %-8s %8s %7s  %s\n' scenario result seconds boot details
  for s in "$@"; do
    [ -f "$s" ] || continue
    read -r result secs boot details < "$s"
    printf '%-30s %-8s %8s %7s  %s\n' "$(basename "$(dirname "$s")")" "$result" "$secs" "${boot#boot=}" "$details"
  done
}
