// The task event handlers through the real dispatch path: records written
// into the service's real ring buffer from the kernel side, derived events
// read byte for byte by a subscriber on the real socket.
//
// The start-up scan fills the table with this machine's processes first, so
// the records here use pids above the kernel's pid_max (32768 here) where a
// pid must be unknown, and replace a scanned record whole (type 0) where a
// small pid is needed.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/live_service.h"
#include "tests/support/log_capture.h"
#include "tests/support/wait.h"

namespace Kelo {
namespace Bpf {
namespace {

using kelo_test::Bytes;
using kelo_test::WaitUntil;

constexpr uint64_t SECOND_NS = 1000000000;
constexpr uint64_t BORN = 50 * SECOND_NS;       // kernel time the test's records are made at
constexpr uint64_t OLD = BORN + 3 * SECOND_NS;  // first time a change of them is reported
constexpr int32_t UNKNOWN_PID = 100001;         // above pid_max: never a real process

void CopyComm(char* field, const char* comm) {
  memset(field, 0, KELO_COMM_LEN);
  strncpy(field, comm, KELO_COMM_LEN - 1);
}

std::string InitRecord(int32_t pid, int32_t ppid, const char* comm, int32_t threads = 1, int64_t anon = 0,
                       uint64_t ts = BORN) {
  kelo_task_init_event r = {};
  r.header = {KELO_EVENT_TASK_INIT, 0, ts};
  r.pid = pid;
  r.ppid = ppid;
  r.uid = 10001;
  r.thread_num = threads;
  CopyComm(r.comm, comm);
  r.rss_file = 8192;
  r.rss_anon = anon;
  r.init_time = 1700000000;
  return Bytes(r);
}

std::string ForkRecord(int32_t pid, int32_t ppid, const char* comm, uint32_t kind = KELO_TASK_KIND_PROCESS,
                       uint64_t ts = BORN) {
  kelo_task_create_event r = {};
  r.header = {KELO_EVENT_TASK_CREATE, 0, ts};
  r.ppid = ppid;
  r.pid = pid;
  r.uid = 10002;
  CopyComm(r.comm, comm);
  r.kind = kind;
  return Bytes(r);
}

std::string ExitRecord(int32_t pid, const char* comm, uint32_t kind = KELO_TASK_KIND_PROCESS, uint64_t ts = BORN) {
  kelo_task_exit_event r = {};
  r.header = {KELO_EVENT_TASK_EXIT, 0, ts};
  r.pid = pid;
  CopyComm(r.comm, comm);
  r.kind = kind;
  return Bytes(r);
}

std::string RssRecord(int32_t pid, int32_t member, int64_t size, uint64_t ts = OLD) {
  kelo_rss_stat_event r = {};
  r.header = {KELO_EVENT_RSS_STAT, 0, ts};
  r.pid = pid;
  r.member = member;
  r.size = size;
  return Bytes(r);
}

std::string Created(int32_t pid, int32_t ppid, uint32_t uid, const char* comm) {
  kelo_process_create_client_event e = {KELO_CLIENT_EVENT_PROCESS_CREATE, pid, ppid, uid, {}};
  CopyComm(e.comm, comm);
  return Bytes(e);
}

std::string Exited(int32_t pid, const char* comm) {
  kelo_process_exit_client_event e = {KELO_CLIENT_EVENT_PROCESS_EXIT, pid, {}};
  CopyComm(e.comm, comm);
  return Bytes(e);
}

std::string Threads(int32_t pid, int32_t ppid, int32_t oldCount, int32_t count) {
  kelo_thread_count_client_event e = {KELO_CLIENT_EVENT_THREAD_COUNT, pid, ppid, 10001, oldCount, count};
  return Bytes(e);
}

// rss and old in member order: file, anon, swap, shmem.
std::string RssChanged(int32_t pid, int32_t ppid, const char* comm, std::array<int64_t, 4> rss,
                       std::array<int64_t, 4> old) {
  kelo_rss_change_client_event e = {};
  e.type = KELO_CLIENT_EVENT_RSS_CHANGE;
  e.pid = pid;
  e.ppid = ppid;
  e.uid = 10001;
  CopyComm(e.comm, comm);
  for (int i = 0; i < 4; ++i) {
    e.rss[i] = rss[i];
    e.rss_old[i] = old[i];
  }
  return Bytes(e);
}

// A child that sleeps under `name` until it is told to rename itself (one
// line on its pipe) or the pipe closes.
class NamedChild {
 public:
  explicit NamedChild(const char* name) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
      close(ends[1]);
      prctl(PR_SET_NAME, name);
      char next[KELO_COMM_LEN];
      while (true) {
        memset(next, 0, sizeof(next));
        if (read(ends[0], next, sizeof(next) - 1) <= 0) break;
        prctl(PR_SET_NAME, next);
      }
      _exit(0);
    }
    close(ends[0]);
    control_ = ends[1];
    EXPECT_TRUE(WaitUntil([&] { return StatusName() == name; }));
  }
  ~NamedChild() {
    close(control_);
    waitpid(pid_, nullptr, 0);
  }
  void Rename(const char* name) {
    EXPECT_EQ(write(control_, name, strlen(name)), static_cast<ssize_t>(strlen(name)));
    EXPECT_TRUE(WaitUntil([&] { return StatusName() == name; }));
  }
  pid_t pid() const { return pid_; }

 private:
  std::string StatusName() const {
    UpdateProcessExdata data = {};
    return KeloBpfService::GetInstance()->getProcessInfo(pid_, &data) == 0 ? std::string(data.name) : "";
  }
  pid_t pid_ = -1;
  int control_ = -1;
};

class TaskHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_WITHOUT_BPF();
    ASSERT_TRUE(rings);
    // Task records flow once the scan is over and the normal pump polls.
    ASSERT_TRUE(kelo_test::StartServiceOnRings(*rings));
    ASSERT_TRUE(client.Connect());
    for (int type = KELO_CLIENT_EVENT_PROCESS_CREATE; type <= KELO_CLIENT_EVENT_RSS_CHANGE; ++type) {
      ASSERT_EQ(client.Ask(type, REQ_ADD_OBSERVER_EVENT, type), 0);
    }
  }
  void Inject(const std::string& record) { ASSERT_TRUE(rings->normal->Inject(record.data(), record.size())); }
  // A copy of the table's record of pid, taken under the table's lock once
  // every injected record has been handled (the last one sent is a marker).
  KeloTask Task(int32_t pid) {
    Inject(ExitRecord(UNKNOWN_PID + 99, "marker"));
    client.ExpectEvent(Exited(UNKNOWN_PID + 99, "marker"));
    KeloTaskManager* tasks = KeloTaskManager::GetInstance();
    MutexLock lock(tasks->lock());
    const KeloTask* task = tasks->GetKeloTaskLocked(pid);
    return task != nullptr ? *task : KeloTask{};
  }

  kelo_test::LogCapture log;
  std::unique_ptr<kelo_test::ServiceRingBuffers> rings = kelo_test::ServiceRingBuffers::Create();
  kelo_test::IpcClient client{KELO_BPF_CLIENT_SOCKET_NAME};
};

TEST_F(TaskHandlerTest, ProcessForkAndExitAreToldOnceAndUnknownKindsLogged) {
  const int32_t known = UNKNOWN_PID + 1;
  Inject(InitRecord(known, 1, "known"));
  Inject(ForkRecord(known, 7, "again"));  // a known pid: silent
  Inject(ForkRecord(known + 1, 7, "child"));
  client.ExpectEvent(Created(known + 1, 7, 10002, "child"));
  const KeloTask child = Task(known + 1);
  EXPECT_EQ(child.threadNum, 1);
  EXPECT_EQ(child.oldThreadNum, 1);
  EXPECT_EQ(child.createTimeNs, static_cast<int64_t>(BORN));
  EXPECT_EQ(child.rssAnonSize, 0);
  EXPECT_EQ(child.mmId, 0u);
  EXPECT_EQ(Task(known).ppid, 1);

  // The kernel side did not know the parent: procfs tells parent and name.
  NamedChild real("realname");
  Inject(ForkRecord(real.pid(), 0, "placeholder"));
  client.ExpectEvent(Created(real.pid(), getpid(), 10002, "realname"));
  // Gone already: the record's own name and parent 0.
  Inject(ForkRecord(known + 2, 0, "gone"));
  client.ExpectEvent(Created(known + 2, 0, 10002, "gone"));
  EXPECT_TRUE(log.contains("[KeloBpfService][GPI] Task not exists, errno info: No such file or directory"));

  Inject(ExitRecord(known + 1, "child"));
  client.ExpectEvent(Exited(known + 1, "child"));
  EXPECT_EQ(Task(known + 1).pid, 0);
  Inject(ExitRecord(known + 50, "untracked"));  // told all the same
  client.ExpectEvent(Exited(known + 50, "untracked"));

  Inject(ForkRecord(known + 3, 1, "odd", 3));
  Inject(ExitRecord(known, "odd", 0));
  EXPECT_EQ(Task(known + 3).pid, 0);
  EXPECT_EQ(Task(known).pid, known);
  EXPECT_TRUE(log.contains("[KeloBpfService] Task Create raw event (SCHED__TASK_CREATE) error!"));
  EXPECT_TRUE(log.contains("[KeloBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!"));
}

TEST_F(TaskHandlerTest, ThreadCountIsToldWhenElevenApartOnceTheRecordIsThreeSecondsOld) {
  const int32_t pid = UNKNOWN_PID + 10;
  Inject(InitRecord(pid, 1, "threads", 5));
  // Not newer than the record: already counted in it.
  Inject(ForkRecord(pid, 1, "threads", KELO_TASK_KIND_THREAD, BORN));
  Inject(ExitRecord(pid, "threads", KELO_TASK_KIND_THREAD, BORN - 1));
  for (int i = 0; i < 10; ++i) Inject(ForkRecord(pid, 1, "threads", KELO_TASK_KIND_THREAD, BORN + 1 + i));
  EXPECT_EQ(Task(pid).threadNum, 15);
  Inject(ForkRecord(pid, 1, "threads", KELO_TASK_KIND_THREAD, OLD));
  client.ExpectEvent(Threads(pid, 1, 5, 16));
  EXPECT_EQ(Task(pid).oldThreadNum, 16);
  // Down again: exits count the same way.
  for (int i = 0; i < 11; ++i) Inject(ExitRecord(pid, "threads", KELO_TASK_KIND_THREAD, OLD + 1 + i));
  client.ExpectEvent(Threads(pid, 1, 16, 5));

  // Eleven apart while younger than 3 s: the difference waits for the age.
  const int32_t young = UNKNOWN_PID + 11;
  Inject(InitRecord(young, 1, "young", 1));
  for (int i = 0; i < 11; ++i) Inject(ForkRecord(young, 1, "young", KELO_TASK_KIND_THREAD, OLD - 11 + i));
  EXPECT_EQ(Task(young).threadNum, 12);
  Inject(ForkRecord(young, 1, "young", KELO_TASK_KIND_THREAD, OLD));
  client.ExpectEvent(Threads(young, 1, 1, 13));
  // Threads of unknown processes are ignored.
  Inject(ForkRecord(UNKNOWN_PID + 12, 1, "nobody", KELO_TASK_KIND_THREAD, OLD));
  EXPECT_EQ(Task(UNKNOWN_PID + 12).pid, 0);
}

TEST_F(TaskHandlerTest, RssChangeIsToldOnceSixteenKibAccumulateAndOnlyForUserProcesses) {
  const int32_t pid = UNKNOWN_PID + 20;
  Inject(InitRecord(pid, 1, "app", 1, 1 << 20));
  // Ignored outright: member 4, a negative member or size, an unknown pid.
  Inject(RssRecord(pid, 4, 1 << 30));
  Inject(RssRecord(pid, -1, 1 << 30));
  Inject(RssRecord(pid, KELO_RSS_ANON, -4096));
  Inject(RssRecord(UNKNOWN_PID + 21, KELO_RSS_ANON, 1 << 30));
  KeloTask task = Task(pid);
  EXPECT_EQ(task.rssAnonSize, 1 << 20);
  EXPECT_EQ(task.mmId, 0u);

  // Too young: the change accumulates silently.
  Inject(RssRecord(pid, KELO_RSS_SHMEM, 4096, OLD - 1));
  // Small steps reach 16 KiB over the four members: told exactly once.
  Inject(RssRecord(pid, KELO_RSS_ANON, (1 << 20) + 4096));
  Inject(RssRecord(pid, KELO_RSS_FILE, 8192 - 4096));
  EXPECT_EQ(Task(pid).mmId, 1000u);
  Inject(RssRecord(pid, KELO_RSS_SWAP, 4096));
  client.ExpectEvent(RssChanged(pid, 1, "app", {4096, (1 << 20) + 4096, 4096, 4096}, {8192, 1 << 20, 0, 0}));
  Inject(RssRecord(pid, KELO_RSS_SWAP, 8192));
  task = Task(pid);
  EXPECT_EQ(task.rssSwapSize, 8192);
  EXPECT_EQ(task.rssSwapOldSize, 4096);
  EXPECT_EQ(task.rssFileOldSize, 4096);

  // System processes, kernel threads, shells and dumpsys: updated, never
  // told, their last-told figures never move.
  struct Quiet {
    int32_t pid;
    int32_t ppid;
    const char* comm;
  };
  for (const Quiet& quiet : {Quiet{2, 0, "kthreadd"}, Quiet{300, 1, "system"}, Quiet{UNKNOWN_PID + 22, 2, "kworker"},
                             Quiet{UNKNOWN_PID + 23, 1, "sh"}, Quiet{UNKNOWN_PID + 24, 1, "shellapp"},
                             Quiet{UNKNOWN_PID + 25, 1, "dumpsys_meminfo"}}) {
    Inject(InitRecord(quiet.pid, quiet.ppid, quiet.comm, 1, 4096));
    Inject(RssRecord(quiet.pid, KELO_RSS_ANON, 64 << 20));
    task = Task(quiet.pid);
    EXPECT_EQ(task.rssAnonSize, 64 << 20) << quiet.comm;
    EXPECT_EQ(task.rssAnonOldSize, 4096) << quiet.comm;
  }
  // pid 1 and pid 301 are told.
  for (int32_t told : {1, 301}) {
    Inject(InitRecord(told, 0, "init", 1, 0));
    Inject(RssRecord(told, KELO_RSS_ANON, 16384));
    client.ExpectEvent(RssChanged(told, 0, "init", {8192, 16384, 0, 0}, {8192, 0, 0, 0}));
  }
}

TEST_F(TaskHandlerTest, StartingProcessesHaveNameAndParentReReadAtMostEveryThreeSeconds) {
  NamedChild child("worker");
  Inject(InitRecord(child.pid(), 1, "main"));
  Inject(RssRecord(child.pid(), KELO_RSS_ANON, 16384));
  client.ExpectEvent(RssChanged(child.pid(), getpid(), "worker", {8192, 16384, 0, 0}, {8192, 0, 0, 0}));

  // The re-read name is no longer a starting one: no more re-reads.
  child.Rename("renamed");
  Inject(RssRecord(child.pid(), KELO_RSS_ANON, 32768));
  client.ExpectEvent(RssChanged(child.pid(), getpid(), "worker", {8192, 32768, 0, 0}, {8192, 16384, 0, 0}));

  // Still a starting name after the re-read: the next one waits 3 s.
  child.Rename("main");
  Inject(InitRecord(child.pid(), 1, "re-initialized>"));
  Inject(RssRecord(child.pid(), KELO_RSS_ANON, 16384));
  client.ExpectEvent(RssChanged(child.pid(), getpid(), "main", {8192, 16384, 0, 0}, {8192, 0, 0, 0}));
  const int64_t refreshed = Task(child.pid()).procRefreshTime;
  EXPECT_GT(refreshed, 0);
  child.Rename("late");
  Inject(RssRecord(child.pid(), KELO_RSS_ANON, 32768));
  client.ExpectEvent(RssChanged(child.pid(), getpid(), "main", {8192, 32768, 0, 0}, {8192, 16384, 0, 0}));
  EXPECT_EQ(Task(child.pid()).procRefreshTime, refreshed);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
