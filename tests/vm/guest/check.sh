#!/bin/bash
# camcap --check against real drivers, each case then proven by what the element does:
#   output-first  vivid with an output-only node as /dev/video0 and a camera as /dev/video1:
#                 "no", naming the camera's node; "ok" once a link /dev/video-1 names the camera
#   contiguous    vivid on videobuf2-dma-contig: udmabuf's scattered pages refused at
#                 VIDIOC_QBUF, the DMA heap or DRM dumb buffers imported; the source the check
#                 names is the one the recording through the element really uses
#   usb           the USB camera through uvcvideo: "ok", memfd refused as by every real driver
# check.sh CASE... (default: all three)
. "$(dirname "$0")/lib.sh"
need_camcap "camcap --check" --check || finish

# run_check NAME ARGS...: camcap --check, report in $OUT/NAME.txt; sets CHECK_STATUS, CHECK.
run_check() {
  local name=$1; shift
  local t0; t0=$(now)
  "$CAMCAP" --check "$@" > "$OUT/$name.txt" 2> "$OUT/$name.err"
  CHECK_STATUS=$?
  CHECK=$OUT/$name.txt
  say "camcap --check $* -> exit $CHECK_STATUS in $(elapsed "$t0")s"
  cat "$CHECK"
}
# line KEY: the verdict line of the report (its first line for KEY).
line() { grep -m1 "^$1 " "$CHECK"; }
# source_of TEXT: the memory source a report's text names.
taken_source() { line memory | sed -n 's/.*the element takes \(the DMA heap\|udmabuf\|DRM dumb buffers\|memfd\).*/\1/p'; }
source_name() {
  case $1 in "the DMA heap") echo dma-heap ;; "DRM dumb buffers") echo drm ;; *) echo "$1" ;; esac
}

case_output_first() {
  modprobe vivid n_devs=2 node_types=0x100,0x1 || { fail "vivid loads with an output node first"; return; }
  run_check output-first
  check_eq "output first: the check says no (exit 10)" 10 "$CHECK_STATUS"
  check_eq "output first: the verdict names the camera's node" \
    "verdict    no: /dev/video0 is an output device (vivid), not a camera; the camera is /dev/video1, which the element does not open" \
    "$(line verdict)"
  # The fix of docs/deploying.md: a link named video-1 sorts before every kernel node.
  ln -s video1 /dev/video-1
  run_check output-first-linked
  check_eq "output first, camera linked as /dev/video-1: the check says ok (exit 0)" 0 "$CHECK_STATUS"
  check "output first, camera linked: the element's node is the link" \
    grep -qE "^ +/dev/video-1 -> /dev/video1  capture \(the element's\)" "$CHECK"
  rm -f /dev/video-1
  modprobe -r vivid
}

case_contiguous() {
  modprobe vivid n_devs=1 allocators=1 || { fail "vivid loads with allocators=1"; return; }
  modprobe vgem
  test -c /dev/udmabuf || { skip "dma-contig check" "this kernel has no /dev/udmabuf"; modprobe -r vivid; return; }
  # Scattered free pages, so that udmabuf's are not contiguous by chance (see vivid-contiguous).
  "$PROBE" --fragment-mb 32 > "$OUT/fragment.log" &
  local holder=$!
  for _ in $(seq 100); do grep -q fragmented "$OUT/fragment.log" && break; sleep 0.1; done
  run_check contiguous --format h264 --size 640x480
  check "dma-contig: udmabuf refused at VIDIOC_QBUF" grep -qE "^ +udmabuf: /dev/udmabuf refused at VIDIOC_QBUF \(EFAULT" "$CHECK"
  say "imported: $(grep -oE "^ +(dma-heap|drm|udmabuf): .* imported" "$CHECK" | sed 's/:.*//' | tr -d ' ' | xargs)"
  local taken; taken=$(source_name "$(taken_source)")
  # What the check says of the element's source is what the element then does: imported,
  # the recording runs from it; refused, the recording fails to set up capture.
  if line memory | grep -q "^memory +ok"; then
    check "dma-contig: the recording used $taken, as the check said" \
      grep -qE "^recording +ok .*memory from $taken\$" "$CHECK"
  else
    check "dma-contig: $taken refused at VIDIOC_QBUF" grep -qE "^memory +no +the element takes .* refuses at VIDIOC_QBUF" "$CHECK"
    check "dma-contig: so the element could not set up capture" grep -qE "^recording +no +the element could not set up capture" "$CHECK"
    # When another source is imported, the fix names it, and with it the element records.
    local fixed; fixed=$(sed -n 's/.*fix: MEDIAMEM_SOURCE=\([a-z-]*\) makes.*/\1/p' "$CHECK")
    if [ -n "$fixed" ]; then
      MEDIAMEM_SOURCE=$fixed run_check contiguous-fixed --format h264 --size 640x480
      check_eq "dma-contig: with MEDIAMEM_SOURCE=$fixed the check says ok" 0 "$CHECK_STATUS"
      check "dma-contig: the recording used $fixed, as the check said" \
        grep -qE "^recording +ok .*memory from $fixed\$" "$CHECK"
    fi
  fi
  kill "$holder"; wait "$holder" 2>/dev/null
  modprobe -r vivid
}

case_usb() {
  start_usb_camera --formats yuyv,mjpeg,h264 --sizes 640x480 || { fail "USB camera enumerates"; return; }
  run_check usb
  check_eq "usb: the check says ok (exit 0)" 0 "$CHECK_STATUS"
  check "usb: verdict ok on the uvcvideo node" grep -qE "^verdict +ok: $CAM_NODE \(uvcvideo, [0-9a-f]{4}:[0-9a-f]{4}\) records h264 640x480" "$CHECK"
  check "usb: the real driver refuses memfd" grep -qE "^ +memfd: refused at VIDIOC_QBUF \(EINVAL" "$CHECK"
  check "usb: the USB reset is permitted to root" grep -qE "^ +USB reset: permitted \($CAM_USB\)" "$CHECK"
  check "usb: the kernel takes this build's struct v4l2_buffer" grep -qE "struct v4l2_buffer .*: the kernel takes it" "$CHECK"
  if grep -q "not decoded (this camcap was built without" "$CHECK"; then
    skip "usb: the recording decodes whole" "camcap was built without libavformat"
  else
    check "usb: the recording decodes whole" grep -qE "^recording +ok .* ([0-9]+) of \1 frames decode" "$CHECK"
  fi
  if ! test -c /dev/dma_heap/system && ! test -c /dev/udmabuf; then
    # A kernel without either (Debian's armmp): DRM dumb buffers, and nothing else, work.
    check "usb: no DMA heap here" grep -qE "^ +dma-heap: not available here" "$CHECK"
    check "usb: no udmabuf here" grep -qE "^ +udmabuf: /dev/udmabuf not available here" "$CHECK"
    check "usb: DRM dumb buffers imported" grep -qE "^ +drm: /dev/dri/card[0-9]+ imported" "$CHECK"
    check "usb: the element records from DRM dumb buffers" grep -qE "^verdict +ok: .* from DRM dumb buffers \(card[0-9]+\)" "$CHECK"
  fi
  stop_usb_camera
}

# vgem gives DRM dumb buffers on kernels without a display driver.
modprobe vgem 2>/dev/null
for c in "${@:-output-first contiguous usb}"; do
  for one in $c; do
    case $one in
      output-first) case_output_first ;;
      contiguous) case_contiguous ;;
      usb) case_usb ;;
      *) fail "unknown case $one" ;;
    esac
  done
done
finish
