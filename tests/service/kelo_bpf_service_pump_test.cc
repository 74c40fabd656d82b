// The pumps against real ring buffers and status arrays pinned at the
// service's paths; records are written into them from the kernel side.
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_state.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/live_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/state_file.h"
#include "tests/support/wait.h"

// The service is never destroyed and joins its threads only in Wait(): a
// pump that ended, and the endpoint's loop after stop(), stay unjoined until
// the process exits, as they do in the daemon.
// On this host libbase keeps properties in a plain in-process map; a test
// that declares the kernel side ready while the service polls the property
// changes the value of an existing entry (see StartService) without a lock.
extern "C" const char* __tsan_default_suppressions() {
  return "thread:Kelo::Bpf::KeloBpfService::\n"
         "thread:EpollManager::start\n"
         "race:android::base::SetProperty\n";
}

namespace Kelo {
namespace Bpf {
namespace {

using namespace std::chrono_literals;
using kelo_test::HasThread;
using kelo_test::RawRecord;
using kelo_test::WaitUntil;
constexpr uint64_t ENABLED = KELO_RB_FLAG_CORE | KELO_RB_FLAG_NORMAL;

void SetReady(const char* value) { android::base::SetProperty(KeloBpfService::KELO_BPF_READY, value); }

class PumpTest : public ::testing::Test {
 protected:
  void SetUp() override { KELO_SKIP_WITHOUT_BPF(); }
  void StartService(bool ready = true) {
    ASSERT_TRUE(kelo_test::MakeDirs(KeloBpfDataState::KELOTASK_DUMP_PATH));
    // Set either way, so that a later SetReady only changes the entry's value.
    SetReady(ready ? "1" : KeloBpfService::KELO_BPF_NOT_READY);
    KeloBpfServiceConfig config;
    config.beforeSeed = [this](int index) { seedFlags[index] = Flags(index); };
    service = KeloBpfService::GetInstance(config);
    service->start();
    ASSERT_TRUE(client.Connect());
  }
  kelo_test::StatusArray* Status(int index) { return index == 0 ? rings->normalStatus.get() : rings->gplStatus.get(); }
  kelo_test::RingBufferFixture* Ring(int index) { return index == 0 ? rings->normal.get() : rings->gpl.get(); }
  uint64_t Flags(int index) { return Status(index)->Get(KELO_RB_STATUS_FLAGS); }
  bool Inject(int index, const std::string& record) { return Ring(index)->Inject(record.data(), record.size()); }
  bool Pumping(std::initializer_list<int> indexes = {0, 1}) {
    return WaitUntil([&] {
      for (int index : indexes) {
        if (Flags(index) != ENABLED) return false;
      }
      return true;
    });
  }
  // Count of one kind over the whole window, from a state file requested
  // with signal 50; -1 when none was written.
  static int Counted(int kind) {
    const std::optional<std::vector<int64_t>> totals = kelo_test::RequestStateTotals();
    return totals ? static_cast<int>((*totals)[1 + kind]) : -1;
  }

  kelo_test::LogCapture log;
  std::unique_ptr<kelo_test::ServiceRingBuffers> rings = kelo_test::ServiceRingBuffers::Create();
  std::atomic<uint64_t> seedFlags[2] = {};
  KeloBpfService* service = nullptr;
  kelo_test::IpcClient client{KELO_BPF_CLIENT_SOCKET_NAME};
};

TEST_F(PumpTest, SocketServesBeforeReadinessAndPumpsEnableCoreBeforeSeedingNormalAfter) {
  StartService(false);
  EXPECT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 4), 0);
  EXPECT_FALSE(HasThread(KeloBpfService::GPL_POLL_THREAD_NAME));
  EXPECT_EQ(Flags(0), 0u);

  SetReady("1");
  ASSERT_TRUE(Pumping());
  EXPECT_TRUE(HasThread(KeloBpfService::GPL_POLL_THREAD_NAME));
  EXPECT_EQ(seedFlags[0], KELO_RB_FLAG_CORE);
  EXPECT_EQ(seedFlags[1], KELO_RB_FLAG_CORE);
}

TEST_F(PumpTest, ValidTypesAreForwardedAndHigherTypesRefusedEndingThePoll) {
  StartService();
  for (int type : {4, 5, 6, 7, 8}) ASSERT_EQ(client.Ask(type, REQ_ADD_OBSERVER_EVENT, type), 0);
  ASSERT_TRUE(Pumping());
  // After the start-up scan, whose records are of type 0 too.
  ASSERT_EQ(client.Ask(0, REQ_ADD_OBSERVER_EVENT, 0), 0);
  for (uint32_t type : {4u, 5u, 6u, 7u, 0u}) {
    const std::string record = RawRecord(type, 1, std::string(type * 3, static_cast<char>('a' + type)));
    ASSERT_TRUE(Inject(type % 2, record));
    client.ExpectEvent(record);
  }
  EXPECT_FALSE(log.contains("Error ring buf poll"));

  ASSERT_TRUE(Inject(0, RawRecord(8)));
  ASSERT_TRUE(Inject(0, RawRecord(4, 1, "after")));
  client.ExpectEvent(RawRecord(4, 1, "after"));
  EXPECT_TRUE(log.contains("[KeloBpfService] handleEvent ERROR!!! Type: 8"));
  EXPECT_TRUE(log.contains("[KeloBpfService][eventMonitor] KELOBPF: ret -1 .Error ring buf poll. "));
}

TEST_F(PumpTest, WatchdogClearsOnlyTheFullBitAtMostEvery30SecondsUnlessForcedAndSwitchesOneBit) {
  StartService();
  ASSERT_TRUE(Pumping());
  for (uint32_t key = KELO_RB_STATUS_AVAIL_DATA; key <= KELO_RB_STATUS_PROD_POS; ++key) Status(0)->Set(key, key * 11);
  constexpr uint64_t OTHER_BIT = 0x80;
  const auto setFull = [&] { Status(0)->Set(KELO_RB_STATUS_FLAGS, ENABLED | OTHER_BIT | KELO_RB_FLAG_FULL); };
  const auto cleared = [&] { return Flags(0) == (ENABLED | OTHER_BIT); };

  setFull();  // found by the first successful poll
  ASSERT_TRUE(Inject(0, RawRecord(5)));
  ASSERT_TRUE(WaitUntil(cleared));
  EXPECT_TRUE(log.contains("[KeloBpfService][checkBpfRingBuffStatus] bpf ringbuff full!"));
  EXPECT_TRUE(log.contains("avail data: 11, ringbuf size: 22, cons pos: 33, prod pos: 44"));
  setFull();  // found at once by a failed poll
  ASSERT_TRUE(Inject(0, RawRecord(9)));
  ASSERT_TRUE(WaitUntil(cleared));
  setFull();
  EXPECT_TRUE(service->checkBpfRingBuffStatus(0, false));
  EXPECT_FALSE(cleared());
  EXPECT_FALSE(service->checkBpfRingBuffStatus(0, true));
  EXPECT_TRUE(cleared());
  EXPECT_FALSE(service->checkBpfRingBuffStatus(2, true));

  EXPECT_TRUE(service->enableCoreBpf(1, false));
  EXPECT_EQ(Flags(1), uint64_t{KELO_RB_FLAG_NORMAL});
  EXPECT_TRUE(service->enableNormalBpf(0, false));
  EXPECT_EQ(Flags(0), KELO_RB_FLAG_CORE | OTHER_BIT);
  EXPECT_FALSE(service->enableCoreBpf(2, true));
}

TEST_F(PumpTest, SixthConsecutiveFailedPollEndsThePumpAndASuccessResetsTheCount) {
  StartService();
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 4), 0);
  ASSERT_TRUE(Pumping({1}));
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(Inject(1, RawRecord(8)));
  ASSERT_TRUE(Inject(1, RawRecord(4)));
  client.ExpectEvent(RawRecord(4));
  // That record's poll has returned once it is counted (index 8) after the
  // five refused records (counted under their own type 8).
  ASSERT_TRUE(WaitUntil([] { return Counted(KELO_EVENT_POLL_COUNT) == 6; }));

  for (int i = 0; i < 6; ++i) ASSERT_TRUE(Inject(1, RawRecord(8)));
  ASSERT_TRUE(WaitUntil([] { return !HasThread(KeloBpfService::GPL_POLL_THREAD_NAME); }, 60s));
  EXPECT_EQ(log.count("[KeloBpfService][gpleventMonitor] KELOBPF: ret -1 .Error ring buf poll."), 11);
  EXPECT_TRUE(HasThread(KeloBpfService::POLL_THREAD_NAME));
}

TEST_F(PumpTest, DumpSignalsRunOnTheirOwnIdleThreadAndPumpsGoOn) {
  StartService();
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 5), 0);
  ASSERT_TRUE(Pumping());
  for (int index : {0, 1, 0}) {
    ASSERT_TRUE(Inject(index, RawRecord(5)));
    client.ExpectEvent(RawRecord(5));
  }
  for (int signal = 51; signal <= 54; ++signal) ASSERT_EQ(kill(getpid(), signal), 0);
  EXPECT_EQ(Counted(5), 3);
  ASSERT_TRUE(Inject(0, RawRecord(5, 1, "later")));
  client.ExpectEvent(RawRecord(5, 1, "later"));

  const auto switches = [] {
    const std::string status = kelo_test::ThreadStatus(KeloBpfService::DUMP_THREAD_NAME);
    return status.substr(status.find("\nvoluntary_ctxt_switches:"), 40);
  };
  const std::string before = switches();
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(switches(), before);
}

TEST_F(PumpTest, StopThenWaitReturnsOnceEachPumpCompletedOnePoll) {
  StartService();
  ASSERT_TRUE(Pumping());
  EXPECT_EQ(service->stop(), 0);
  std::atomic<bool> waited{false};
  std::thread waiter([&] { waited = service->Wait() == 0; });
  ASSERT_TRUE(Inject(0, RawRecord(4)));
  ASSERT_TRUE(Inject(1, RawRecord(4)));
  const bool returned = WaitUntil([&] { return waited.load(); });
  returned ? waiter.join() : waiter.detach();
  ASSERT_TRUE(returned);
  EXPECT_TRUE(log.contains("[KeloBpfService][eventMonitor] Stop Event Produce Thread..."));
  EXPECT_TRUE(log.contains("[KeloBpfService][gpleventMonitor] Stop GPL Event Produce Thread..."));
}

class MissingRingBufferTest : public PumpTest, public ::testing::WithParamInterface<int> {};

TEST_P(MissingRingBufferTest, FailsOnlyItsOwnPump) {
  const int missing = GetParam();
  const int working = 1 - missing;
  ASSERT_EQ(unlink(Ring(missing)->path().c_str()), 0);
  StartService();
  ASSERT_EQ(client.Ask(1, REQ_ADD_OBSERVER_EVENT, 6), 0);
  ASSERT_TRUE(Pumping({working}));
  ASSERT_TRUE(Inject(working, RawRecord(6, 1, "still flowing")));
  client.ExpectEvent(RawRecord(6, 1, "still flowing"));
  EXPECT_EQ(client.Ask(2, REQ_DEL_OBSERVER_EVENT, 6), 0);
  // The other pump's thread may still be on its way to the failure.
  const std::string failure = std::string("[KeloBpfService][") + (missing == 0 ? "eventMonitor" : "gpleventMonitor") +
                              "] KELOBPF: get ringbuf failed: No such file or directory, map fd: -1";
  EXPECT_TRUE(WaitUntil([&] { return log.contains(failure); })) << failure;
  EXPECT_EQ(Flags(missing), 0u);
}

INSTANTIATE_TEST_SUITE_P(EachRing, MissingRingBufferTest, ::testing::Values(0, 1));

// Signals 50 to 54 never end the host process once a pump has started, not
// even when the dump thread or its request pipe could not be made: the
// requests are then refused and logged.
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
