// Kernel-version rules: which rows of the attach tables a kernel accepts.
#include <android-base/properties.h>
#include <gtest/gtest.h>

#include "helper/kelo_bpf_helper_attach.h"
#include "tests/support/log_capture.h"

namespace Kelo {
namespace Bpf {
namespace {

TEST(KernelVersionTest, ConvertVersionToInt) {
  EXPECT_EQ(convertVersionToInt("5.10"), 5010);
  EXPECT_EQ(convertVersionToInt("6.1"), 6001);
  EXPECT_EQ(convertVersionToInt("4.19.191"), 4019);
  EXPECT_EQ(convertVersionToInt("6.18.44-fc-v669"), 6018);  // read like stoi: leading digits
  EXPECT_EQ(convertVersionToInt("5..10"), 5010);            // empty pieces are dropped
  for (const char* garbage : {"", "5", "5.", "abc", "5.x", "-1.0", " 5.10", "99999999999.1", "2147483.1000"}) {
    EXPECT_EQ(convertVersionToInt(garbage), INVALID_KERNEL_VERSION) << "\"" << garbage << "\"";
  }
}

TEST(KernelVersionTest, CheckBpfCompatibility) {
  struct {
    const char* kernel;  // "ro.kernel.version"; "" leaves it unset
    const char* rule;
    bool compatible;
  } const cases[] = {
      {"5.10", "5.0+", true},      {"4.19", "5.0+", false},      {"", "5.0+", false},
      {"6.1", "6.1+", true},       {"5.15", "6.1+", false},      {"5.10", "4.14-5.10", true},
      {"4.14", "4.14-5.10", true}, {"5.15", "4.14-5.10", false}, {"4.9", "4.14-5.10", false},
      {"4.19", "5.10-", true},     {"5.15", "5.10-", false},     {"", "5.10-", true},
      {"4.19", "4.19-", true},  // a trailing "-" is an upper bound, never a range
      {"5.4", "5.4", true},        {"5.10", "5.4", false},       {"5.40", "5.4", false},
      {"5.10.43", "5.10", true},
  };
  for (const auto& c : cases) {
    ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, c.kernel));
    EXPECT_EQ(CheckBpfCompatibility(c.rule), c.compatible) << "kernel \"" << c.kernel << "\" rule " << c.rule;
  }
}

// Rules the tables never hold and kernel versions no device reports must
// neither throw nor let a program on.
TEST(KernelVersionTest, UnreadableRulesAndKernelsAreNeverCompatible) {
  ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "5.10"));
  kelo_test::LogCapture log;
  for (const char* rule : {"", "+", "-", "abc", "x+", "x-", "-5.10", "4.14-x", "x-5.10", "5"}) {
    EXPECT_FALSE(CheckBpfCompatibility(rule)) << "\"" << rule << "\"";
  }
  EXPECT_TRUE(log.contains("[CheckBpfCompatibility] Invalid kernel compat: x-5.10"));
  ASSERT_TRUE(android::base::SetProperty(KERNEL_VERSION_PROPERTY, "unknown"));
  EXPECT_FALSE(CheckBpfCompatibility("5.10-"));
  EXPECT_TRUE(log.contains("[CheckBpfCompatibility] Invalid kernel version: unknown"));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
