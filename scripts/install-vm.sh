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
# Cache: $VM_CACHE (default $CAMERA_CACHE_DIR/vm). Per kernel: kernel-VER/ (the unpacked
# package, depmod run) and kernel-VER.initramfs.gz (built by tools/vm/build-initramfs.sh).
# Idempotent: a kernel whose package has not changed is not fetched again. armhf packages
# come through a private apt configuration (apt-armhf/, sources from scripts/apt-sources.sh):
# the machine's apt and dpkg state never see the armhf architecture.
set -euo pipefail
# shellcheck source=scripts/lib/common.sh
. "$(dirname "$0")/lib/common.sh"
cache=$vm_cache
kernels=${VM_KERNELS:-6.12}
armhf=
[ "${1:-}" = --armhf ] && armhf=1

packages=(qemu-system-x86 busybox-static kmod cpio xz-utils zstd v4l-utils ffmpeg usbutils)
[ -n "$armhf" ] && packages+=(qemu-system-arm)
install_packages install-vm "${packages[@]}"

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
  local ver=$1 meta pkg dir=$cache/kernel-$1
  meta=$(meta_for "$ver")
  pkg=$(apt-cache depends "$meta" 2>/dev/null | awk '/Depends: linux-image-[0-9]/{print $2; exit}')
  if [ -z "$pkg" ]; then
    as_root apt-get update -q
    pkg=$(apt-cache depends "$meta" | awk '/Depends: linux-image-[0-9]/{print $2; exit}')
  fi
  [ -n "$pkg" ] || { echo "install-vm: cannot resolve $meta" >&2; return 1; }
  unpack_package "$pkg" "$dir" | sed "s/^/install-vm: kernel $ver: /"
  bash "$camera_repo/tools/vm/build-initramfs.sh" "$dir" "$dir.initramfs.gz"
}

# ---- armhf: Debian's armmp kernel and busybox, through a private apt configuration ----
. "$camera_repo/scripts/lib/armhf-apt.sh"
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
  local dir=$cache/kernel-armhf-6.12 pkg bb=$cache/busybox-armhf
  fetch_lists
  pkg=$(apt-cache pkgnames linux-image-6.12 | grep -E '^linux-image-6\.12\.[0-9.]+\+deb12-armmp$' | sort -V | tail -n1)
  [ -n "$pkg" ] || { echo "install-vm: no armmp 6.12 kernel in bookworm-backports" >&2; return 1; }
  unpack_package "$pkg" "$dir" | sed "s/^/install-vm: armhf kernel: /"
  unpack_package busybox-static "$bb" | sed "s/^/install-vm: armhf: /"
  unset APT_CONFIG
  VM_ARCH=armhf BUSYBOX=$bb/bin/busybox bash "$camera_repo/tools/vm/build-initramfs.sh" "$dir" "$dir.initramfs.gz"
}

if [ -n "$armhf" ]; then
  fetch_armhf
else
  for k in $kernels; do fetch_kernel "$k"; done
fi
echo "install-vm: cache $cache"
