#!/bin/bash
# camcap beside the other V4L2 consumers on the same camera, in one run: GStreamer's
# v4l2src, FFmpeg's v4l2 input and a bare DMA-BUF loop (bench/bare_capture) for coded
# formats; GStreamer's openh264enc for raw ones, at the element's encoder settings.
#
#   bench/peers.sh [--simulate] [--device DEV] [--bin DIR] [--runs N] [--frames LONG/SHORT]
#                  [--raw-frames LONG/SHORT] [--coded h264:640x480,...] [--raw nv12:640x480]
#                  [--peers camcap,gst,ffmpeg,bare] [--verify] [--fps N]
#
# Each consumer records FRAMES frames into a file in $BENCH_DIR (default: a fresh
# directory under /tmp); its CPU is the user + system time the shell's `times` reports for
# its child (the process's own rusage, all its threads, start-up included). Two lengths
# give two figures per row: total CPU per frame of the long run, and per frame once
# started, (long - short) / (LONG - SHORT) frames, which leaves start-up and set-up out.
# Each is the median of N runs (default 3), the consumers taking turns within a round.
# --verify then measures every coded row once more from outside (GNU time, after a warm-up
# of SHORT frames) and fails when that differs from the table by more than 20 %.
#
# --simulate preloads the simulated camera (built beside the tools) into every consumer;
# otherwise DEV (default /dev/video0) is a real camera. Lines starting "BENCH" are the
# machine-readable results; the table follows them.
set -u
here=$(cd "$(dirname "$0")" && pwd)
BIN=${BIN:-$here/../build/bin}
device=/dev/video0 runs=3 long=300 short=30 raw_long=150 raw_short=30 verify=0 simulate=0 fps=
coded="h264:640x480,mjpeg:640x480" raw="nv12:640x480" peers="camcap,gst,ffmpeg,bare"
while [ $# -gt 0 ]; do
  case $1 in
    --simulate) simulate=1 ;;
    --verify) verify=1 ;;
    --device) device=$2; shift ;;
    --bin) BIN=$2; shift ;;
    --runs) runs=$2; shift ;;
    --frames) long=${2%/*} short=${2#*/}; shift ;;
    --raw-frames) raw_long=${2%/*} raw_short=${2#*/}; shift ;;
    --coded) coded=$2; shift ;;
    --raw) raw=$2; shift ;;
    --peers) peers=$2; shift ;;
    --fps) fps=$2; shift ;;
    *) echo "usage: see the head of $0" >&2; exit 2 ;;
  esac
  shift
done
BIN=$(cd "$BIN" && pwd) || exit 2
dir=${BENCH_DIR:-$(mktemp -d /tmp/peers.XXXXXX)}
mkdir -p "$dir"
# The element's encoder settings: a key frame every 60 pictures, 7340032 bit/s, rate control.
# openh264enc takes I420 only: videoconvert turns the camera's pictures into it.
gst_encoder="openh264enc gop-size=60 bitrate=7340032 rate-control=bitrate"

have() { command -v "$1" >/dev/null 2>&1; }
with_peer() { case ",$peers," in *",$1,"*) return 0 ;; esac; return 1; }

# command_for PEER FORMAT SIZE FRAMES OUT: the command line, or nothing when the peer
# cannot run here.
command_for() {
  local peer=$1 fmt=$2 size=$3 n=$4 out=$5 w=${3%x*} h=${3#*x}
  case $peer:$fmt in
    camcap:*) [ -x "$BIN/camcap" ] && echo "$BIN/camcap --no-progress --format $fmt --size $size --frames $n --output $out" ;;
    bare:h264 | bare:mjpeg) [ -x "$BIN/bare_capture" ] && echo "$BIN/bare_capture --device $device --format $fmt --size $size --frames $n --output $out" ;;
    gst:h264) have gst-launch-1.0 && echo "gst-launch-1.0 -q v4l2src device=$device num-buffers=$n ! video/x-h264,width=$w,height=$h ! filesink location=$out" ;;
    gst:mjpeg) have gst-launch-1.0 && echo "gst-launch-1.0 -q v4l2src device=$device num-buffers=$n ! image/jpeg,width=$w,height=$h ! filesink location=$out" ;;
    gst:nv12 | gst:yuyv)
      local f; f=$(tr a-z A-Z <<< "$fmt"); [ "$f" = YUYV ] && f=YUY2
      have gst-launch-1.0 && gst-inspect-1.0 openh264enc >/dev/null 2>&1 &&
        echo "gst-launch-1.0 -q v4l2src device=$device num-buffers=$n ! video/x-raw,format=$f,width=$w,height=$h ! videoconvert ! $gst_encoder ! filesink location=$out" ;;
    ffmpeg:h264 | ffmpeg:mjpeg) have ffmpeg && echo "ffmpeg -nostdin -loglevel error -f v4l2 -input_format $fmt -video_size $size -i $device -frames:v $n -c copy -f $fmt -y $out" ;;
  esac
}

# The simulated camera for one format: every consumer gets the same model.
environment_for() {
  [ "$simulate" = 1 ] || return 0
  local model="$1,size=$2${fps:+,fps=$fps}"
  echo "SIMCAM_MODEL=$model LD_PRELOAD=$BIN/../lib/libsimcam.so"
}

# cpu_us ENV COMMAND: runs it; CPU_US = its user + system microseconds, STATUS = its exit.
cpu_us() {
  local u s
  env $1 "$BIN/cpu_time" "$dir/run.cpu" $2 > "$dir/run.out" 2> "$dir/run.err" < /dev/null
  read -r u s STATUS < "$dir/run.cpu" || { u=0 s=0 STATUS=127; }
  CPU_US=$((u + s))
}

median() { tr ' ' '\n' <<< "$*" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

# bench_case FORMAT SIZE LONG SHORT PEERS...: one block of rows.
bench_case() {
  local fmt=$1 size=$2 n_long=$3 n_short=$4; shift 4
  local env peer out n r cmd
  env=$(environment_for "$fmt" "$size")
  local -A longs shorts usable
  for peer in "$@"; do
    out="$dir/$peer.$fmt"
    cmd=$(command_for "$peer" "$fmt" "$size" "$n_short" "$out") || true
    [ -n "$cmd" ] || { echo "BENCH-SKIP $fmt $size $peer: not available here"; continue; }
    rm -f "$out"
    cpu_us "$env" "$cmd"  # warm-up: caches, GStreamer's registry
    if [ "$STATUS" != 0 ] || [ ! -s "$out" ]; then
      echo "BENCH-FAIL $fmt $size $peer: exit $STATUS: $(tail -n 3 "$dir/run.err" | tr '\n' ' ')"
      continue
    fi
    usable[$peer]=1
  done
  for r in $(seq "$runs"); do
    for peer in "$@"; do
      [ -n "${usable[$peer]:-}" ] || continue
      for n in "$n_short" "$n_long"; do
        out="$dir/$peer.$fmt"
        rm -f "$out"
        cpu_us "$env" "$(command_for "$peer" "$fmt" "$size" "$n" "$out")"
        [ "$STATUS" = 0 ] || echo "BENCH-FAIL $fmt $size $peer: run $r, $n frames: exit $STATUS"
        if [ "$n" = "$n_long" ]; then longs[$peer]+="$CPU_US "; else shorts[$peer]+="$CPU_US "; fi
      done
    done
  done
  for peer in "$@"; do
    [ -n "${usable[$peer]:-}" ] || continue
    local l s
    l=$(median ${longs[$peer]}) s=$(median ${shorts[$peer]})
    echo "BENCH $fmt $size $peer total_us=$((l / n_long)) started_us=$(((l - s) / (n_long - n_short))) long_us=$l short_us=$s frames=$n_long/$n_short runs=$runs"
  done
}

# verify_case FORMAT SIZE PEER TOTAL_US: GNU time's rusage over LONG frames after SHORT.
verify_case() {
  local fmt=$1 size=$2 peer=$3 table=$4 env out t
  env=$(environment_for "$fmt" "$size") out="$dir/$peer.$fmt"
  rm -f "$out"
  env $env $(command_for "$peer" "$fmt" "$size" "$short" "$out") > /dev/null 2>&1 < /dev/null
  rm -f "$out"
  t=$(env $env /usr/bin/time -f 'rusage %U %S' $(command_for "$peer" "$fmt" "$size" "$long" "$out") 2>&1 > /dev/null < /dev/null | sed -n 's/^rusage //p')
  awk -v t="$t" -v table="$table" -v n="$long" -v label="$fmt $size $peer" 'BEGIN {
    split(t, f, " "); outside = (f[1] + f[2]) * 1e6 / n
    d = table > 0 ? (outside - table) / table * 100 : 100
    printf "BENCH-VERIFY %s table_us=%d outside_us=%d difference=%+.0f%% %s\n", label, table, outside, d,
           (d <= 20 && d >= -20) ? "agrees" : "DISAGREES"
    exit (d <= 20 && d >= -20) ? 0 : 1 }'
}

results=$dir/results.txt
: > "$results"
IFS=, read -r -a coded_cases <<< "$coded"
IFS=, read -r -a raw_cases <<< "$raw"
coded_peers=() raw_peers=()
for p in camcap gst ffmpeg bare; do with_peer "$p" && coded_peers+=("$p"); done
for p in camcap gst; do with_peer "$p" && raw_peers+=("$p"); done
for c in "${coded_cases[@]}"; do
  [ -n "$c" ] && bench_case "${c%%:*}" "${c#*:}" "$long" "$short" "${coded_peers[@]}" | tee -a "$results"
done
for c in "${raw_cases[@]}"; do
  [ -n "$c" ] && bench_case "${c%%:*}" "${c#*:}" "$raw_long" "$raw_short" "${raw_peers[@]}" | tee -a "$results"
done

# The table: per row, both figures and their ratios to the best other consumer (the
# lowest of GStreamer and FFmpeg) and to the bare loop of the same case; camcap's ratios
# also as "BENCH-RATIO" lines, for a caller to hold to goals.
awk -v ratios="$dir/ratios.txt" '
  /^BENCH / {
    key = $2 " " $3; peer = $4; sub("total_us=", "", $5); sub("started_us=", "", $6)
    if (!(key in seen)) { seen[key] = 1; order[++cases] = key }
    rows[key] = rows[key] " " peer; total[key, peer] = $5 + 0; started[key, peer] = $6 + 0
  }
  function ratio(a, b) { return b > 0 ? sprintf("%.2fx", a / b) : "-" }
  END {
    printf "%-18s %-7s %12s %14s %10s %10s %10s %10s\n", "case", "peer", "total ms/fr", "started ms/fr",
           "tot/peer", "st/peer", "tot/bare", "st/bare"
    for (i = 1; i <= cases; i++) {
      key = order[i]; best = ""
      n = split(rows[key], peers, " ")
      for (j = 1; j <= n; j++) {
        p = peers[j]
        if ((p == "gst" || p == "ffmpeg") && (best == "" || total[key, p] < total[key, best])) best = p
      }
      for (j = 1; j <= n; j++) {
        p = peers[j]
        printf "%-18s %-7s %12.2f %14.2f %10s %10s %10s %10s\n", key, p, total[key, p] / 1000,
               started[key, p] / 1000,
               (best != "" && p != best) ? ratio(total[key, p], total[key, best]) : "",
               (best != "" && p != best) ? ratio(started[key, p], started[key, best]) : "",
               (total[key, "bare"] > 0 && p != "bare") ? ratio(total[key, p], total[key, "bare"]) : "",
               (total[key, "bare"] > 0 && p != "bare") ? ratio(started[key, p], started[key, "bare"]) : ""
        if (p == "camcap" && best != "")
          printf "BENCH-RATIO %s camcap best=%s total/best=%.3f started/best=%.3f total/bare=%s\n", key, best,
                 total[key, p] / total[key, best], started[key, p] / started[key, best],
                 (total[key, "bare"] > 0 ? sprintf("%.3f", total[key, p] / total[key, "bare"]) : "-") > ratios
      }
    }
  }' "$results" | tee "$dir/table.txt"
touch "$dir/ratios.txt"
tee -a "$results" < "$dir/ratios.txt"

status=0
if [ "$verify" = 1 ]; then
  while read -r _ fmt size peer total _; do
    case " ${coded_cases[*]} " in *" $fmt:$size "*) ;; *) continue ;; esac
    line=$(verify_case "$fmt" "$size" "$peer" "${total#total_us=}") || status=1
    echo "$line" | tee -a "$results"
  done < <(grep '^BENCH ' "$results")
fi
grep -q '^BENCH-FAIL' "$results" && status=1
exit $status
