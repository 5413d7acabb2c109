#!/bin/bash
# vivid with allocators=1 stores capture buffers with videobuf2-dma-contig, like SoC
# capture drivers without an IOMMU: an imported DMA-BUF must be one physically contiguous
# chunk. udmabuf's memory is 4 KiB pages, so every import is refused at VIDIOC_QBUF; the
# element must fail play() cleanly and give back every descriptor. A freshly booted VM
# hands out consecutive pages, so memory is held fragmented meanwhile: no buffer is
# contiguous by chance.
. "$(dirname "$0")/lib.sh"

modprobe vivid n_devs=1 allocators=1 || { fail "vivid loads with allocators=1"; finish; }
# The DMA heap's large chunks can be contiguous by chance; udmabuf's 4 KiB pages hardly.
mount -t tmpfs tmpfs /dev/dma_heap 2>/dev/null
test -c /dev/udmabuf || { skip "imports into dma-contig vivid" "this kernel has no /dev/udmabuf"; finish; }

"$PROBE" --fragment-mb 32 > "$OUT/fragment.log" &
holder=$!
for _ in $(seq 100); do grep -q fragmented "$OUT/fragment.log" && break; sleep 0.1; done
check "memory is fragmented" grep -q fragmented "$OUT/fragment.log"

"$PROBE" --format h264 --size 640x480 --attempts 1 > "$OUT/probe.stdout" 2> "$OUT/probe.log"
cat "$OUT/probe.stdout"
grep -E "enqueue failed|DMA-BUF capture memory" "$OUT/probe.log" | head -3
check "play() returns -1" grep -q "play 1 of 1: -1" "$OUT/probe.stdout"
check "capture memory came from udmabuf" grep -q "DMA-BUF capture memory from udmabuf" "$OUT/probe.log"
check "the element logs the refused import" grep -q "enqueue failed" "$OUT/probe.log"
check "the kernel refused a non-contiguous buffer" sh -c "dmesg | grep -q 'contiguous chunk is too small'"
check_eq "no descriptor left open" "" "$(grep 'leaked descriptor' "$OUT/probe.stdout")"

if need_camcap "camcap on dma-contig vivid" --duration --format; then
  record camcap-contig --format yuyv --size 640x480 --duration 2
  check_eq "camcap exits with 'capture setup failed'" 7 "$REC_STATUS"
  check "camcap's log has the refused import" grep -q "enqueue failed" "$REC_LOG"
fi
kill "$holder"
finish
