# shellcheck shell=bash disable=SC2034  # (some names are for the scenario scripts only)
# Shared by the scenario scripts, which run as root inside the test VM (see vm-run.sh).
# Environment from run-scenario.sh:
#   BUILD_DIR  the build tree (bin/camcap, plugins/, bin/uvc-gadget-camera, ...)
#   OUT        a host directory shared read-write: recordings, logs, decode.list
#   SCENARIO   the scenario's name
# Recordings are decoded on the host afterwards (natively, much faster than in the
# emulated guest): a scenario lists each file and the frame counts it expects in
# $OUT/decode.list.
set -u
: "${BUILD_DIR:?}" "${OUT:?}" "${SCENARIO:?}"
BIN=$BUILD_DIR/bin
CAMCAP=$BIN/camcap
PROBE=$BIN/vm-play-probe
GADGET_CAMERA=$BIN/uvc-gadget-camera
mkdir -p "$OUT"
: > "$OUT/decode.list"
n_pass=0 n_fail=0 n_skip=0
read -r start_uptime _ < /proc/uptime

# Lines carry the guest's seconds since the scenario started.
stamp() { awk -v a="$start_uptime" '{ printf "%5.1f", $1 - a }' /proc/uptime; }
say() { echo "[$(stamp)] $*"; }
pass() { n_pass=$((n_pass + 1)); echo "PASS: $1 [$(stamp)]"; }
fail() { n_fail=$((n_fail + 1)); echo "FAIL: $1${2:+ -- $2} [$(stamp)]"; }
skip() { n_skip=$((n_skip + 1)); echo "SKIP: $1 -- $2"; }
# check NAME COMMAND...: a passing or failing check, by the command's status.
check() {
  local name=$1; shift
  if "$@"; then pass "$name"; else fail "$name"; fi
}
# check_eq NAME EXPECTED ACTUAL
check_eq() {
  if [ "$2" = "$3" ]; then pass "$1"; else fail "$1" "expected '$2', got '$3'"; fi
}
# Ends the scenario: 1 when a check failed; 77 (skipped) when nothing could be checked.
finish() {
  dmesg > "$OUT/dmesg.txt" 2>&1
  echo "SCENARIO $SCENARIO: $n_pass checks passed, $n_fail failed, $n_skip skipped in the guest"
  [ "$n_fail" -gt 0 ] && exit 1
  [ "$n_pass" -eq 0 ] && exit 77
  exit 0
}
now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.1f", b - a }'; }
grep_count() { grep -c -- "$1" "$2" 2>/dev/null || true; }

# ---- camcap ----------------------------------------------------------------------------

# camcap_supports OPTION...: whether this build's camcap has every option.
camcap_supports() {
  local help opt
  help=$("$CAMCAP" --help 2>&1) || true
  for opt in "$@"; do
    grep -q -- "$opt" <<< "$help" || return 1
  done
}
# need_camcap WHAT OPTION...: false, with a failed check, when camcap lacks an option: the
# scenario is there to prove what camcap does with it.
need_camcap() {
  local what=$1; shift
  if ! camcap_supports "$@"; then
    fail "$what" "camcap lacks one of $*"
    return 1
  fi
}

# record NAME ARGS...: camcap -v ARGS --output $OUT/NAME.out, element log in NAME.log.
# Sets REC_STATUS, REC_SECONDS, REC_FILE, REC_LOG.
record() {
  local name=$1; shift
  REC_FILE=$OUT/$name.out REC_LOG=$OUT/$name.log
  rm -f "$REC_FILE"
  local t0; t0=$(now)
  "$CAMCAP" -v "$@" --output "$REC_FILE" > "$OUT/$name.stdout" 2> "$REC_LOG"
  REC_STATUS=$?
  REC_SECONDS=$(elapsed "$t0")
  say "camcap $* -> exit $REC_STATUS in ${REC_SECONDS}s, $(stat -c %s "$REC_FILE" 2>/dev/null || echo no) bytes"
}

# stamp_lines: every input line with the guest's uptime in front, to time what camcap says.
stamp_lines() {
  local line up
  while IFS= read -r line; do
    read -r up _ < /proc/uptime
    printf '%s %s\n' "$up" "$line"
  done
}
# wait_frames LOG [N [PID]]: until the element has had its first frame N times (once per
# play(); camcap's file fills in whole stdio buffers, too late to go by) or camcap (PID)
# has ended, then a moment longer.
wait_frames() {
  for _ in $(seq 300); do
    [ "$(grep_count "got a frame" "$1")" -ge "${2:-1}" ] && break
    [ -n "${3:-}" ] && ! kill -0 "$3" 2>/dev/null && break
    sleep 0.2
  done
  sleep 1
}

# expect_decode LABEL FILE DEMUXER MIN MAX: the host decodes FILE and wants between MIN
# and MAX frames, every packet a decoded frame and no decoder error.
expect_decode() {
  echo "$1|${2#"$OUT"/}|$3|$4|$5" >> "$OUT/decode.list"
}

# ---- USB camera ------------------------------------------------------------------------

# The capture node uvcvideo made for our camera, if any.
uvc_capture_node() {
  local n
  for n in /sys/class/video4linux/video*; do
    [ -e "$n" ] || continue
    [ "$(readlink -f "$n/device/driver")" = /sys/bus/usb/drivers/uvcvideo ] || continue
    v4l2-ctl -d "/dev/${n##*/}" -D 2>/dev/null | sed -n '/Device Caps/,$p' \
      | grep -q 'Video Capture' && { echo "/dev/${n##*/}"; return 0; }
  done
  return 1
}
# wait_uvc_node SECONDS: prints the node once it is there.
wait_uvc_node() {
  local end=$(( $(date +%s) + ${1:-20} ))
  while [ "$(date +%s)" -le "$end" ]; do
    uvc_capture_node && return 0
    sleep 0.2
  done
  return 1
}
# /dev/bus/usb/BBB/DDD of the USB device behind a video4linux name (video0).
usb_device_of() {
  local dir
  dir=$(readlink -f "/sys/class/video4linux/$1/device")
  while [ -n "$dir" ] && [ "$dir" != / ]; do
    if [ -f "$dir/busnum" ] && [ -f "$dir/devnum" ]; then
      printf '/dev/bus/usb/%03d/%03d\n' "$(cat "$dir/busnum")" "$(cat "$dir/devnum")"
      return 0
    fi
    dir=$(dirname "$dir")
  done
  return 1
}
usb_setup_done=
# start_usb_camera [ARGS]: loads the virtual bus and uvcvideo, starts the camera program,
# waits for its capture node. Sets CAM_PID, CAM_NODE, CAM_USB.
start_usb_camera() {
  if [ ! -x "$GADGET_CAMERA" ]; then
    skip "USB camera" "$GADGET_CAMERA is not built (needs the simcam_content library)"
    finish
  fi
  if [ -z "$usb_setup_done" ]; then
    modprobe dummy_hcd && modprobe gadgetfs && modprobe uvcvideo || return 1
    mkdir -p /dev/gadget
    mountpoint -q /dev/gadget || mount -t gadgetfs gadgetfs /dev/gadget || return 1
    usb_setup_done=1
  fi
  local t0; t0=$(now)
  "$GADGET_CAMERA" "$@" >> "$OUT/camera.log" 2>&1 &
  CAM_PID=$!
  CAM_NODE=$(wait_uvc_node 60) || { say "no uvcvideo node"; tail -20 "$OUT/camera.log"; return 1; }
  CAM_USB=$(usb_device_of "${CAM_NODE#/dev/}")
  say "camera up in $(elapsed "$t0")s: $CAM_NODE, USB device $CAM_USB"
}
stop_usb_camera() {
  [ -n "${CAM_PID:-}" ] || return 0
  kill "$CAM_PID" 2>/dev/null
  wait "$CAM_PID" 2>/dev/null
  CAM_PID=
}
# Number of "reset ... USB device" lines for device number DEVNUM in the kernel log.
usb_resets() {
  dmesg | grep -cE "reset [a-z-]+ USB device number $1 using" || true
}
