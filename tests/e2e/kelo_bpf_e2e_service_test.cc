// The whole system in one process: the real kernel programs loaded and
// pinned by the loader, the service started through its entry function and
// made ready, and a subscriber on the real socket.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "tests/e2e/kelo_bpf_e2e_support.h"
#include "tests/support/bpf_fixture.h"

namespace {

using namespace kelo_e2e;
using Kelo::Bpf::KeloBpfService;

constexpr int SIGNAL_DUMP_STATE = 50;

// Loads the kernel side, makes the service ready from the start and starts
// it: what kelobpfd --load does.
void StartServiceLikeTheDaemon() {
  PrepareHost();
  ASSERT_TRUE(kelo_test::LoadAndPinPrograms());
  android::base::SetProperty(KeloBpfService::KELO_BPF_READY, "1");
  ASSERT_TRUE(Kelo::Bpf::BpfServiceMain());
}

// Core events (task creation and exit) flow once the normal pump has
// switched them on.
bool CoreEventsEnabled() {
  auto status = kelo_test::StatusArray::Open(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
  return status && (status->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_CORE) != 0;
}

TEST(E2eService, SubscriberGetsItsResponsesThenTheForkAndExitOfAChild) {
  StartServiceLikeTheDaemon();
  ASSERT_TRUE(WaitUntil(ServiceListening));
  RecordingClient client({KELO_EVENT_TASK_CREATE, KELO_EVENT_TASK_EXIT});
  ASSERT_TRUE(client.Start());
  auto responseTo = [&](int type) {
    return client.Find([type](const Received& p) { return p.response && p.type == type; });
  };
  ASSERT_TRUE(WaitUntil([&] { return responseTo(KELO_EVENT_TASK_CREATE) && responseTo(KELO_EVENT_TASK_EXIT); }));
  ASSERT_TRUE(WaitUntil(CoreEventsEnabled));

  const pid_t child = ForkAndReapChild();
  auto forkOf = [&] {
    return client.Find([child](const Received& p) {
      if (p.response || p.type != KELO_EVENT_TASK_CREATE) return false;
      const auto e = p.As<kelo_task_create_event>();
      return e.pid == child && e.kind == KELO_TASK_KIND_PROCESS;
    });
  };
  auto exitOf = [&] {
    return client.Find([child](const Received& p) {
      if (p.response || p.type != KELO_EVENT_TASK_EXIT) return false;
      const auto e = p.As<kelo_task_exit_event>();
      return e.pid == child && e.kind == KELO_TASK_KIND_PROCESS;
    });
  };
  ASSERT_TRUE(WaitUntil([&] { return forkOf() && exitOf(); }));

  const std::vector<Received> packages = client.Packages();
  const Received& fork = packages[*forkOf()];
  EXPECT_EQ(fork.record.size(), sizeof(kelo_task_create_event));
  EXPECT_EQ(fork.As<kelo_task_create_event>().ppid, getpid());
  EXPECT_EQ(packages[*exitOf()].record.size(), sizeof(kelo_task_exit_event));
  EXPECT_LT(*forkOf(), *exitOf());
  // Each subscription is confirmed, under the id its request carried (ids
  // are handed out from 0 in the order of the types), before any event of
  // its type arrives.
  EXPECT_EQ(packages[*responseTo(KELO_EVENT_TASK_CREATE)].result, 0);
  EXPECT_EQ(packages[*responseTo(KELO_EVENT_TASK_CREATE)].reqId, 0u);
  EXPECT_EQ(packages[*responseTo(KELO_EVENT_TASK_EXIT)].result, 0);
  EXPECT_EQ(packages[*responseTo(KELO_EVENT_TASK_EXIT)].reqId, 1u);
  EXPECT_LT(*responseTo(KELO_EVENT_TASK_CREATE),
            *client.Find([](const Received& p) { return !p.response && p.type == KELO_EVENT_TASK_CREATE; }));
  EXPECT_LT(*responseTo(KELO_EVENT_TASK_EXIT),
            *client.Find([](const Received& p) { return !p.response && p.type == KELO_EVENT_TASK_EXIT; }));
  // Only the subscribed types are delivered.
  EXPECT_FALSE(client.Find([](const Received& p) {
    return !p.response && p.type != KELO_EVENT_TASK_CREATE && p.type != KELO_EVENT_TASK_EXIT;
  }));
}

TEST(E2eService, SignalFiftyWritesTheStateFileWithTheCountedTaskEvents) {
  StartServiceLikeTheDaemon();
  ASSERT_TRUE(WaitUntil(ServiceListening));
  // A delivered fork record shows that the pumps run, and so that the dump
  // handlers they install are in place.
  RecordingClient client({KELO_EVENT_TASK_CREATE});
  ASSERT_TRUE(client.Start());
  ASSERT_TRUE(WaitUntil([&] {
    ForkAndReapChild();
    return client.Find([](const Received& p) { return !p.response; }).has_value();
  }));
  // Each round adds a fork and an exit and asks for a fresh file, until one
  // holds them.
  std::optional<std::vector<long long>> totals;
  ASSERT_TRUE(WaitUntil([&] {
    ForkAndReapChild();
    unlink(Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_TEMPLATE);
    kill(getpid(), SIGNAL_DUMP_STATE);
    if (!WaitUntil([] { return access(Kelo::Bpf::KeloBpfDataState::KELOTASK_DUMP_TEMPLATE, F_OK) == 0; }, 1s)) {
      return false;
    }
    totals = StateFileTotals();
    return totals && (*totals)[1 + KELO_EVENT_TASK_CREATE] > 0 && (*totals)[1 + KELO_EVENT_TASK_EXIT] > 0;
  }));
  EXPECT_GT((*totals)[0], 0);                          // all events
  EXPECT_GT((*totals)[1 + KELO_EVENT_POLL_COUNT], 0);  // polls
}

}  // namespace
