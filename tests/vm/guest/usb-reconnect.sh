#!/bin/bash
# The camera goes away and comes back while camcap records with --reconnect: first the
# camera program is killed (the device leaves the bus) and started again 2 s later, then
# the device gets a USB reset (uvcvideo unbinds and binds again, often under a new node
# name). The recording must go on: camcap says it lost the camera and has it back, starts
# a new file after each loss (NAME-1.h264, NAME-2.h264), exits 0 at the end of
# --duration, its JSON summary lists the files and one gap per loss, and every file
# decodes on its own.
. "$(dirname "$0")/lib.sh"
need_camcap "recording across reconnects" --reconnect --json --duration --output || finish

camera=(--formats h264 --sizes 640x480)
start_usb_camera "${camera[@]}" || { fail "USB camera enumerates"; finish; }
pass "USB camera enumerates as $CAM_NODE on $CAM_USB"

# Long enough for both losses and a few seconds of pictures after each.
record_seconds=${VM_RECONNECT_SECONDS:-24}
name=reconnect
file=$OUT/$name.h264 log=$OUT/$name.log
rm -f "$OUT/$name".h264 "$OUT/$name"-*.h264  # camcap refuses to overwrite a recording
"$CAMCAP" -v --json --reconnect --format h264 --size 640x480 --duration "$record_seconds" \
  --output "$file" > "$OUT/$name.json" 2> >(stamp_lines > "$log") &
pid=$!

# The losses: each takes the camera away, brings it back and sets NODE to the capture node
# it is back on.
kill_and_restart() {
  kill -KILL "$CAM_PID"; wait "$CAM_PID" 2>/dev/null; CAM_PID=
  for _ in $(seq 50); do uvc_capture_node >/dev/null || break; sleep 0.2; done
  sleep 2
  start_usb_camera "${camera[@]}" && NODE=$CAM_NODE
}
reset_device() {
  usbreset "${CAM_USB#/dev/bus/usb/}" >> "$OUT/usbreset.log" 2>&1
  NODE=$(wait_uvc_node 60) && CAM_USB=$(usb_device_of "${NODE#/dev/}")
}
# Why camcap should say each loss happened, and how long at least the gap lasts: a killed
# camera leaves the bus at once and stays away 2 s; a reset one may be back before camcap
# looks.
losses=(kill_and_restart reset_device)
whys=(unplugged 'unplugged|stalled')
least=(2 0)
# Polling twice a second, camcap has the camera back soon after its node is; the element's
# start under the emulated CPU takes the rest.
back_within=10
wait_frames "$log"
for i in "${!losses[@]}"; do
  how=${losses[i]}
  kill -0 "$pid" 2>/dev/null || break
  sleep 2
  say "$how while camcap records"
  NODE=
  $how
  read -r node_at _ < /proc/uptime
  check "$how: the camera is back (${NODE:-none})" test -n "$NODE"
  # camcap is back when the element has its first frame again.
  wait_frames "$log" $((i + 2)) "$pid"
  said=$(grep -F "camcap: camera back on" "$log" | sed -n "$((i + 1))p")
  lag=${said:+$(awk -v t="$node_at" '{ printf "%.1f", $1 - t }' <<< "$said")}
  check "$how: camcap says it is back on $NODE (${lag:-never} s after this script saw the node)" \
    awk -v said="$said" -v want="camcap: camera back on $NODE" -v lag="${lag:-99}" -v most="$back_within" \
      'BEGIN { exit !(substr(said, length(said) - length(want) + 1) == want && lag < most) }'
done

for _ in $(seq $(( (record_seconds + 60) * 10 ))); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
if kill -0 "$pid" 2>/dev/null; then
  fail "camcap ends after its ${record_seconds}s" "still running a minute later"
  kill -INT "$pid"; sleep 5; kill -KILL "$pid" 2>/dev/null
fi
wait "$pid"
check_eq "camcap exits 0 at the end of its duration" 0 $?
sleep 0.5  # the stamping reader finishes the log
grep -a "summary" "$log"
check_eq "camcap says it lost the camera, once per loss" ${#losses[@]} \
  "$(grep_count "camcap: camera lost; waiting for it" "$log")"
check_eq "camcap says it has the camera back, once per loss" ${#losses[@]} \
  "$(grep_count "camcap: camera back on /dev/video" "$log")"

# A new file after each loss, the extension kept; each must decode from its first packet.
expected=("$name.h264")
for i in $(seq ${#losses[@]}); do expected+=("$name-$i.h264"); done
for f in "${expected[@]}"; do
  expect_decode "$f: whole frames from a key frame on" "$OUT/$f" h264 10 $((record_seconds * 30))
done

if command -v jq >/dev/null; then
  summary=$(jq -c .summary "$OUT/$name.json")
  check_eq "the summary lists the files in order" "${expected[*]}" \
    "$(jq -r '[.files[] | split("/") | last] | join(" ")' <<< "$summary")"
  check_eq "the summary: stopped at the end of the duration, exit 0" "duration 0" \
    "$(jq -r '"\(.stop) \(.exit)"' <<< "$summary")"
  gaps=$(jq -r '.gaps[] | "\(.why) \(.back != null) \(.seconds)"' <<< "$summary")
  check_eq "the summary has one gap per loss" ${#losses[@]} "$(grep -c . <<< "$gaps")"
  for i in "${!losses[@]}"; do
    read -r why back seconds <<< "$(sed -n "$((i + 1))p" <<< "$gaps")"
    check "${losses[i]}: its gap says $why, back ${back:-?}, ${seconds:-?} s (over ${least[i]})" \
      awk -v why="$why" -v back="$back" -v s="$seconds" -v least="${least[i]}" -v whys="^(${whys[i]})\$" \
        'BEGIN { exit !(why ~ whys && back == "true" && s + 0 > least) }'
  done
else
  skip "the JSON summary" "no jq in the guest"
fi
stop_usb_camera
finish
