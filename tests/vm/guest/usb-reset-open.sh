#!/bin/bash
# The capture node is gone (renamed away) while the USB camera is still on the bus: the
# element's open fails and the USB reset it queues must reach the camera's own
# /dev/bus/usb/BBB/DDD; the kernel then re-enumerates it and the node comes back.
. "$(dirname "$0")/lib.sh"

start_usb_camera || { fail "USB camera enumerates"; finish; }
pass "USB camera enumerates as $CAM_NODE on $CAM_USB"
devnum=$((10#${CAM_USB##*/}))

# Every /dev/video* goes: the element opens the lowest-numbered node, and with only the
# capture node gone it would open uvcvideo's metadata node and fail without a reset.
hide_nodes() {
  mkdir -p /dev/hidden
  rm -f /dev/hidden/*
  local n
  for n in /dev/video*; do mv "$n" /dev/hidden/; done
}
# wait_resets COUNT SECONDS: until the kernel logged COUNT resets of the camera.
wait_resets() {
  local end=$(( $(date +%s) + $2 ))
  while [ "$(usb_resets "$devnum")" -lt "$1" ] && [ "$(date +%s)" -lt "$end" ]; do sleep 0.2; done
  [ "$(usb_resets "$devnum")" -ge "$1" ]
}

# --- through the element, with an event loop that keeps running after play() ---
hide_nodes
before=$(usb_resets "$devnum")
"$PROBE" --attempts 1 --settle-ms 3000 > "$OUT/probe.stdout" 2> "$OUT/probe.log"
cat "$OUT/probe.stdout"
check "play() fails without a capture node" grep -q "play 1 of 1: -1" "$OUT/probe.stdout"
check "the element logs the failed open" grep -q "open camera failed" "$OUT/probe.log"
check "the queued reset ran: USBDEVFS_RESET returned 0" grep -qE "resetUsbCamera +result = 0" "$OUT/probe.log"
check "the kernel reset USB device $devnum" wait_resets $((before + 1)) 10
dmesg | grep -E "usb 1-1|uvcvideo" | tail -4
node=$(wait_uvc_node 30)
check "the camera comes back with a capture node (${node:-none})" test -n "$node"
check_eq "the camera keeps its USB address" "$CAM_USB" "$(usb_device_of "${node#/dev/}" 2>/dev/null)"
check "the camera streams again" \
  timeout 30 v4l2-ctl -d "${node:-/dev/video0}" --stream-mmap --stream-count=10 --stream-to=/dev/null
check_eq "no further reset" $((before + 1)) "$(usb_resets "$devnum")"

# --- through camcap: with no node it finds no camera and does not call play() ---
if need_camcap "camcap without a capture node" --duration; then
  hide_nodes
  record camcap-no-node --format h264 --size 640x480 --duration 2
  check_eq "camcap exits with 'no camera'" 4 "$REC_STATUS"
  mv /dev/hidden/* /dev/
fi
stop_usb_camera
finish
