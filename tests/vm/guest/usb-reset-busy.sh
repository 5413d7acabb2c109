#!/bin/bash
# Another process holds the camera's buffer queue (v4l2-ctl streaming), so every play()
# is refused at VIDIOC_S_FMT with EBUSY. The element resets the USB camera after five
# refusals in a row: four attempts queue none, five queue exactly one.
. "$(dirname "$0")/lib.sh"

start_usb_camera || { fail "USB camera enumerates"; finish; }
pass "USB camera enumerates as $CAM_NODE on $CAM_USB"
devnum=$((10#${CAM_USB##*/}))

streams_started() { grep -c "uvc-gadget-camera: streaming" "$OUT/camera.log" || true; }
started=$(streams_started)
v4l2-ctl -d "$CAM_NODE" --stream-mmap --stream-count=1000000 --stream-to=/dev/null \
  > "$OUT/holder.log" 2>&1 &
holder=$!
for _ in $(seq 100); do [ "$(streams_started)" -gt "$started" ] && break; sleep 0.2; done
check "another process streams from the camera" test "$(streams_started)" -gt "$started"

attempts() {  # N LOG: N play() calls in one process
  "$PROBE" --attempts "$1" --settle-ms 500 > "$OUT/$2.stdout" 2> "$OUT/$2.log"
  cat "$OUT/$2.stdout"
}
busy_line="set format failed ret Device or resource busy"
reset_line="resetUsbCamera +result ="

before=$(usb_resets "$devnum")
attempts 4 four
check "four attempts: all refused" grep -q "play failures: 4 of 4" "$OUT/four.stdout"
check_eq "four attempts: four EBUSY refusals" 4 "$(grep -c "$busy_line" "$OUT/four.log")"
check_eq "four attempts: no reset" 0 "$(grep -cE "$reset_line" "$OUT/four.log")"
check_eq "four attempts: the kernel saw no reset" "$before" "$(usb_resets "$devnum")"
check "the holder still streams" kill -0 "$holder"

attempts 5 five
check "five attempts: all refused" grep -q "play failures: 5 of 5" "$OUT/five.stdout"
check_eq "five attempts: five EBUSY refusals" 5 "$(grep -c "$busy_line" "$OUT/five.log")"
check_eq "five attempts: exactly one reset, result 0" 1 "$(grep -cE "${reset_line} 0" "$OUT/five.log")"
sleep 2
check_eq "five attempts: the kernel reset USB device $devnum once" $((before + 1)) "$(usb_resets "$devnum")"
for _ in $(seq 50); do kill -0 "$holder" 2>/dev/null || break; sleep 0.2; done
check "the reset took the camera from the holder" sh -c "! kill -0 $holder 2>/dev/null"
kill "$holder" 2>/dev/null
wait "$holder" 2>/dev/null
node=$(wait_uvc_node 30)
check "the camera comes back (${node:-none})" test -n "$node"
check "the camera streams again" \
  timeout 30 v4l2-ctl -d "${node:-/dev/video0}" --stream-mmap --stream-count=10 --stream-to=/dev/null
stop_usb_camera
finish
