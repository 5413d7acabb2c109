# Cross build for 32-bit ARM Linux (armhf: ARMv7-A, NEON, hard-float) from an x86-64
# Debian 12 host. scripts/install-armhf.sh installs the cross compiler and qemu and makes
# the sysroot; scripts/test-armhf.sh shows the whole run.
#
#   cmake -S . -B build-armhf -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake
#
# ARMHF_SYSROOT (cache variable or environment) overrides the sysroot, ARMHF_QEMU_CPU the
# emulated core (default cortex-a8: plain ARMv7-A with NEON and VFPv3, nothing newer, so
# an instruction our flags do not allow faults under test instead of passing).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT ARMHF_SYSROOT)
  if(DEFINED ENV{ARMHF_SYSROOT})
    set(ARMHF_SYSROOT "$ENV{ARMHF_SYSROOT}")
  elseif(DEFINED ENV{CAMERA_CACHE_DIR})
    set(ARMHF_SYSROOT "$ENV{CAMERA_CACHE_DIR}/armhf/sysroot")
  else()
    set(ARMHF_SYSROOT /var/cache/camera-build/armhf/sysroot)
  endif()
endif()
if(NOT EXISTS "${ARMHF_SYSROOT}/.camera-sysroot")
  message(FATAL_ERROR "No armhf sysroot at ${ARMHF_SYSROOT}: run scripts/install-armhf.sh")
endif()
set(ARMHF_SYSROOT "${ARMHF_SYSROOT}" CACHE PATH "armhf sysroot made by scripts/install-armhf.sh")
# try_compile projects re-read this file without the cache; the environment carries over.
set(ENV{ARMHF_SYSROOT} "${ARMHF_SYSROOT}")

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
# The compiler's default is armv7-a+fp in Thumb without NEON; memcpy_neon needs -mfpu=neon.
# -Wno-psabi: silences GCC's note that 7.1 changed how ARM passes some iterators; that only
# matters when linking objects from an older compiler.
set(CMAKE_C_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard")
set(CMAKE_CXX_FLAGS_INIT "-march=armv7-a -mfpu=neon -mfloat-abi=hard -Wno-psabi")

# The cross compiler brings its own libc and libstdc++ headers and libraries
# (/usr/arm-linux-gnueabihf); everything else comes from the sysroot.
set(CMAKE_SYSROOT "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH "${ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Host pkg-config reading only the sysroot's .pc files; it prefixes -I/-L with the sysroot.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# Qt 5 comes from the sysroot; its CMake files point Qt5::moc/rcc/qmake at
# <sysroot>/usr/lib/..., where install-armhf.sh links the host's x86 tools (moc output does
# not depend on the target architecture).

# Every target executable (tests, gtest_discover_tests, try_run) runs under qemu-user with
# the sysroot as its library root; the host kernel has no binfmt entry for ARM here. -E
# hands the same settings to the guest: the sysroot's preloaded shim
# (tools/qemu-shim) runs an ARM program a test exec()s through qemu with them,
# and a test can tell from ARMHF_QEMU that it runs emulated.
if(NOT DEFINED CMAKE_CROSSCOMPILING_EMULATOR)
  find_program(ARMHF_QEMU NAMES qemu-arm-static qemu-arm REQUIRED)
  if(NOT ARMHF_QEMU_CPU)
    set(ARMHF_QEMU_CPU "$ENV{ARMHF_QEMU_CPU}")
  endif()
  if(NOT ARMHF_QEMU_CPU)
    set(ARMHF_QEMU_CPU cortex-a8)
  endif()
  set(CMAKE_CROSSCOMPILING_EMULATOR
      "${ARMHF_QEMU};-cpu;${ARMHF_QEMU_CPU};-L;${ARMHF_SYSROOT}"
      "-E;ARMHF_QEMU=${ARMHF_QEMU},QEMU_CPU=${ARMHF_QEMU_CPU},QEMU_LD_PREFIX=${ARMHF_SYSROOT}")
endif()
