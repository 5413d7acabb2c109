#!/usr/bin/env bash
# Prepares the host for the VM tests (tests/vm): QEMU, busybox, kmod and friends from
# Debian, and Debian's own kernels fetched as .debs and unpacked into a cache directory.
# Kernels are never installed on this machine: `apt-get download` + `dpkg -x` only.
#
#   scripts/install-vm.sh            6.12 kernel (bookworm-security): DMA heaps + udmabuf
#   VM_KERNELS="6.12 6.1" scripts/install-vm.sh   also Debian 12's default 6.1 kernel
#   scripts/install-vm.sh --armhf    instead: the armhf VM (scripts/test-armvm.sh):
#                                    qemu-system-arm, the armmp 6.12 kernel of
#                                    bookworm-backports and armhf busybox-static
#
# Cache: $VM_CACHE (default ${CAMERA_CACHE_DIR:-/var/cache/camera-build}/vm). Per kernel: kernel-VER/ (the unpacked
# package, depmod run) and kernel-VER.initramfs.gz (built by tools/vm/build-initramfs.sh).
# Idempotent: a kernel whose package has not changed is not fetched again. armhf packages
# come through a private apt configuration (apt-armhf/, sources from scripts/apt-sources.sh):
# the machine's apt and dpkg state never see the armhf architecture.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
root=$(cd "$here/.." && pwd)
cache=${VM_CACHE:-${CAMERA_CACHE_DIR:-/var/cache/camera-build}/vm}
kernels=${VM_KERNELS:-6.12}
armhf=
[ "${1:-}" = --armhf ] && armhf=1

packages=(qemu-system-x86 busybox-static kmod cpio xz-utils zstd v4l-utils ffmpeg usbutils)
[ -n "$armhf" ] && packages+=(qemu-system-arm)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-vm: installing ${missing[*]}"
  $SUDO apt-get update -q
  $SUDO apt-get install -y -q -o DPkg::Lock::Timeout=600 --no-install-recommends "${missing[@]}"
else
  echo "install-vm: all ${#packages[@]} packages present"
fi

mkdir -p "$cache/debs"
# The meta-package names the current ABI's image package; asking apt for it keeps us on
# whatever the security suite ships today.
meta_for() {
  case "$1" in
    6.12) echo linux-image-6.12-amd64 ;;
    6.1) echo linux-image-amd64 ;;
    *) echo "install-vm: unknown kernel '$1' (6.12 or 6.1)" >&2; return 1 ;;
  esac
}

fetch_kernel() {  # VER
  local ver=$1 meta pkg dir
  meta=$(meta_for "$ver")
  dir=$cache/kernel-$ver
  pkg=$(apt-cache depends "$meta" 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}')
  if [ -z "$pkg" ]; then
    $SUDO apt-get update -q
    pkg=$(apt-cache depends "$meta" | awk '/Depends: linux-image-[0-9]/{print $2; exit}')
  fi
  [ -n "$pkg" ] || { echo "install-vm: cannot resolve $meta" >&2; return 1; }
  local candidate
  candidate=$(apt-cache policy "$pkg" | awk '/Candidate:/{print $2}')
  if [ -f "$dir/.package" ] && [ "$(cat "$dir/.package")" = "$pkg $candidate" ]; then
    echo "install-vm: kernel $ver: $pkg $candidate (cached in $dir)"
  else
    echo "install-vm: kernel $ver: fetching $pkg $candidate"
    (cd "$cache/debs" && rm -f "${pkg}"_*.deb && apt-get download -q "$pkg" 2>&1 \
       | grep -v 'Download is performed unsandboxed' || true)
    local deb
    deb=$(ls "$cache/debs/${pkg}"_*.deb 2>/dev/null | head -n1)
    [ -f "$deb" ] || { echo "install-vm: download of $pkg failed" >&2; return 1; }
    rm -rf "$dir" "$dir.initramfs.gz"
    dpkg -x "$deb" "$dir"
    # dpkg -x leaves modules.dep out; modprobe needs it to resolve dependencies.
    depmod -b "$dir" "$(ls "$dir/lib/modules")"
    echo "$pkg $candidate" > "$dir/.package"
    rm -f "$deb"   # the unpacked tree is all we need
  fi
  bash "$root/tools/vm/build-initramfs.sh" "$dir" "$dir.initramfs.gz"
}

# ---- armhf: Debian's armmp kernel and busybox, through a private apt configuration ----
. "$here/lib/armhf-apt.sh"
fetch_lists() {
  local d=$cache/apt-armhf
  # The 6.12 armmp kernel is in backports (Debian 12's armhf kernels have no DMA heaps
  # and no udmabuf either way: the element uses DRM dumb buffers there).
  armhf_apt "$d" "$cache/debs" --backports
  # Lists younger than a day are good enough; a failed index (seen with the armhf
  # security suite) is reported, not fatal.
  if [ -z "$(find "$d/lists" -maxdepth 1 -name '*_Packages*' -mtime -1 2>/dev/null | head -n1)" ]; then
    apt-get update -q 2>&1 | grep -E '^(E|W):' | sed 's/^/install-vm (armhf apt): /' >&2 || true
  fi
}

fetch_armhf() {
  local dir=$cache/kernel-armhf-6.12 pkg ver bb=$cache/busybox-armhf
  fetch_lists
  pkg=$(apt-cache pkgnames linux-image-6.12 | grep -E '^linux-image-6\.12\.[0-9.]+\+deb12-armmp$' | sort -V | tail -n1)
  [ -n "$pkg" ] || { echo "install-vm: no armmp 6.12 kernel in bookworm-backports" >&2; return 1; }
  ver=$(apt-cache policy "$pkg" | awk '/Candidate:/{print $2}')
  if [ -f "$dir/.package" ] && [ "$(cat "$dir/.package")" = "$pkg $ver" ]; then
    echo "install-vm: armhf kernel: $pkg $ver (cached in $dir)"
  else
    echo "install-vm: armhf kernel: fetching $pkg $ver"
    (cd "$cache/debs" && rm -f "${pkg}"_*.deb && apt-get download -q "$pkg" >/dev/null)
    rm -rf "$dir" "$dir.initramfs.gz"
    dpkg -x "$cache/debs/${pkg}"_*.deb "$dir"
    depmod -b "$dir" "$(ls "$dir/lib/modules")"
    echo "$pkg $ver" > "$dir/.package"
    rm -f "$cache/debs/${pkg}"_*.deb
  fi
  ver=$(apt-cache policy busybox-static | awk '/Candidate:/{print $2}')
  if [ "$(cat "$bb/.package" 2>/dev/null)" != "busybox-static $ver" ]; then
    (cd "$cache/debs" && rm -f busybox-static_*_armhf.deb && apt-get download -q busybox-static >/dev/null)
    rm -rf "$bb"
    dpkg -x "$cache/debs"/busybox-static_*_armhf.deb "$bb"
    echo "busybox-static $ver" > "$bb/.package"
  fi
  unset APT_CONFIG
  VM_ARCH=armhf BUSYBOX=$bb/bin/busybox bash "$root/tools/vm/build-initramfs.sh" "$dir" "$dir.initramfs.gz"
}

if [ -n "$armhf" ]; then
  fetch_armhf
else
  for k in $kernels; do fetch_kernel "$k"; done
fi
echo "install-vm: cache $cache"
