# Cross build for 32-bit ARM (armhf: ARMv7-A, Thumb-2, VFPv3-D16, hard-float
# ABI), the device's user space. clang targets arm-linux-gnueabihf and links
# with lld against a sysroot of Debian's armhf packages, made by
# scripts/armhf_sysroot.sh. Test binaries run under qemu-arm with that sysroot
# as its library prefix (CMAKE_CROSSCOMPILING_EMULATOR, which the test
# targets put behind scripts/sandbox.sh).
#
#   cmake -S . -B build/test-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-armhf.cmake \
#     [-DKELO_ARMHF_SYSROOT=<dir>]
#
# The BPF programs are compiled for the bpf target as in every build; they
# do not depend on the user space's architecture.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

get_filename_component(_kelo_root "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
set(KELO_ARMHF_SYSROOT "${_kelo_root}/build/armhf-sysroot/sysroot" CACHE PATH "armhf sysroot (scripts/armhf_sysroot.sh)")
if(NOT EXISTS "${KELO_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/libc.so")
  message(FATAL_ERROR "no armhf sysroot in ${KELO_ARMHF_SYSROOT}: run scripts/armhf_sysroot.sh")
endif()
# try_compile projects see the toolchain file again; hand them the sysroot.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KELO_ARMHF_SYSROOT)

set(KELO_ARMHF_TRIPLE arm-linux-gnueabihf)
set(CMAKE_SYSROOT "${KELO_ARMHF_SYSROOT}")
set(CMAKE_LIBRARY_ARCHITECTURE ${KELO_ARMHF_TRIPLE})
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${KELO_ARMHF_TRIPLE})
set(CMAKE_CXX_COMPILER_TARGET ${KELO_ARMHF_TRIPLE})

# Debian's armhf baseline. Misaligned pointer accesses are undefined here
# and fault on the device for the multi-word loads the compiler may pick, so
# UBSan (alignment check included) stays on in every armhf build; its checks
# trap (SIGILL) rather than report, since there is no armhf sanitizer run time.
set(_kelo_arch_flags "-march=armv7-a -mthumb -mfpu=vfpv3-d16 -mfloat-abi=hard")
set(_kelo_ubsan_flags "-fsanitize=undefined -fsanitize-trap=undefined")
set(CMAKE_C_FLAGS_INIT "${_kelo_arch_flags} ${_kelo_ubsan_flags}")
set(CMAKE_CXX_FLAGS_INIT "${_kelo_arch_flags} ${_kelo_ubsan_flags}")
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld")
endforeach()

# Libraries, headers and packages come from the sysroot only; programs
# (bpftool, clang for the BPF objects) from the host.
set(CMAKE_FIND_ROOT_PATH "${KELO_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_LIBDIR} "${KELO_ARMHF_SYSROOT}/usr/lib/${KELO_ARMHF_TRIPLE}/pkgconfig:${KELO_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KELO_ARMHF_SYSROOT}")

# qemu-arm: -L makes the guest's absolute paths resolve in the sysroot first
# (the loader, /usr/lib/...), but not for statx, through which the armhf
# loader decides that a library directory that is absent on the host does
# not exist and stops searching it. The library directories are therefore
# named by their host paths in the guest's LD_LIBRARY_PATH.
find_program(KELO_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(KELO_QEMU_ARM)
  set(_kelo_libdirs "${KELO_ARMHF_SYSROOT}/usr/lib/${KELO_ARMHF_TRIPLE}/android:${KELO_ARMHF_SYSROOT}/usr/lib/${KELO_ARMHF_TRIPLE}")
  # KELO_TEST_EMULATOR and QEMU_LD_PREFIX let a test start another binary
  # of this build through the emulator (tests/support/emulation.h).
  set(CMAKE_CROSSCOMPILING_EMULATOR "${KELO_QEMU_ARM};-L;${KELO_ARMHF_SYSROOT};-E;LD_LIBRARY_PATH=${_kelo_libdirs}"
      "-E;QEMU_LD_PREFIX=${KELO_ARMHF_SYSROOT};-E;KELO_TEST_EMULATOR=${KELO_QEMU_ARM}")
endif()
