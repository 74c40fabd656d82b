// The service's clocks. The kernel stamps events with time since boot; the
// service turns them into calendar time by adding the boot time ("btime" of
// /proc/stat), read once at start into a process-wide base.
#pragma once

#include <cstdint>
#include <string>

namespace Kelo {
namespace Bpf {

// |a - b|.
int64_t SubAbs(int64_t a, int64_t b);

// Target of the symbolic link at path (cut at 4095 characters); "" on failure.
std::string ReadSymlink(const char* path);

// Reads the "btime " line of /proc/stat into the base. Returns false when the
// file cannot be opened or has no such line (the base is left unchanged).
// A number that std::stol rejects raises its std::invalid_argument or
// std::out_of_range to the caller.
bool InitBasetime();

// Same, from another file in /proc/stat's format; for tests.
bool InitBasetimeFrom(const char* statPath);

int64_t GetBasetime();

// Low 32 bits of the monotonic nanosecond count, sign-extended: wraps about
// every 4.3 s and is meant only for short differences.
uint64_t GetSystemBootNanosencondsTime();

// Base + CLOCK_MONOTONIC, in the named unit.
uint64_t GetSystemNanosencondsTime();
uint64_t GetSystemMicrosencondsTime();

// Base + CLOCK_MONOTONIC (monotonic) or CLOCK_BOOTTIME (otherwise), in ms.
uint64_t GetSystemMillisecondsTime(bool monotonic);

// Base + CLOCK_BOOTTIME seconds.
uint64_t GetSystemSecondsTime();

}  // namespace Bpf
}  // namespace Kelo
