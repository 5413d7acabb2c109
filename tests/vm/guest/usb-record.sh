#!/bin/bash
# Recording from a USB camera through the real uvcvideo driver: MJPEG and H.264 are
# passed through, YUYV is encoded to H.264 by the element, at 640x480 from DMA-heap
# buffers and at 1280x720 from udmabuf buffers (VM_USB_YUYV_CASES: SIZE:SOURCE list; drm
# on kernels without either). Every recording must decode frame for
# frame. (Through the emulated bus a raw picture moves slowly, so frame counts are not
# held to the camera's rate here; vivid checks the rate.)
. "$(dirname "$0")/lib.sh"
duration=${VM_RECORD_SECONDS:-5}
need_camcap "USB recordings" --duration --format --size --output || finish
# The source the element picks unforced: the heap, or vgem's dumb buffers on a kernel without.
if test -c /dev/dma_heap/system; then first=dma-heap; else modprobe vgem; first=drm; fi

# A camera with H.264: asked for H.264 the element takes the camera's own stream, so
# only the coded formats are recorded from it.
start_usb_camera --formats yuyv,mjpeg,h264 --sizes 640x480 || { fail "USB camera enumerates"; finish; }
pass "USB camera enumerates as $CAM_NODE"
for case in mjpeg:mjpeg:mjpeg h264:h264:h264; do
  IFS=: read -r fmt demuxer delivered <<< "$case"
  name=usb-$fmt-640x480
  record "$name" --format "$fmt" --size 640x480 --duration "$duration"
  check_eq "$name: camcap succeeds" 0 "$REC_STATUS"
  check "$name: recording $delivered, passed through" grep -qF "recording $delivered 640x480" "$REC_LOG"
  check "$name: capture memory from $first" grep -q "DMA-BUF capture memory from $first" "$REC_LOG"
  expect_decode "$name" "$REC_FILE" "$demuxer" 5 $((duration * 30 + 10))
  grep -a "summary" "$REC_LOG"
done
stop_usb_camera
for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done

# A camera with YUYV and MJPEG only (the element prefers any H.264 or NV12 to YUYV, and
# YUYV to MJPEG): YUYV at two sizes, encoded by the element; 1280x720 from udmabuf. At a
# low rate: raw pictures through the emulated bus take most of the one emulated CPU, and
# the element's encoder needs the rest.
start_usb_camera --formats yuyv,mjpeg --sizes 640x480,1280x720 --fps 3 \
  || { fail "YUYV camera enumerates"; finish; }
for case in ${VM_USB_YUYV_CASES:-640x480:heap 1280x720:udmabuf}; do
  IFS=: read -r size alloc <<< "$case"
  name=usb-yuyv-$size-$alloc
  [ "$alloc" = udmabuf ] && mount -t tmpfs tmpfs /dev/dma_heap
  if [ "$alloc" = drm ]; then
    MEDIAMEM_SOURCE=drm record "$name" --format yuyv --size "$size" --duration "$duration"
  else
    record "$name" --format yuyv --size "$size" --duration "$duration"
  fi
  [ "$alloc" = udmabuf ] && umount /dev/dma_heap
  check_eq "$name: camcap succeeds" 0 "$REC_STATUS"
  check "$name: recording h264 encoded from yuyv" grep -qF "recording h264 (encoded from yuyv) $size" "$REC_LOG"
  check "$name: capture memory from ${alloc/heap/dma-heap}" \
    grep -q "DMA-BUF capture memory from ${alloc/heap/dma-heap}" "$REC_LOG"
  # Raw pictures crawl through the emulated bus while the element encodes on the same
  # emulated CPU: a few frames are enough to show the path works.
  expect_decode "$name" "$REC_FILE" h264 2 $((duration * 3 + 5))
  grep -a "summary" "$REC_LOG"
done
stop_usb_camera
finish
