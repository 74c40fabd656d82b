#include <android-base/properties.h>
#include <gtest/gtest.h>

#include <future>

#include "service/kelo_bpf_service.h"
#include "tests/support/ipc_client.h"
#include "tests/support/log_capture.h"

namespace Kelo {
namespace Bpf {
namespace {

class BpfServiceMainTest : public ::testing::TestWithParam<const char*> {};

TEST_P(BpfServiceMainTest, StartsUnlessDisabledIsExactlyOne) {
  kelo_test::LogCapture log;
  android::base::SetProperty("persist.sys.stability.bpfframework.disable", GetParam());
  if (std::string(GetParam()) == "1") {
    EXPECT_FALSE(BpfServiceMain());
    EXPECT_EQ(KeloBpfService::FindInstance(), nullptr);
    EXPECT_TRUE(log.contains("[BpfServiceMain] Starting KELO Bpf Service disabled!"));
    return;
  }
  ASSERT_TRUE(BpfServiceMain());
  EXPECT_EQ(std::async(std::launch::async, [] { return KeloBpfService::GetInstance(); }).get(),
            KeloBpfService::FindInstance());
  kelo_test::IpcClient client(KELO_BPF_CLIENT_SOCKET_NAME);
  ASSERT_TRUE(client.Connect());
  EXPECT_EQ(client.Ask(9, REQ_ADD_OBSERVER_EVENT, 1), 0);
}

INSTANTIATE_TEST_SUITE_P(DisableValues, BpfServiceMainTest, ::testing::Values("1", "0", "", "true", "11"));

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
