// The task table heals after lost task records: its schedule on a clock of
// the test's, and the running service against the machine's real /proc
// with real rings, lost counts and a subscriber on the real socket.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_service_heal.h"
#include "service/kelo_bpf_state.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/live_service.h"
#include "tests/support/process.h"
#include "tests/support/sandbox.h"
#include "tests/support/state_file.h"
#include "tests/support/wait.h"

namespace Kelo {
namespace Bpf {
namespace {

using namespace std::chrono_literals;
using Clock = TaskHealer::Clock;

TEST(TaskHealSchedule, HealsSettleAfterALossOfTaskRecordsAndRepeatOnlyOnceAMinuteWhileLossesGoOn) {
  int heals = 0;
  bool fail = false;
  TaskHealer healer([&] {
    ++heals;
    if (fail) throw std::runtime_error("proc gone");
    return TaskHealResult{2, 3};
  });
  const Clock::time_point t0 = Clock::now();

  // No loss, or losses of types the table does not depend on: never.
  EXPECT_EQ(healer.RunIfDue(t0), Clock::time_point::max());
  for (int type : {int{KELO_EVENT_TASK_INIT}, int{KELO_EVENT_DMABUF_SIZE}, int{KELO_EVENT_FD_UPDATE}, 99}) {
    healer.NoteKernelLoss(type, t0);
  }
  EXPECT_EQ(healer.RunIfDue(t0 + 1h), Clock::time_point::max());
  EXPECT_EQ(heals, 0);

  // A burst: the first loss sets the time, later ones join it.
  healer.NoteKernelLoss(KELO_EVENT_TASK_EXIT, t0);
  healer.NoteKernelLoss(KELO_EVENT_RSS_STAT, t0 + 2s);
  EXPECT_EQ(healer.RunIfDue(t0 + 4s), t0 + TaskHealer::SETTLE);
  EXPECT_EQ(heals, 0);
  EXPECT_EQ(healer.RunIfDue(t0 + 5s), Clock::time_point::max());
  EXPECT_EQ(heals, 1);

  // Losses go on: the next heal waits for a minute after the last.
  healer.NoteKernelLoss(KELO_EVENT_TASK_CREATE, t0 + 6s);
  EXPECT_EQ(healer.RunIfDue(t0 + 11s), t0 + 65s);
  EXPECT_EQ(healer.RunIfDue(t0 + 64s), t0 + 65s);
  EXPECT_EQ(heals, 1);
  fail = true;  // a failed heal counts as a run and escapes nobody
  EXPECT_EQ(healer.RunIfDue(t0 + 65s), Clock::time_point::max());
  EXPECT_EQ(heals, 2);

  // Quiet for long: a new loss is mended a settling time after it.
  fail = false;
  healer.NoteKernelLoss(KELO_EVENT_TASK_EXIT, t0 + 300s);
  EXPECT_EQ(healer.RunIfDue(t0 + 301s), t0 + 305s);
  healer.RunIfDue(t0 + 305s);
  EXPECT_EQ(heals, 3);

  const TaskHealer::Totals totals = healer.totals();
  EXPECT_EQ(totals.runs, 3u);
  EXPECT_EQ(totals.dropped, 4u);
  EXPECT_EQ(totals.added, 6u);
  EXPECT_EQ(healer.StateLines(), "TaskHeal, 3, 4, 6, \r\n");
}

TEST(TaskHealMarks, OnlyRecordsNoLaterThanTheMarkAreTakenAndOnlyOnce) {
  KeloTaskManager tasks;
  MutexLock lock(tasks.lock());
  tasks.MarkHealedLocked(7, KeloTaskManager::HealMark::DROPPED, 100);
  tasks.MarkHealedLocked(8, KeloTaskManager::HealMark::ADDED, 200);
  EXPECT_FALSE(tasks.TakeHealMarkLocked(7, KeloTaskManager::HealMark::ADDED, 50)) << "other kind";
  EXPECT_FALSE(tasks.TakeHealMarkLocked(7, KeloTaskManager::HealMark::DROPPED, 101)) << "a later process";
  EXPECT_TRUE(tasks.HasHealMarkLocked(7, KeloTaskManager::HealMark::DROPPED, 100));
  EXPECT_TRUE(tasks.TakeHealMarkLocked(7, KeloTaskManager::HealMark::DROPPED, 100));
  EXPECT_FALSE(tasks.TakeHealMarkLocked(7, KeloTaskManager::HealMark::DROPPED, 100)) << "taken twice";
  EXPECT_EQ(tasks.PruneHealMarksLocked(200), 1u);
  EXPECT_EQ(tasks.PruneHealMarksLocked(201), 0u);
  EXPECT_FALSE(tasks.HasHealMarkLocked(8, KeloTaskManager::HealMark::ADDED, 0));
}

// A record of a process whose exit the kernel lost: older than any walk.
KeloTask Ghost(pid_t pid) {
  KeloTask task = {};
  task.pid = pid;
  task.ppid = 1;
  task.threadNum = task.oldThreadNum = 1;
  strcpy(task.comm, "ghost");
  task.createTimeNs = 1;
  return task;
}

bool InTable(pid_t pid) {
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  MutexLock lock(tasks->lock());
  return tasks->GetKeloTaskLocked(pid) != nullptr;
}

struct Client : kelo_test::IpcClient {
  Client() : IpcClient(KELO_BPF_CLIENT_SOCKET_NAME) {}
};

// What a subscriber of 50001, 50002 and raw type 0 received, by pid.
struct Received {
  std::map<int32_t, int> created, exited, scanned;
  std::map<int32_t, std::string> exitedComm;

  // Reads until nothing came for `quiet`.
  void Drain(Client* client, std::chrono::milliseconds quiet = 1500ms) {
    while (std::optional<kelo_test::Package> package = client->Next(quiet)) {
      if (package->type != IPC_PACKAGE_TYPE_EVENT) continue;
      const uint32_t type = package->Word(0);
      if (type == KELO_CLIENT_EVENT_PROCESS_EXIT) {
        kelo_process_exit_client_event event;
        ASSERT_EQ(package->payload.size(), sizeof(event));
        memcpy(&event, package->payload.data(), sizeof(event));
        ++exited[event.pid];
        exitedComm[event.pid] = event.comm;
      } else if (type == KELO_CLIENT_EVENT_PROCESS_CREATE) {
        ++created[static_cast<int32_t>(package->Word(1))];
      } else if (type == KELO_EVENT_TASK_INIT) {
        kelo_task_init_event record;
        ASSERT_EQ(package->payload.size(), sizeof(record));
        memcpy(&record, package->payload.data(), sizeof(record));
        ++scanned[record.pid];
      }
    }
  }
  static int Total(const std::map<int32_t, int>& counts) {
    int total = 0;
    for (const auto& [pid, count] : counts) total += count;
    return total;
  }
};

// The service on fixture rings (so that the scan fills the table and
// signal 50 is served) and a subscriber of the task events.
class TaskHealTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    KELO_SKIP_WITHOUT_BPF();
    ASSERT_TRUE(rings);
    ASSERT_TRUE((service = kelo_test::StartServiceOnRings(*rings)));
    ASSERT_TRUE(client.Connect());
    for (int32_t type : {int32_t{KELO_CLIENT_EVENT_PROCESS_CREATE}, int32_t{KELO_CLIENT_EVENT_PROCESS_EXIT},
                         int32_t{KELO_EVENT_TASK_INIT}}) {
      ASSERT_EQ(client.Ask(static_cast<uint32_t>(type), REQ_ADD_OBSERVER_EVENT, type), 0);
    }
  }
  void Inject(const std::string& record) { ASSERT_TRUE(rings->normal->Inject(record.data(), record.size())); }
  // A record of no consequence that wakes the normal pump.
  void Wake() { Inject(kelo_test::RawRecord(KELO_EVENT_CGROUP_ATTACH)); }

  kelo_test::Sleeper sleeper;  // before the service's threads
  std::unique_ptr<kelo_test::ServiceRingBuffers> rings = kelo_test::ServiceRingBuffers::Create();
  KeloBpfService* service = nullptr;
  Client client;
};

TEST_F(TaskHealTest, ALostExitAndALostForkAreMendedAfterACountedLossOnly) {
  const pid_t dead = kelo_test::RunChild();
  ASSERT_TRUE(InTable(sleeper.pid)) << "the start-up scan found it";
  // What lost records leave behind: a dead pid kept, a live process missed.
  KeloTaskManager::GetInstance()->AddKeloTask(dead, Ghost(dead));
  KeloTaskManager::GetInstance()->DelKeloTask(sleeper.pid);

  // Records flow and the counts are read, but nothing was lost.
  ASSERT_NO_FATAL_FAILURE(Wake());
  Received quiet;
  ASSERT_NO_FATAL_FAILURE(quiet.Drain(&client, TaskHealer::SETTLE + 1500ms));
  EXPECT_EQ(service->taskHeals().totals().runs, 0u);
  EXPECT_TRUE(InTable(dead));
  EXPECT_FALSE(InTable(sleeper.pid));

  // A lost exit record, counted by the kernel.
  ASSERT_TRUE(rings->normalLost->Add(KELO_EVENT_TASK_EXIT, 1));
  ASSERT_NO_FATAL_FAILURE(Wake());
  ASSERT_TRUE(kelo_test::WaitUntil([&] { return service->taskHeals().totals().runs == 1; }, 15s));
  EXPECT_FALSE(InTable(dead));
  EXPECT_TRUE(InTable(sleeper.pid));
  Received healed;
  ASSERT_NO_FATAL_FAILURE(healed.Drain(&client));
  EXPECT_EQ(healed.exited[dead], 1);
  EXPECT_EQ(healed.exitedComm[dead], "ghost");
  EXPECT_EQ(healed.scanned[sleeper.pid], 1) << "fed in as the start-up scan feeds it";
  EXPECT_EQ(healed.created.count(sleeper.pid), 0u) << "its creation was not seen, so it is not told";
  // Other processes of the machine may have come and gone since the scan:
  // every change is told, and counted.
  const TaskHealer::Totals totals = service->taskHeals().totals();
  EXPECT_EQ(totals.dropped, static_cast<uint64_t>(Received::Total(healed.exited)));
  EXPECT_EQ(totals.added, static_cast<uint64_t>(Received::Total(healed.scanned)));
  const std::optional<std::string> state = kelo_test::RequestStateText();
  ASSERT_TRUE(state);
  EXPECT_EQ(kelo_test::StateLine(*state, "TaskHeal"),
            (std::vector<int64_t>{1, static_cast<int64_t>(totals.dropped), static_cast<int64_t>(totals.added)}));
  EXPECT_EQ(kelo_test::StateLine(*state, "PacingWaits").size(), 1u) << "the lines before stay";
}

std::string ExitRecord(pid_t pid, uint64_t ts) {
  kelo_task_exit_event record = {};
  record.header.type = KELO_EVENT_TASK_EXIT;
  record.header.ts = ts;
  record.pid = pid;
  strcpy(record.comm, "ghost");
  record.kind = KELO_TASK_KIND_PROCESS;
  return kelo_test::Bytes(record);
}

std::string ForkRecord(pid_t pid, uint64_t ts) {
  kelo_task_create_event record = {};
  record.header.type = KELO_EVENT_TASK_CREATE;
  record.header.ts = ts;
  record.pid = pid;
  record.ppid = getpid();
  strcpy(record.comm, "forked");
  record.kind = KELO_TASK_KIND_PROCESS;
  return kelo_test::Bytes(record);
}

TEST_F(TaskHealTest, RecordsStillQueuedWhenTheHealRanAreToldOnceNotTwiceOrNever) {
  const pid_t dead = kelo_test::RunChild();
  KeloTaskManager::GetInstance()->AddKeloTask(dead, Ghost(dead));
  KeloTaskManager::GetInstance()->DelKeloTask(sleeper.pid);
  const uint64_t before = MonotonicNowNs();
  const TaskHealResult result = service->healTaskTable();
  EXPECT_GE(result.dropped, 1u);
  EXPECT_GE(result.added, 1u);
  KeloTask healedRecord = {};
  {
    KeloTaskManager* tasks = KeloTaskManager::GetInstance();
    MutexLock lock(tasks->lock());
    ASSERT_NE(tasks->GetKeloTaskLocked(sleeper.pid), nullptr);
    healedRecord = *tasks->GetKeloTaskLocked(sleeper.pid);
  }

  // The exit and the fork the heal mended, queued before it looked, come
  // now (the fork twice: the mark is used once); then a new process with
  // the dead one's pid exits.
  ASSERT_NO_FATAL_FAILURE(Inject(ExitRecord(dead, before)));
  ASSERT_NO_FATAL_FAILURE(Inject(ForkRecord(sleeper.pid, before)));
  ASSERT_NO_FATAL_FAILURE(Inject(ForkRecord(sleeper.pid, before)));
  ASSERT_NO_FATAL_FAILURE(Inject(ExitRecord(dead, MonotonicNowNs())));
  Received received;
  ASSERT_NO_FATAL_FAILURE(received.Drain(&client));
  EXPECT_EQ(received.exited[dead], 2) << "once by the heal, once for the later process";
  EXPECT_EQ(received.created[sleeper.pid], 1);
  EXPECT_EQ(received.scanned[sleeper.pid], 1);
  // The heal's record, read from /proc after the fork, stays.
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  MutexLock lock(tasks->lock());
  const KeloTask* task = tasks->GetKeloTaskLocked(sleeper.pid);
  ASSERT_NE(task, nullptr);
  EXPECT_EQ(memcmp(task, &healedRecord, sizeof(KeloTask)), 0);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
