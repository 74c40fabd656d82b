#include "utils/kelo_bpf_time.h"

#include <time.h>
#include <unistd.h>

#include <android-base/file.h>
#include <android-base/strings.h>

#include <atomic>

namespace Kelo {
namespace Bpf {
namespace {

constexpr char PROC_STAT_PATH[] = "/proc/stat";
constexpr char BTIME_PREFIX[] = "btime ";
constexpr size_t BTIME_VALUE_OFFSET = sizeof(BTIME_PREFIX) - 1;
constexpr size_t SYMLINK_BUFFER_SIZE = 4096;

// Seconds since the epoch at boot; 0 until InitBasetime succeeds. Written once
// at start-up by the producer thread and read by every thread afterwards.
std::atomic<int64_t> basetime{0};

struct timespec ReadClock(clockid_t clock) {
  struct timespec ts {};
  clock_gettime(clock, &ts);
  return ts;
}

int64_t BasedSeconds(const struct timespec& ts) {
  return basetime.load(std::memory_order_relaxed) + static_cast<int64_t>(ts.tv_sec);
}

}  // namespace

int64_t SubAbs(int64_t a, int64_t b) { return a > b ? a - b : b - a; }

std::string ReadSymlink(const char* path) {
  char buffer[SYMLINK_BUFFER_SIZE];
  const ssize_t n = readlink(path, buffer, sizeof(buffer) - 1);
  if (n < 0) return "";
  buffer[n] = '\0';
  return std::string(buffer);
}

bool InitBasetimeFrom(const char* statPath) {
  std::string content;
  if (!android::base::ReadFileToString(statPath, &content)) return false;
  for (const std::string& line : android::base::Split(content, "\n")) {
    if (line.find(BTIME_PREFIX) == std::string::npos) continue;
    const std::string value = line.size() > BTIME_VALUE_OFFSET ? line.substr(BTIME_VALUE_OFFSET) : "";
    basetime.store(static_cast<int64_t>(std::stol(value, nullptr, 10)), std::memory_order_relaxed);
    return true;
  }
  return false;
}

bool InitBasetime() { return InitBasetimeFrom(PROC_STAT_PATH); }

int64_t GetBasetime() { return basetime.load(std::memory_order_relaxed); }

uint64_t GetSystemBootNanosencondsTime() {
  const struct timespec ts = ReadClock(CLOCK_MONOTONIC);
  // Deliberately 32-bit: callers take short differences of the low bits.
  const uint32_t low = static_cast<uint32_t>(ts.tv_sec) * 1000000000u + static_cast<uint32_t>(ts.tv_nsec);
  return static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(low)));
}

uint64_t GetSystemNanosencondsTime() {
  const struct timespec ts = ReadClock(CLOCK_MONOTONIC);
  return static_cast<uint64_t>(BasedSeconds(ts) * 1000000000 + ts.tv_nsec);
}

uint64_t GetSystemMicrosencondsTime() {
  const struct timespec ts = ReadClock(CLOCK_MONOTONIC);
  return static_cast<uint64_t>(BasedSeconds(ts) * 1000000 + ts.tv_nsec / 1000);
}

uint64_t GetSystemMillisecondsTime(bool monotonic) {
  const struct timespec ts = ReadClock(monotonic ? CLOCK_MONOTONIC : CLOCK_BOOTTIME);
  return static_cast<uint64_t>(BasedSeconds(ts) * 1000 + ts.tv_nsec / 1000000);
}

uint64_t GetSystemSecondsTime() { return static_cast<uint64_t>(BasedSeconds(ReadClock(CLOCK_BOOTTIME))); }

}  // namespace Bpf
}  // namespace Kelo
