#!/usr/bin/env bash
# Installs every Debian package the native build, tests and tool need.
# Idempotent: when everything is present it only checks and returns.
set -euo pipefail

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
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
