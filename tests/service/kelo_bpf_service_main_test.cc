#include <gtest/gtest.h>

#include <future>

#include "tests/service/kelo_bpf_service_test_support.h"
#include "tests/support/log_capture.h"

namespace Kelo {
namespace Bpf {
namespace {

using namespace kelo_service_test;
constexpr char DISABLE_PROPERTY[] = "persist.sys.stability.bpfframework.disable";

class BpfServiceMainTest : public ::testing::TestWithParam<const char*> {};

TEST_P(BpfServiceMainTest, StartsUnlessDisabledIsExactlyOne) {
  kelo_test::LogCapture log;
  android::base::SetProperty(DISABLE_PROPERTY, GetParam());
  if (std::string(GetParam()) == "1") {
    EXPECT_FALSE(BpfServiceMain());
    EXPECT_EQ(KeloBpfService::FindInstance(), nullptr);
    EXPECT_FALSE(HasThread(KeloBpfService::POLL_THREAD_NAME));
    EXPECT_TRUE(log.contains("[BpfServiceMain] Starting KELO Bpf Service disabled!"));
    return;
  }
  ASSERT_TRUE(BpfServiceMain());
  EXPECT_EQ(std::async(std::launch::async, [] { return KeloBpfService::GetInstance(); }).get(),
            KeloBpfService::FindInstance());
  Client client;
  ASSERT_TRUE(client.Connect());
  EXPECT_EQ(client.Ask(9, REQ_ADD_OBSERVER_EVENT, 1), 0);
  EXPECT_TRUE(HasThread(KeloBpfService::POLL_THREAD_NAME));
}

INSTANTIATE_TEST_SUITE_P(DisableValues, BpfServiceMainTest, ::testing::Values("1", "0", "", "true", "11"));

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
