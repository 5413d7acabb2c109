# shellcheck shell=bash disable=SC2034  # (the variables are for the scripts that source this)
# Sourced by the scripts of scripts/, tools/vm/ and tests/vm/: where things are, and what
# more than one of them does (package installs, an unpacked .deb, the builds, timing).

# The checkout, whichever script sourced this.
camera_repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
# Downloads (kernels, armhf packages), the armhf sysroot and the compiler cache.
camera_cache=${CAMERA_CACHE_DIR:-/var/cache/camera-build}
# The VM kernels and initramfs images (scripts/install-vm.sh).
vm_cache=${VM_CACHE:-$camera_cache/vm}
# Every build tree is a directory here: build/, build-asan/, build-armhf/, ...
build_root=${BUILD_ROOT:-$camera_repo}
jobs=${JOBS:-$(nproc)}

# as_root COMMAND...: COMMAND as root, through sudo unless we are root already.
as_root() {
  if [ "$(id -u)" -eq 0 ]; then "$@"; else sudo "$@"; fi
}

# install_packages TAG PACKAGE...: installs those of PACKAGE that are missing (apt-get
# update first), and nothing when all are there. An install that would remove or
# downgrade a package of this machine is refused.
install_packages() {
  local tag=$1 p sim missing=()
  shift
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    echo "$tag: all $# packages present"
    return 0
  fi
  echo "$tag: installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  local apt=(-o DPkg::Lock::Timeout=600 --no-install-recommends --no-remove)
  # A failed index (the armhf security suite has been seen truncated) leaves the others.
  as_root apt-get -o DPkg::Lock::Timeout=600 update -q ||
    echo "$tag: apt-get update reported errors; going on with the lists it has" >&2
  sim=$(apt-get install -s "${apt[@]}" "${missing[@]}" 2>&1) || { printf '%s\n' "$sim" >&2; return 1; }
  if printf '%s\n' "$sim" | grep -Eq '^Remv |DOWNGRADED|[1-9][0-9]* downgraded'; then
    printf '%s\n' "$sim" | grep -E '^Remv |^Inst .*\[.*\] \(' >&2 || true
    echo "$tag: refusing: this install would remove or downgrade packages of this machine" >&2
    return 1
  fi
  as_root apt-get install -y -q "${apt[@]}" "${missing[@]}"
}

# unpack_package PACKAGE DIR: apt's candidate of PACKAGE unpacked into DIR (dpkg -x: never
# installed), the modules of a kernel indexed for modprobe. DIR/.package says what is
# there, so an unchanged candidate is not fetched again; the .deb is not kept. An
# initramfs made from DIR (DIR.initramfs.gz) goes with the old tree.
unpack_package() {
  local pkg=$1 dir=$2 ver deb debs
  debs=$(dirname "$dir")/debs
  ver=$(apt-cache policy "$pkg" | awk '/Candidate:/ { print $2 }')
  if [ "$(cat "$dir/.package" 2>/dev/null)" = "$pkg $ver" ]; then
    echo "$pkg $ver: cached in $dir"
    return 0
  fi
  echo "$pkg $ver: fetching"
  mkdir -p "$debs"
  rm -f "$debs/${pkg}"_*.deb
  (cd "$debs" && apt-get download -q "$pkg" 2>&1 >/dev/null | { grep -v 'unsandboxed' || true; } >&2)
  deb=$(find "$debs" -maxdepth 1 -name "${pkg}_*.deb" | head -n1)
  [ -f "$deb" ] || { echo "download of $pkg failed" >&2; return 1; }
  rm -rf "$dir" "$dir.initramfs.gz"
  dpkg -x "$deb" "$dir"
  rm -f "$deb"
  # dpkg -x leaves modules.dep out; modprobe needs it to resolve dependencies.
  if [ -d "$dir/lib/modules" ]; then
    depmod -b "$dir" "$(ls "$dir/lib/modules")"
  fi
  echo "$pkg $ver" > "$dir/.package"
}

# native_build DIR [CMAKE ARGUMENTS...]: configures (RelWithDebInfo, unless the arguments
# say otherwise) and builds the checkout in DIR.
native_build() {
  local dir=$1
  shift
  cmake -S "$camera_repo" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null &&
    cmake --build "$dir" -j "$jobs"
}

# armhf_configure SOURCE DIR SYSROOT [COMPILER FLAGS]: the armhf cross build of SOURCE (the
# checkout, or a project of its own) in DIR. -O2 as the native RelWithDebInfo build, without debug information: it makes the
# cross build a quarter slower and is not needed to run the tests.
armhf_configure() {
  local flags="-O2 -DNDEBUG${4:+ $4}"
  cmake -S "$1" -B "$2" -G Ninja --no-warn-unused-cli -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_FLAGS_RELEASE="$flags" -DCMAKE_CXX_FLAGS_RELEASE="$flags" \
    -DCMAKE_TOOLCHAIN_FILE="$camera_repo/cmake/toolchain-armhf.cmake" -DARMHF_SYSROOT="$3" \
    -DARMHF_QEMU_CPU="${ARMHF_QEMU_CPU:-cortex-a8}" >/dev/null
}

# seconds_since T: seconds from T (an $EPOCHREALTIME) to now, one decimal.
seconds_since() {
  awk -v a="$1" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.1f", b - a }'
}
