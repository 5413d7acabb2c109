#!/bin/bash
# The camera goes away while camcap records: first a USB reset of the device
# (USBDEVFS_RESET, uvcvideo unbinds and binds again), then the camera program is killed
# (the device leaves the bus). Each time camcap must notice within its stall timeout,
# say "camera unplugged" and exit 8, the element's stop() must return promptly, the file
# must hold only whole frames, and once the camera is back a new recording must work.
# shellcheck source=tests/vm/guest/lib.sh
. "$(dirname "$0")/lib.sh"
need_camcap "unplug while recording" --duration --format --size --output --stall-timeout || finish

start_usb_camera --formats yuyv,mjpeg,h264 --sizes 640x480 || { fail "USB camera enumerates"; finish; }
pass "USB camera enumerates as $CAM_NODE on $CAM_USB"

record_seconds=15
stall_timeout=5

# The two ways the camera goes away, called by name (HOW below).
# shellcheck disable=SC2317
reset_camera() { usbreset "${CAM_USB#/dev/bus/usb/}" > "$OUT/usbreset.log" 2>&1; }
# shellcheck disable=SC2317
kill_camera() { kill -KILL "$CAM_PID"; wait "$CAM_PID" 2>/dev/null; CAM_PID=; }

# lose_camera NAME FORMAT DEMUXER HOW: records, takes the camera away with the function HOW,
# checks.
lose_camera() {
  local name=$1 fmt=$2 demuxer=$3 how=$4
  local file=$OUT/$name.out log=$OUT/$name.log
  rm -f "$file"  # camcap refuses to overwrite a recording
  "$CAMCAP" -v --format "$fmt" --size 640x480 --duration "$record_seconds" --stall-timeout "$stall_timeout" \
    --output "$file" \
    > "$OUT/$name.stdout" 2> >(stamp_lines > "$log") &
  local pid=$!
  wait_frames "$log"
  say "$name: $how while camcap records ($(stat -c %s "$file") bytes so far)"
  "$how"
  local lost_at ended_at
  read -r lost_at _ < /proc/uptime
  for _ in $(seq 300); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
  if kill -0 "$pid" 2>/dev/null; then
    fail "$name: camcap ends after its ${record_seconds}s" "still running 30 s after the camera went away"
    kill -INT "$pid"; sleep 5; kill -KILL "$pid" 2>/dev/null
  fi
  wait "$pid"
  local status=$?
  read -r ended_at _ < /proc/uptime
  sleep 0.5  # the stamping reader finishes the log
  check_eq "$name: camcap stops with exit 8" 8 "$status"
  check "$name: camcap says the camera was unplugged" grep -qF "camera unplugged" "$log"
  check "$name: camcap ends within the stall timeout + 2 s" \
    awk -v a="$lost_at" -v b="$ended_at" -v s="$stall_timeout" 'BEGIN { exit !(b - a < s + 2) }'
  local stop_seconds
  stop_seconds=$(awk '/v4l2 stop begin/ { b = $1 } /v4l2 stop end/ { e = $1 }
                      END { if (b && e) printf "%.1f", e - b; else print "none" }' "$log")
  check "$name: stop() returns within 5 s (${stop_seconds}s)" \
    awk -v t="$stop_seconds" 'BEGIN { exit !(t != "none" && t < 5) }'
  grep -a "summary" "$log"
  expect_decode "$name: only whole frames" "$file" "$demuxer" 1 $((record_seconds * 30))
}
# back_again NAME: the camera returns and records again.
back_again() {
  local node
  node=$(wait_uvc_node 60)
  check "$1: the camera is back (${node:-none})" test -n "$node"
  record "$1-again" --format h264 --size 640x480 --duration 3
  check_eq "$1: a new recording works" 0 "$REC_STATUS"
  expect_decode "$1: the new recording" "$REC_FILE" h264 2 200
}

devnum=$((10#${CAM_USB##*/}))
lose_camera reset-h264 h264 h264 reset_camera
check "reset-h264: the kernel reset USB device $devnum" test "$(usb_resets "$devnum")" -ge 1
back_again reset-h264

# The camera program dies while the element encodes YUYV: a camera without H.264, so
# that the element takes YUYV, and at a low rate, so that the raw pictures leave the one
# emulated CPU time to encode.
stop_usb_camera
for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done
start_usb_camera --formats yuyv,mjpeg --sizes 640x480 --fps 5 || { fail "YUYV camera enumerates"; finish; }
lose_camera kill-yuyv yuyv h264 kill_camera
check "kill-yuyv: encoded from yuyv" grep -qF "recording h264 (encoded from yuyv)" "$OUT/kill-yuyv.log"
for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done
check "kill-yuyv: the camera left the bus" sh -c "! ls /sys/bus/usb/devices/1-1 >/dev/null 2>&1"
start_usb_camera --formats yuyv,mjpeg --sizes 640x480 --fps 5 \
  || fail "kill-yuyv: the camera program starts again"
back_again kill-yuyv
stop_usb_camera
finish
