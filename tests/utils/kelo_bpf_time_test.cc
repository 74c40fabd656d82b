#include "utils/kelo_bpf_time.h"

#include <android-base/file.h>
#include <gtest/gtest.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <functional>
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

TEST(BootNanosecondsTest, IsTheSignExtendedLow32BitsOfTheMonotonicClock) {
  const int64_t before = ClockNs(CLOCK_MONOTONIC);
  const uint64_t value = GetSystemBootNanosencondsTime();
  const int64_t after = ClockNs(CLOCK_MONOTONIC);
  // A sign-extended 32-bit value: the upper half is all zeros or all ones.
  EXPECT_GE(static_cast<int64_t>(value), INT32_MIN);
  EXPECT_LE(static_cast<int64_t>(value), INT32_MAX);
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
  // Every clock lies between two readings of its kernel clock, plus the base.
  static void ExpectClocksFollowTheKernelPlus(int64_t base) {
    const struct {
      const char* name;
      std::function<uint64_t()> read;
      clockid_t clock;
      int64_t nsPerUnit;
    } clocks[] = {
        {"seconds", GetSystemSecondsTime, CLOCK_BOOTTIME, 1000000000},
        {"monotonic ms", [] { return GetSystemMillisecondsTime(true); }, CLOCK_MONOTONIC, 1000000},
        {"boot ms", [] { return GetSystemMillisecondsTime(false); }, CLOCK_BOOTTIME, 1000000},
        {"us", GetSystemMicrosencondsTime, CLOCK_MONOTONIC, 1000},
        {"ns", GetSystemNanosencondsTime, CLOCK_MONOTONIC, 1},
    };
    for (const auto& c : clocks) {
      const int64_t before = ClockNs(c.clock) / c.nsPerUnit;
      const int64_t value = static_cast<int64_t>(c.read()) - base * (1000000000 / c.nsPerUnit);
      EXPECT_GE(value, before) << c.name;
      EXPECT_LE(value, ClockNs(c.clock) / c.nsPerUnit) << c.name;
    }
  }

  TemporaryFile stat_;
};

TEST_F(BasetimeTest, ClocksAddTheBaseOfTheFirstBtimeLineFromWhenItIsSet) {
  ASSERT_TRUE(InitFrom("btime 0\n"));
  ExpectClocksFollowTheKernelPlus(0);
  ASSERT_TRUE(InitFrom("cpu  1 2 3 4\nintr 5 6\nctxt 77\nbtime 1700000000\nbtime 222\nprocesses 8\n"));
  ASSERT_EQ(GetBasetime(), 1700000000);
  ExpectClocksFollowTheKernelPlus(1700000000);
}

TEST_F(BasetimeTest, MissingLineLeavesTheBaseAndARejectedNumberRaises) {
  ASSERT_TRUE(InitFrom("btime 123\n"));
  EXPECT_FALSE(InitFrom("cpu  1 2 3\nprocesses 8\n"));
  EXPECT_FALSE(InitBasetimeFrom("/nonexistent/stat"));
  EXPECT_EQ(GetBasetime(), 123);
  // The service catches these, logs them and goes on with the base it has.
  EXPECT_THROW(InitFrom("btime abc\n"), std::invalid_argument);
  EXPECT_THROW(InitFrom("btime \n"), std::invalid_argument);
  EXPECT_THROW(InitFrom("btime 99999999999999999999999\n"), std::out_of_range);
  EXPECT_EQ(GetBasetime(), 123);
}

TEST_F(BasetimeTest, RealProcStatGivesTheBootMomentOfTheWallClock) {
  ASSERT_TRUE(InitBasetime());
  const int64_t bootedAt = static_cast<int64_t>(time(nullptr)) - ClockNs(CLOCK_BOOTTIME) / 1000000000;
  // btime is rounded by the kernel; allow for that and a wall-clock tick.
  EXPECT_LE(SubAbs(GetBasetime(), bootedAt), 2);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
