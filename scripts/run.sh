#!/usr/bin/env bash
# Installs what is needed, builds, and runs the main job: the host tool loads the camera
# element plug-in and reports what it found. Extra arguments go to the tool.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
exec ./build/bin/camcap "$@"
