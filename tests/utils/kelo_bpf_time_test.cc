#include "utils/kelo_bpf_time.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Kelo {
namespace Bpf {
namespace {

int64_t ClockNs(clockid_t clock) {
  struct timespec ts {};
  clock_gettime(clock, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t ClockSeconds(clockid_t clock) { return ClockNs(clock) / 1000000000; }

TEST(SubAbsTest, IsSymmetric) {
  EXPECT_EQ(SubAbs(5, 9), 4);
  EXPECT_EQ(SubAbs(9, 5), 4);
  EXPECT_EQ(SubAbs(-3, 4), 7);
  EXPECT_EQ(SubAbs(7, 7), 0);
}

TEST(ReadSymlinkTest, ReturnsTargetOfLinkOnly) {
  TemporaryDir dir;
  const std::string link = std::string(dir.path) + "/link";
  const std::string file = std::string(dir.path) + "/file";
  ASSERT_EQ(symlink("/some/where/else", link.c_str()), 0);
  ASSERT_TRUE(android::base::WriteStringToFile("x", file));

  EXPECT_EQ(ReadSymlink(link.c_str()), "/some/where/else");
  EXPECT_EQ(ReadSymlink(file.c_str()), "");
  EXPECT_EQ(ReadSymlink((std::string(dir.path) + "/missing").c_str()), "");
  EXPECT_EQ(ReadSymlink("/proc/self/exe").substr(0, 1), "/");
}

TEST(BootNanosecondsTest, IsTheSignExtendedLow32BitsOfTheMonotonicClock) {
  const int64_t before = ClockNs(CLOCK_MONOTONIC);
  const uint64_t value = GetSystemBootNanosencondsTime();
  const int64_t after = ClockNs(CLOCK_MONOTONIC);

  // A sign-extended 32-bit value: the upper half is all zeros or all ones.
  const int64_t asSigned = static_cast<int64_t>(value);
  EXPECT_GE(asSigned, INT32_MIN);
  EXPECT_LE(asSigned, INT32_MAX);
  // Its low 32 bits lie between the two full readings (modulo 2^32).
  const uint32_t sinceBefore = static_cast<uint32_t>(value) - static_cast<uint32_t>(before);
  EXPECT_LE(sinceBefore, static_cast<uint64_t>(after - before));
}

// Each case sets the base it needs from a file in /proc/stat's layout, so
// the order of the cases does not matter.
class BasetimeTest : public ::testing::Test {
 protected:
  bool InitFrom(const std::string& content) {
    EXPECT_TRUE(android::base::WriteStringToFile(content, stat_.path));
    return InitBasetimeFrom(stat_.path);
  }
  void ResetBase() { ASSERT_TRUE(InitFrom("btime 0\n")); }

  TemporaryFile stat_;
};

TEST_F(BasetimeTest, SecondsFollowTheBootClockBeforeTheBaseIsSet) {
  ResetBase();
  ASSERT_EQ(GetBasetime(), 0);
  const int64_t before = ClockSeconds(CLOCK_BOOTTIME);
  const int64_t seconds = static_cast<int64_t>(GetSystemSecondsTime());
  const int64_t after = ClockSeconds(CLOCK_BOOTTIME);
  EXPECT_GE(seconds, before);
  EXPECT_LE(seconds, after);
}

TEST_F(BasetimeTest, EveryClockAddsTheBaseFromTheBtimeLine) {
  constexpr int64_t kBtime = 1700000000;
  ASSERT_TRUE(InitFrom("cpu  1 2 3 4\nintr 5 6\nctxt 77\nbtime 1700000000\nprocesses 8\n"));
  ASSERT_EQ(GetBasetime(), kBtime);

  const int64_t boot = ClockSeconds(CLOCK_BOOTTIME);
  const int64_t seconds = static_cast<int64_t>(GetSystemSecondsTime());
  EXPECT_GE(seconds - kBtime, boot);
  EXPECT_LE(seconds - kBtime, ClockSeconds(CLOCK_BOOTTIME));

  const int64_t monoMs = ClockNs(CLOCK_MONOTONIC) / 1000000;
  const int64_t ms = static_cast<int64_t>(GetSystemMillisecondsTime(true));
  EXPECT_GE(ms - kBtime * 1000, monoMs);
  EXPECT_LE(ms - kBtime * 1000, ClockNs(CLOCK_MONOTONIC) / 1000000);

  const int64_t monoUs = ClockNs(CLOCK_MONOTONIC) / 1000;
  const int64_t us = static_cast<int64_t>(GetSystemMicrosencondsTime());
  EXPECT_GE(us - kBtime * 1000000, monoUs);
  EXPECT_LE(us - kBtime * 1000000, ClockNs(CLOCK_MONOTONIC) / 1000);

  const int64_t monoNs = ClockNs(CLOCK_MONOTONIC);
  const int64_t ns = static_cast<int64_t>(GetSystemNanosencondsTime());
  EXPECT_GE(ns - kBtime * 1000000000, monoNs);
  EXPECT_LE(ns - kBtime * 1000000000, ClockNs(CLOCK_MONOTONIC));
}

TEST_F(BasetimeTest, BootClockMillisecondsIncludeSuspendTime) {
  ResetBase();
  const uint64_t monotonic = GetSystemMillisecondsTime(true);
  const uint64_t boot = GetSystemMillisecondsTime(false);
  EXPECT_GE(boot, monotonic);
}

TEST_F(BasetimeTest, FileWithoutBtimeLineLeavesBaseUnchanged) {
  ASSERT_TRUE(InitFrom("btime 123\n"));
  EXPECT_FALSE(InitFrom("cpu  1 2 3\nprocesses 8\n"));
  EXPECT_FALSE(InitBasetimeFrom("/nonexistent/stat"));
  EXPECT_EQ(GetBasetime(), 123);
}

TEST_F(BasetimeTest, OnlyTheFirstBtimeLineCounts) {
  ASSERT_TRUE(InitFrom("btime 111\nbtime 222\n"));
  EXPECT_EQ(GetBasetime(), 111);
}

TEST_F(BasetimeTest, RejectedNumberRaisesAndCallerGoesOnWithTheOldBase) {
  ResetBase();
  EXPECT_THROW(InitFrom("btime abc\n"), std::invalid_argument);
  EXPECT_THROW(InitFrom("btime \n"), std::invalid_argument);
  EXPECT_THROW(InitFrom("btime 99999999999999999999999\n"), std::out_of_range);

  // What the service does: catch, and keep counting from base 0.
  try {
    InitFrom("btime nonsense\n");
  } catch (const std::exception&) {
  }
  EXPECT_EQ(GetBasetime(), 0);
  EXPECT_LE(static_cast<int64_t>(GetSystemSecondsTime()), ClockSeconds(CLOCK_BOOTTIME));
}

TEST_F(BasetimeTest, RealProcStatGivesTheBootMomentOfTheWallClock) {
  ResetBase();
  ASSERT_TRUE(InitBasetime());
  const int64_t bootedAt = static_cast<int64_t>(time(nullptr)) - ClockSeconds(CLOCK_BOOTTIME);
  // btime is rounded by the kernel; allow for that and a wall-clock tick.
  EXPECT_LE(SubAbs(GetBasetime(), bootedAt), 2);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
