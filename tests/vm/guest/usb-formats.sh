#!/bin/bash
# The element's format list for a real uvcvideo camera equals what the driver reports
# (VIDIOC_ENUM_FMT / ENUM_FRAMESIZES as v4l2-ctl prints them) for the pixel formats the
# element uses, in the driver's order, for two camera configurations.
. "$(dirname "$0")/lib.sh"
need_camcap "USB camera format lists" --list-formats || finish

compare() {  # NAME CAMERA-ARGS...
  local name=$1; shift
  start_usb_camera "$@" || { fail "$name: camera enumerates"; return; }
  "$CAMCAP" --list-formats > "$OUT/$name.camcap" 2> "$OUT/$name.log"
  check_eq "$name: camcap --list-formats succeeds" 0 $?
  awk '$2 ~ /^[0-9]+$/ { print $1, $2, $3 }' "$OUT/$name.camcap" > "$OUT/$name.element"
  v4l2-ctl -d "$CAM_NODE" --list-formats-ext > "$OUT/$name.v4l2"
  awk -f "$(dirname "$0")/v4l2-formats.awk" "$OUT/$name.v4l2" > "$OUT/$name.expected"
  echo "$name: $(paste -sd, "$OUT/$name.expected")"
  check "$name: the element lists exactly what uvcvideo reports" \
    diff -u "$OUT/$name.expected" "$OUT/$name.element"
  check "$name: the list is not empty" test -s "$OUT/$name.expected"
  # The kernel driver's own answers to the compliance suite, for the simulated camera's
  # list of differences (sim/README.md): kept, and its totals shown, not judged here.
  if [ "$name" = three-formats ] && command -v v4l2-compliance > /dev/null; then
    v4l2-compliance -d "$CAM_NODE" -s > "$OUT/$name.compliance" 2>&1
    echo "$name: uvcvideo under v4l2-compliance -s: $(grep 'Total for' "$OUT/$name.compliance")"
  fi
  stop_usb_camera
  # The next camera must not be confused with this one's leftovers.
  for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done
}
compare three-formats --formats yuyv,mjpeg,h264 --sizes 640x480
compare two-sizes --formats nv12,mjpeg --sizes 640x480,320x240
finish
