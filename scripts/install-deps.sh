#!/usr/bin/env bash
# Installs every Debian package the native build, tests and tool need.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail
# shellcheck source=scripts/lib/common.sh
. "$(dirname "$0")/lib/common.sh"

packages=(
  build-essential cmake pkg-config ninja-build ccache
  qtbase5-dev
  libgtest-dev libgmock-dev
  libopenh264-dev libyuv-dev libjpeg62-turbo-dev libx265-dev
  linux-libc-dev
  ffmpeg jq
  libdrm-dev
  libavformat-dev
  clang libclang-rt-14-dev
  gstreamer1.0-tools gstreamer1.0-plugins-good v4l-utils
  # The peers benchmark (bench/peers.sh): openh264enc, and GNU time for its outside check.
  gstreamer1.0-plugins-bad time
)
install_packages install-deps "${packages[@]}"
