// Signals 50 to 54 never end the host process once a pump has started, not
// even when the dump thread or its request pipe could not be made: the
// requests are then refused and logged.
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "service/kelo_bpf_service.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/live_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"

namespace Kelo {
namespace Bpf {
namespace {

TEST(DumpSignalsTest, WithoutARequestPipeDumpSignalsAreRefusedAndLoggedInsteadOfEndingTheProcess) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  KELO_SKIP_WITHOUT_BPF();
  auto rings = kelo_test::ServiceRingBuffers::Create();
  ASSERT_TRUE(rings);
  KeloBpfService* service = KeloBpfService::GetInstance();
  kelo_test::LogCapture log;
  {
    // A pump that starts with every descriptor taken installs the handlers,
    // then fails to open its ring.
    rlimit limit;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit tight = {256, limit.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    std::vector<android::base::unique_fd> taken;
    for (int fd; (fd = dup(STDIN_FILENO)) >= 0;) taken.emplace_back(fd);
    EXPECT_EQ(service->eventMonitor(), -1);
    taken.clear();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  }
  EXPECT_TRUE(log.contains("[KeloBpfService] Create dump request pipe failed: Too many open files"));

  for (int signal : {50, 51, 51}) ASSERT_EQ(kill(getpid(), signal), 0);
  // The next poll of a running pump tells of them.
  kelo_test::SetServiceReady(true);
  service->start();
  ASSERT_TRUE(kelo_test::WaitUntil([&] { return rings->normalStatus->Get(KELO_RB_STATUS_FLAGS) != 0; }));
  const std::string record(24, '\x05');
  ASSERT_TRUE(rings->normal->Inject(record.data(), record.size()));
  EXPECT_TRUE(kelo_test::WaitUntil([&] {
    return log.contains("[KeloBpfService] Dump for signal 50 refused 1 time(s): no dump thread to run it") &&
           log.contains("[KeloBpfService] Dump for signal 51 refused 2 time(s): no dump thread to run it");
  }));
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
