#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job: the host tool loads the camera
# element plug-in and records a few seconds of H.264 from the simulated camera into
# capture.h264, then checks the file with ffprobe. Arguments replace the default recording.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
if [ $# -gt 0 ]; then
  exec ./build/bin/camcap "$@"
fi
./build/bin/camcap --simulate h264 --size 1280x720 --duration 5 --output capture.h264 --overwrite
if command -v ffprobe >/dev/null; then
  frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
           -of csv=p=0 -f h264 capture.h264)
  echo "ffprobe: capture.h264 decodes, $frames frames"
fi
