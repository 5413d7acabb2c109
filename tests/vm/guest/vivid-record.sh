#!/bin/bash
# vivid (the kernel's virtual capture driver) recorded through camcap: the element
# imports DMA-BUF capture buffers from the allocator under test (ALLOC: heap, udmabuf or
# drm: vgem's dumb buffers, what stock kernels without either offer) and encodes the raw
# pictures to H.264. Each recording must decode frame for frame, with as many frames as
# its duration at vivid's frame rate (within 10 %; VM_VIVID_MIN_PERCENT lowers the floor
# where the emulated CPU is the bottleneck). VM_VIVID_CASES: FORMAT:SIZE:FPS list.
#   vivid-record.sh heap|udmabuf|drm
. "$(dirname "$0")/lib.sh"
alloc=${1:?heap, udmabuf or drm}
duration=${VM_RECORD_SECONDS:-8}

modprobe vivid n_devs=1 || { fail "vivid loads"; finish; }
case $alloc in
  heap)
    want=dma-heap
    test -c /dev/dma_heap/system || { skip "DMA heap recordings" "this kernel has no /dev/dma_heap/system"; finish; } ;;
  udmabuf)
    want=udmabuf
    # The element takes the first source that works: hide the heaps (root ignores modes).
    mount -t tmpfs tmpfs /dev/dma_heap 2>/dev/null
    test -c /dev/udmabuf || { skip "udmabuf recordings" "this kernel has no /dev/udmabuf"; finish; } ;;
  drm)
    want=drm
    modprobe vgem || { skip "DRM dumb-buffer recordings" "this kernel has no vgem"; finish; }
    export MEDIAMEM_SOURCE=drm ;;
  *) fail "allocator '$alloc' known"; finish ;;
esac
need_camcap "vivid recordings" --duration --format --size --output || finish
node=/dev/video0
check_eq "vivid's capture node is $node" vivid-000-vid-cap "$(cat /sys/class/video4linux/video0/name)"

# The element's format list is the camera's, less what it cannot use.
if [ "$alloc" = heap ] && need_camcap "vivid format list" --list-formats; then
  "$CAMCAP" --list-formats > "$OUT/formats.camcap" 2> "$OUT/formats.log"
  check_eq "camcap --list-formats succeeds" 0 $?
  awk '$2 ~ /^[0-9]+$/ { print $1, $2, $3 }' "$OUT/formats.camcap" > "$OUT/formats.element"
  v4l2-ctl -d "$node" --list-formats-ext > "$OUT/formats.v4l2"
  awk -f "$(dirname "$0")/v4l2-formats.awk" "$OUT/formats.v4l2" > "$OUT/formats.expected"
  check "the element lists what VIDIOC_ENUM_FMT/FRAMESIZES report ($(wc -l < "$OUT/formats.expected") entries)" \
    diff -u "$OUT/formats.expected" "$OUT/formats.element"
fi

# vivid offers NV12 and YUYV at every size, and the element, asked for H.264, takes NV12
# whenever the camera has it: YUYV cannot be chosen on vivid. The USB camera, which has
# no NV12, covers YUYV.
skip "vivid YUYV recordings" "the element prefers NV12, which vivid always offers; YUYV is recorded from the USB camera"

# Rates the emulated CPU encodes without falling behind, with room for a busy host.
for case in ${VM_VIVID_CASES:-nv12:640x480:15 nv12:1280x720:5}; do
  IFS=: read -r fmt size fps <<< "$case"
  w=${size%x*} h=${size#*x}
  name=vivid-$alloc-$fmt-$size
  # The element keeps the camera's frame interval: set it first, at the size it will use.
  v4l2-ctl -d "$node" --set-fmt-video="width=$w,height=$h,pixelformat=${fmt^^}" -p "$fps" >/dev/null
  parm=$(v4l2-ctl -d "$node" --get-parm | sed -n 's/.*Frames per second: \([0-9.]*\).*/\1/p')
  check_eq "$name: vivid runs at $fps fps" "$fps.000" "$parm"
  record "$name" --format "$fmt" --size "$size" --duration "$duration"
  check_eq "$name: camcap succeeds" 0 "$REC_STATUS"
  check "$name: capture memory from $want" grep -q "DMA-BUF capture memory from $want" "$REC_LOG"
  check "$name: encoded from $fmt" grep -q "recording h264 (encoded from $fmt) ${w}x$h" "$REC_LOG"
  frames=$(awk -v d="$duration" -v r="$fps" 'BEGIN { printf "%d", d * r }')
  expect_decode "$name (${duration}s at $fps fps)" "$REC_FILE" h264 \
    $((frames * ${VM_VIVID_MIN_PERCENT:-90} / 100)) $((frames + frames / 10))
  grep -a "summary" "$REC_LOG"
done
finish
