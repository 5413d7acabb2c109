#!/bin/bash
# CPU per frame of camcap against a bare DMA-BUF capture loop (bench/bare_capture.cpp), on
# the same USB camera through uvcvideo in one boot: H.264 and MJPEG passed through, NV12
# encoded to H.264 by the element. Both write to a file on the guest's tmpfs. The figure
# is the consumer's user + system time once it is set up (bash's `times` over its own
# subshell, less what /proc showed when capture began) divided by the frames it wrote;
# the ratio camcap / bare is what to compare between runs.
# BENCH_FRAMES (default 150) frames per passthrough run, a fifth of it for NV12;
# BENCH_CAMCAP_ARGS (default --no-progress) extra camcap options.
. "$(dirname "$0")/lib.sh"
frames=${BENCH_FRAMES:-150}
raw_frames=$((frames / 5))
camcap_args=${BENCH_CAMCAP_ARGS---no-progress}
BARE=$BIN/bare_capture
[ -x "$BARE" ] || { skip "benchmark" "$BARE is not built"; finish; }
need_camcap "benchmark" --frames --format --size --output --no-progress || finish

# cpu_ns PID: nanoseconds of CPU the process's threads have used so far (the scheduler's
# own count, finer than the clock ticks of /proc/PID/stat).
cpu_ns() { cat /proc/"$1"/task/*/schedstat 2>/dev/null | awk '{ n += $1 } END { printf "%d", n }'; }

# cpu_us STARTED COMMAND...: runs it; CPU_US = its user + system microseconds from the
# moment its log (bench-run.log) first shows STARTED (empty: from its start), so that
# loading Qt and the plug-in is not charged to the frames. RUN_STATUS = its exit.
cpu_us() {
  local started=$1; shift
  local t
  t=$(
    : > "$OUT/bench-run.log"
    "$@" > "$OUT/bench-run.stdout" 2> "$OUT/bench-run.log" &
    pid=$! setup=0
    if [ -n "$started" ]; then
      until grep -q -- "$started" "$OUT/bench-run.log" || ! kill -0 "$pid" 2>/dev/null; do
        sleep 0.05
      done
      setup=$(cpu_ns "$pid")
    fi
    wait "$pid"
    echo "status $? setup $setup"
    times
  )
  RUN_STATUS=$(sed -n 's/^status \([0-9]*\).*/\1/p' <<< "$t")
  local setup_ns
  setup_ns=$(sed -n 's/^status .* setup //p' <<< "$t")
  # `times` prints the subshell's children as "0m1.234s 0m0.567s"; their sum is the
  # scheduler's count too (only the split between user and system is sampled).
  CPU_US=$(tail -n 1 <<< "$t" | awk -v setup="$setup_ns" '{
    split($1, u, /[ms]/); split($2, s, /[ms]/)
    printf "%d", (u[1] * 60 + u[2] + s[1] * 60 + s[2]) * 1e6 - setup / 1e3 }')
  cat "$OUT/bench-run.log" >> "$OUT/bench.log"
}

# bench LABEL FORMAT SIZE FRAMES: camcap, then the bare loop, same settings.
bench() {
  local label=$1 fmt=$2 size=$3 n=$4 sink=/tmp/bench.out
  rm -f "$sink"  # the overlay shows the host's /tmp, and camcap refuses to overwrite
  cpu_us "camcap: recording" "$CAMCAP" $camcap_args --format "$fmt" --size "$size" --frames "$n" --output "$sink"
  local camcap_status=$RUN_STATUS camcap_us=$((CPU_US / n))
  cpu_us "" "$BARE" --device "$CAM_NODE" --format "$fmt" --size "$size" --frames "$n" --output "$sink"
  local bare_status=$RUN_STATUS bare_us=$((CPU_US / n))
  rm -f "$sink"
  check_eq "$label: camcap records $n frames" 0 "$camcap_status"
  check_eq "$label: bare loop captures $n frames" 0 "$bare_status"
  local ratio
  ratio=$(awk -v a="$camcap_us" -v b="$bare_us" 'BEGIN { if (b > 0) printf "%.2f", a / b; else print "-" }')
  echo "BENCH $label: camcap $camcap_us us/frame, bare loop $bare_us us/frame, ratio ${ratio}x" \
    | tee -a "$OUT/bench.txt"
}

: > "$OUT/bench.txt"
start_usb_camera --formats h264,mjpeg --sizes 640x480 || { fail "USB camera enumerates"; finish; }
bench "h264 640x480 passthrough" h264 640x480 "$frames"
bench "mjpeg 640x480 passthrough" mjpeg 640x480 "$frames"
stop_usb_camera
for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done

# Raw pictures crawl through the emulated bus; a small size at a low rate keeps the camera
# from starving the one CPU both consumers run on.
start_usb_camera --formats nv12 --sizes 320x240 --fps 10 || { fail "NV12 camera enumerates"; finish; }
bench "nv12 320x240 encoded" nv12 320x240 "$raw_frames"
stop_usb_camera
finish
