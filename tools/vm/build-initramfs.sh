#!/usr/bin/env bash
# build-initramfs.sh KERNEL_DIR OUT.cpio.gz
#
# KERNEL_DIR holds a Debian linux-image package unpacked with `dpkg -x` (boot/vmlinuz-*,
# lib/modules/VER/). Makes a small initramfs: busybox-static, guest-init.sh as /init, and
# the modules the VM tests load, with every dependency, resolved by the host's kmod
# against KERNEL_DIR and stored uncompressed (busybox's modprobe may lack xz/zstd).
# Does nothing when OUT is newer than its inputs. VM_ARCH=armhf with BUSYBOX (the armhf
# busybox-static binary) makes the armhf VM's: the same init, the ARM board's transports.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
kdir=$(realpath "${1:?usage: $0 KERNEL_DIR OUT.cpio.gz}")
out=$(realpath -m "${2:?usage: $0 KERNEL_DIR OUT.cpio.gz}")
busybox=${BUSYBOX:-/bin/busybox}

if [ -f "$out" ] && [ "$out" -nt "$here/guest-init.sh" ] && [ "$out" -nt "$0" ] \
   && [ "$out" -nt "$kdir/.package" ] && [ "$out" -nt "$busybox" ]; then
  exit 0
fi

# The 9p root share, then everything the scenarios load: vivid (virtual capture), vgem
# (DRM dumb buffers), dummy_hcd + gadgetfs (a user-space USB device on a virtual bus) and
# uvcvideo. udmabuf and the DMA heaps are built into 6.12 amd64 and absent from 6.1 and
# the armmp kernels: skipped either way.
if [ "${VM_ARCH:-amd64}" = armhf ]; then
  transport=virtio_mmio  # the virt board's 9p device sits on virtio-mmio
else
  transport=virtio_pci
fi
mods=($transport 9pnet_virtio 9p overlay vivid vgem udmabuf dummy_hcd gadgetfs uvcvideo)

ver=$(ls "$kdir/lib/modules" | head -n1)
[ -n "$ver" ] || { echo "build-initramfs: no lib/modules/VER under $kdir" >&2; exit 1; }
[ -s "$kdir/lib/modules/$ver/modules.dep" ] || depmod -b "$kdir" "$ver"

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
mkdir -p "$stage"/{bin,dev,proc,sys,tmp,lib/modules/$ver}
cp "$busybox" "$stage/bin/busybox"
install -m 755 "$here/guest-init.sh" "$stage/init"

declare -A seen=()
for m in "${mods[@]}"; do
  if ! deps=$(modprobe -d "$kdir" -S "$ver" --show-depends "$m" 2>/dev/null); then
    echo "build-initramfs: $m is not a module of $ver (built in or absent): skipped" >&2
    continue
  fi
  while read -r kind path _; do
    [ "$kind" = insmod ] || continue
    [ -n "${seen[$path]:-}" ] && continue
    seen[$path]=1
    dst=$stage/${path#"$kdir"/}
    mkdir -p "$(dirname "$dst")"
    case "$path" in
      *.ko.xz) xz -dc "$path" > "${dst%.xz}" ;;
      *.ko.zst) zstd -qdc "$path" > "${dst%.zst}" ;;
      *.ko.gz) gzip -dc "$path" > "${dst%.gz}" ;;
      *) cp "$path" "$dst" ;;
    esac
  done <<< "$deps"
done
cp "$kdir/lib/modules/$ver"/modules.{order,builtin,builtin.modinfo} "$stage/lib/modules/$ver/" 2>/dev/null || true
depmod -b "$stage" "$ver"

(cd "$stage" && find . -print0 | cpio --null -o -H newc --quiet) | gzip -1 > "$out.tmp"
mv "$out.tmp" "$out"
echo "build-initramfs: $out: kernel $ver, ${#seen[@]} modules, $(du -k "$out" | cut -f1) KiB" >&2
