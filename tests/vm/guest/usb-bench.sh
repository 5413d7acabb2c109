#!/bin/bash
# camcap beside GStreamer, FFmpeg and a bare DMA-BUF loop on the same USB camera through
# uvcvideo, in one boot: bench/peers.sh, whose rows are total CPU per frame and per frame
# once started (runs of two lengths, medians), each consumer's rusage. H.264 and MJPEG
# 640x480 passed through (then measured once more from outside with GNU time: the table
# must agree within 20 %), NV12 encoded to H.264 by camcap and by GStreamer's openh264enc.
# BENCH_RUNS (default 3), BENCH_FRAMES (default 300/30), BENCH_RAW_FRAMES (default 40/10);
# BENCH_CODED=0 or BENCH_RAW=0 leaves that half out, BENCH_PEERS narrows the consumers
# (peers.sh --peers); BENCH_GOALS=1 holds camcap's
# passthrough rows to the goals (check_goals).
. "$(dirname "$0")/lib.sh"
PEERS=$(dirname "$0")/../../../bench/peers.sh
[ -x "$BIN/cpu_time" ] && [ -x "$BIN/bare_capture" ] || { skip "benchmark" "bench/ is not built"; finish; }
need_camcap "benchmark" --frames --format --size --output --no-progress || finish
runs=${BENCH_RUNS:-3}
# Recordings go to the guest's tmpfs: a DMA-BUF mapping cannot be written to a 9p file
# (the bare loop's write answers EFAULT), and every consumer should write to the same kind.
export BENCH_DIR=/tmp/peers-bench

# check_rows WHAT FILE PEER...: a row for every consumer, and every verification agrees.
check_rows() {
  local what=$1 file=$2 peer; shift 2
  for peer in "$@"; do
    check "$what: $peer measured" grep -q "^BENCH [a-z0-9]* [0-9x]* $peer " "$file"
  done
  while read -r line; do
    case $line in *agrees) pass "${line#BENCH-VERIFY }" ;; *) fail "${line#BENCH-VERIFY }" ;; esac
  done < <(grep '^BENCH-VERIFY' "$file")
}

: > "$OUT/bench-coded.txt"
: > "$OUT/bench-raw.txt"
if [ "${BENCH_CODED:-1}" != 0 ]; then
  # check_goals FILE: camcap passes through at most 0.75x the best peer's total CPU per frame
# and 2.5x the bare loop's, and once started at most the best peer's (peers.sh's ratios).
check_goals() {
  local fmt line
  for fmt in h264 mjpeg; do
    line=$(grep "^BENCH-RATIO $fmt " "$1")
    if [ -n "$line" ] && awk '{ for (i = 5; i <= NF; i++) { split($i, kv, "="); r[kv[1]] = kv[2] } }
        END { exit !(r["total/best"] <= 0.75 && r["started/best"] <= 1 && r["total/bare"] != "-" &&
                     r["total/bare"] <= 2.5) }' <<< "$line"; then
      pass "goals: ${line#BENCH-RATIO }"
    else
      fail "goals: ${line:-no ratios for $fmt}"
    fi
  done
}

start_usb_camera --formats h264,mjpeg --sizes 640x480 || { fail "USB camera enumerates"; finish; }
  bash "$PEERS" --device "$CAM_NODE" --bin "$BIN" --runs "$runs" --frames "${BENCH_FRAMES:-300/30}" \
    --coded h264:640x480,mjpeg:640x480 --raw "" --verify ${BENCH_PEERS:+--peers "$BENCH_PEERS"} > "$OUT/bench-coded.txt" 2>&1
  check_rows "passthrough" "$OUT/bench-coded.txt" camcap gst ffmpeg bare
  [ "${BENCH_GOALS:-0}" = 1 ] && check_goals "$OUT/bench-coded.txt"
  stop_usb_camera
  for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done
fi

# Raw pictures crawl through the emulated bus: a small size at a low rate
# (BENCH_RAW_SIZE, BENCH_RAW_FPS).
raw_size=${BENCH_RAW_SIZE:-320x240}
if [ "${BENCH_RAW:-1}" != 0 ]; then
  start_usb_camera --formats nv12 --sizes "$raw_size" --fps "${BENCH_RAW_FPS:-10}" || { fail "NV12 camera enumerates"; finish; }
  bash "$PEERS" --device "$CAM_NODE" --bin "$BIN" --runs "$runs" --raw-frames "${BENCH_RAW_FRAMES:-40/10}" \
    --coded "" --raw "nv12:$raw_size" ${BENCH_PEERS:+--peers "$BENCH_PEERS"} > "$OUT/bench-raw.txt" 2>&1
  check_rows "encoding" "$OUT/bench-raw.txt" camcap gst
  stop_usb_camera
fi
rm -rf "$BENCH_DIR"
grep -h -v '^BENCH' "$OUT/bench-coded.txt" "$OUT/bench-raw.txt" | tee "$OUT/bench.txt"
finish
