#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job: the host tool loads the camera
# element plug-in and records a few seconds of H.264 from the simulated camera into
# capture.h264, then checks the file with ffprobe. Arguments replace the default recording.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=scripts/lib/common.sh
. scripts/lib/common.sh
bash scripts/install-deps.sh
native_build "$build_root/build"
if [ $# -gt 0 ]; then
  exec "$build_root/build/bin/camcap" "$@"
fi
"$build_root/build/bin/camcap" --simulate h264 --size 1280x720 --duration 5 --output capture.h264 --overwrite
if command -v ffprobe >/dev/null; then
  frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
           -of csv=p=0 -f h264 capture.h264)
  echo "ffprobe: capture.h264 decodes, $frames frames"
fi
