#!/usr/bin/env bash
# Installs what the armhf cross build and its emulated test run need:
#   - host (amd64) packages: the arm-linux-gnueabihf cross compiler, qemu-user, the native
#     build tools (cmake, ninja, pkg-config, the host moc) and ffprobe;
#   - an armhf sysroot of our own, made from Debian armhf packages, used as CMAKE_SYSROOT
#     and as qemu's -L prefix.
# The host's dpkg never gets the armhf architecture: Multi-Arch: same libraries would have
# to match the host's versions exactly, and the mirror's armhf security index is not always
# there, which then forces host downgrades. A separate sysroot keeps the two apart.
#
# Cache: $CAMERA_CACHE_DIR/armhf (default /var/cache/camera-build/armhf) holds the apt lists, the
# downloaded .deb files (kept, so a rebuild downloads nothing) and the sysroot. The sysroot
# is rebuilt only when the package list below changes or ARMHF_SYSROOT_REFRESH=1.
# Prints the sysroot path as its last line.
set -euo pipefail
# shellcheck source=scripts/lib/common.sh
. "$(dirname "$0")/lib/common.sh"
export DEBIAN_FRONTEND=noninteractive

cache=$camera_cache/armhf
sysroot=$cache/sysroot

host_packages=(
  g++-arm-linux-gnueabihf qemu-user-static
  cmake ninja-build pkg-config qtbase5-dev-tools qt5-qmake-bin ffmpeg
)
# Target libraries; apt adds their run-time dependencies. Qt comes as libqt5core5a plus
# the files of qtbase5-dev and qt5-qmake (qmake's platform files) alone: qtbase5-dev's own
# dependencies (GUI, GL, Vulkan, LLVM) would quadruple the download for modules the project
# does not use.
# dash and coreutils: the ARM shell the emulation shim runs popen()/system() commands with,
# and the env(1) they use to start ARM programs. bash and v4l-utils: the real-kernel
# scenarios' guest scripts run in this sysroot on the ARM VM (scripts/test-armvm.sh).
# libdrm-dev: the DRM ioctl headers of the allocator.
target_packages=(
  libqt5core5a libgtest-dev libgmock-dev
  libopenh264-dev libyuv-dev libjpeg62-turbo-dev libx265-dev libdrm-dev
  dash coreutils bash v4l-utils
)
target_nodeps=(qtbase5-dev qt5-qmake)
# Bump when the way the sysroot is laid out changes.
layout=6

log() { printf '[install-armhf] %s\n' "$*" >&2; }

# ---- host packages -------------------------------------------------------------------

install_packages install-armhf "${host_packages[@]}"

# ---- armhf sysroot -------------------------------------------------------------------

# One run at a time per cache (the sysroot is replaced as a whole).
mkdir -p "$cache"
exec 9>"$cache/.lock"
flock 9

stamp_text="layout=$layout packages=${target_packages[*]} nodeps=${target_nodeps[*]}"
shim_dir=$camera_repo/tools/qemu-shim
shim_path=/usr/lib/arm-linux-gnueabihf/libarmhf-qemu-shim.so

# The emulation shim (tools/qemu-shim), preloaded into every process qemu runs with
# -L <sysroot>: built with the armhf toolchain against the sysroot, again whenever its
# source or build changes.
install_shim() {  # sysroot
  local root=$1 sum build
  sum=$(cat "$shim_dir/armhf-qemu-shim.c" "$shim_dir/CMakeLists.txt" | sha256sum | cut -d' ' -f1)
  if [ -f "$root$shim_path" ] && [ "$(cat "$root/.camera-shim" 2>/dev/null)" = "$sum" ]; then
    return 0
  fi
  build=$(mktemp -d)
  if ! { armhf_configure "$shim_dir" "$build" "$root" && cmake --build "$build" >/dev/null; }; then
    rm -rf "$build"
    log "the emulation shim does not build"
    return 1
  fi
  cp "$build/libarmhf-qemu-shim.so" "$root$shim_path.new"
  mv -f "$root$shim_path.new" "$root$shim_path"
  rm -rf "$build"
  echo "$shim_path" > "$root/etc/ld.so.preload"
  echo "$sum" > "$root/.camera-shim"
  log "emulation shim built: $root$shim_path"
}

if [ "${ARMHF_SYSROOT_REFRESH:-0}" != 1 ] && [ -f "$sysroot/.camera-sysroot" ] &&
   [ "$(cat "$sysroot/.camera-sysroot")" = "$stamp_text" ]; then
  install_shim "$sysroot"
  log "sysroot present: $sysroot"
  echo "$sysroot"
  exit 0
fi

log "building the armhf sysroot in $sysroot (downloads cached in $cache/debs)"
# The machine's own archive and mirror (scripts/apt-sources.sh), not one named here.
# shellcheck source=scripts/lib/armhf-apt.sh
. "$camera_repo/scripts/lib/armhf-apt.sh"
armhf_apt "$cache/apt" "$cache/debs"

# The mirror has been seen serving a truncated armhf security index; without it the
# sysroot simply gets the point-release versions, which is fine for building and testing.
started=$SECONDS
apt-get update -q >&2 || log "apt-get update reported errors; continuing with the indexes it fetched"
# shellcheck disable=SC2016  # apt's own field syntax, not the shell's
apt-get indextargets --format '$(CODENAME)' 'Identifier: Packages' 2>/dev/null | grep -qx bookworm ||
  { log "no armhf package index for bookworm; cannot build the sysroot"; exit 1; }

apt-get install -q -y --download-only "${target_packages[@]}" >&2
(cd "$cache/debs" && apt-get download -q "${target_nodeps[@]}" >&2)
log "package lists and downloads: $((SECONDS - started)) s"
started=$SECONDS

# The exact set to unpack: what apt resolved, plus the no-dependency extras, each at the
# candidate version (the archive directory may hold older downloads too).
deb_name() {  # package version arch
  printf '%s_%s_%s.deb' "$1" "${2//:/%3a}" "$3"
}
debs=()
while read -r pkg ver arch; do
  debs+=("$cache/debs/$(deb_name "$pkg" "$ver" "$arch")")
done < <(apt-get install -s "${target_packages[@]}" 2>/dev/null |
           sed -nE 's/^Inst ([^ ]+) \(([^ ]+) .*\[([a-z0-9]+)\]\).*/\1 \2 \3/p')
for p in "${target_nodeps[@]}"; do
  ver=$(apt-cache policy "$p" | awk '/Candidate:/ {print $2}')
  arch=$(apt-cache show "$p=$ver" | awk '/^Architecture:/ {print $2; exit}')
  debs+=("$cache/debs/$(deb_name "$p" "$ver" "$arch")")
done

tmp=$sysroot.new
rm -rf "$tmp"
mkdir -p "$tmp"
for deb in "${debs[@]}"; do
  [ -f "$deb" ] || { log "missing download: $deb"; exit 1; }
  dpkg-deb -x "$deb" "$tmp"
done

# Absolute links would point into the host's tree (for qemu -L and for the linker alike):
# make each one relative to its place in the sysroot.
while IFS= read -r -d '' link; do
  target=$(readlink "$link")
  case $target in
    /*) ln -sfn "$(realpath -m --relative-to="$(dirname "$link")" "$tmp$target")" "$link" ;;
  esac
done < <(find "$tmp" -type l -print0)

# Qt's CMake files expect qmake/moc/rcc under the target prefix and check that they
# exist; they must be the host's (x86) tools, which generate code for any architecture.
mkdir -p "$tmp/usr/lib/qt5/bin" "$tmp/usr/lib/arm-linux-gnueabihf/qt5/bin"
for tool in moc rcc uic; do
  ln -sfn "/usr/lib/qt5/bin/$tool" "$tmp/usr/lib/qt5/bin/$tool"
done
ln -sfn /usr/lib/qt5/bin/qmake "$tmp/usr/lib/arm-linux-gnueabihf/qt5/bin/qmake"
# dash's maintainer script, which is not run here, makes /bin/sh.
[ -e "$tmp/bin/sh" ] || ln -s dash "$tmp/bin/sh"
# No /dev, /proc, /sys, /run or /tmp here: under qemu-user an existing directory of the
# sysroot hides the host's (an empty /dev hides /dev/null). The armhf VM makes its mount
# points in the overlay it boots into. base-files brings them empty: take them out.
rmdir "$tmp"/{dev,proc,sys,run,tmp} 2>/dev/null || true

# (The toolchain the shim is built with takes only a sysroot that has its stamp.)
echo "$stamp_text" > "$tmp/.camera-sysroot"
install_shim "$tmp"
rm -rf "$sysroot"
mv "$tmp" "$sysroot"
log "sysroot ready: $sysroot ($(du -sh "$sysroot" | cut -f1), ${#debs[@]} packages, unpacked in $((SECONDS - started)) s)"
echo "$sysroot"
