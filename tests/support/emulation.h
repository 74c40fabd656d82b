// The armhf build's tests run under user-mode emulation (qemu-arm, see
// cmake/toolchain-armhf.cmake). The emulator translates the program's system
// calls to the host's, but it forwards neither bpf() nor perf_event_open
// (both fail with ENOSYS), cannot execute another ARM binary by itself, and
// answers reads of the process's own /proc/<pid>/stat with figures of its own.
// Tests that need the kernel's BPF skip there with that reason, and tests
// that start this build's binaries start them through the emulator.
#pragma once

#include <gtest/gtest.h>
#include <linux/bpf.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace kelo_test {

// The emulator a test binary runs under, as named in its environment by the
// armhf build's emulator command (KELO_TEST_EMULATOR); "" when run natively.
inline std::string Emulator() {
  const char* emulator = getenv("KELO_TEST_EMULATOR");
  return emulator != nullptr ? emulator : "";
}

inline bool UnderEmulation() { return !Emulator().empty(); }

// Whether this process reaches the kernel's bpf(): false only when the call
// itself does not exist for it (ENOSYS), as under user-mode emulation. Any
// other failure (EPERM, a missing bpffs) is left for the test to report.
inline bool BpfAvailable() {
  static const bool available = [] {
    union bpf_attr attr;
    memset(&attr, 0, sizeof(attr));
    attr.map_type = BPF_MAP_TYPE_ARRAY;
    attr.key_size = sizeof(uint32_t);
    attr.value_size = sizeof(uint32_t);
    attr.max_entries = 1;
    const long fd = syscall(__NR_bpf, BPF_MAP_CREATE, &attr, sizeof(attr));
    if (fd >= 0) close(static_cast<int>(fd));
    return fd >= 0 || errno != ENOSYS;
  }();
  return available;
}

#define KELO_SKIP_WITHOUT_BPF()                                                             \
  if (!kelo_test::BpfAvailable())                                                           \
  GTEST_SKIP() << "bpf() fails with ENOSYS: user-mode emulation (" << kelo_test::Emulator() \
               << ") forwards neither bpf() nor perf_event_open, so the kernel's BPF is out of reach"

// The emulator handles every signal itself, so /proc/<pid>/status of an
// emulated process shows each signal as caught (SigCgt), whatever the
// program installed; tests that read it skip there.
#define KELO_SKIP_IF_SIGNAL_MASKS_EMULATED()                             \
  if (kelo_test::UnderEmulation())                                       \
  GTEST_SKIP() << "under user-mode emulation (" << kelo_test::Emulator() \
               << ") the emulator catches every signal, so a process's SigCgt mask shows them all"

// Whether path is an executable for the emulated processor (32-bit ARM),
// one that the host cannot run by itself.
inline bool EmulatedBinary(const std::string& path) {
  unsigned char header[20] = {};
  FILE* file = fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const size_t got = fread(header, 1, sizeof(header), file);
  fclose(file);
  constexpr int ELF_MACHINE_ARM = 40;  // e_machine, little-endian at offset 18
  return got == sizeof(header) && memcmp(header, "\177ELF", 4) == 0 &&
         (header[18] | header[19] << 8) == ELF_MACHINE_ARM;
}

// argv to execute argv[0]: under emulation, one of this build's binaries is
// started through the emulator (which finds the sysroot in its
// environment); the host's own programs are started as they are.
inline std::vector<std::string> EmulatedCommand(std::vector<std::string> argv) {
  if (UnderEmulation() && !argv.empty() && EmulatedBinary(argv[0])) argv.insert(argv.begin(), Emulator());
  return argv;
}

// The death-test style for tests that want the child re-executed
// ("threadsafe"): the emulator cannot re-execute an ARM binary, so under
// emulation the child is forked without it ("fast"). Such tests start their
// threads inside the death statement, so the forked child is whole.
inline const char* ThreadsafeDeathTestStyle() { return UnderEmulation() ? "fast" : "threadsafe"; }

}  // namespace kelo_test
