// The process table on this kernel: the real programs report forks, exits,
// threads and memory of processes this test makes, and the service's derived
// events, dumps and counters must agree with what procfs and ps say.
#include <android-base/file.h>
#include <android-base/strings.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "bpf/kelo_bpf_events.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/ipc_client.h"
#include "tests/support/live_service.h"
#include "tests/support/process.h"
#include "tests/support/state_file.h"
#include "tests/support/wait.h"
#include "tools/kelo_bpf_client_files.h"

namespace {

using namespace std::chrono_literals;
using Kelo::Bpf::KELO_BPF_CLIENT_SOCKET_NAME;
using Kelo::Bpf::REQ_ADD_OBSERVER_EVENT;
using kelo_test::OwnComm;
using kelo_test::WaitUntil;

// The record an event package carries, if it is one of type T's size.
template <typename T>
std::optional<T> Decode(const kelo_test::Package& package, uint32_t type) {
  T record;
  if (package.type != Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT || package.Word(0) != type ||
      package.payload.size() != sizeof(record)) {
    return std::nullopt;
  }
  memcpy(&record, package.payload.data(), sizeof(record));
  return record;
}

// Subscribes to `types` and counts every event that arrives, by type.
class Subscriber {
 public:
  explicit Subscriber(const std::vector<int>& types) {
    EXPECT_TRUE(client.Connect());
    for (int type : types) EXPECT_EQ(client.Ask(type, REQ_ADD_OBSERVER_EVENT, type), 0) << type;
  }
  // Reads until `done` holds after a package, or nothing came for `limit`,
  // or a minute passed.
  bool ReadUntil(const std::function<bool(const kelo_test::Package&)>& done, std::chrono::milliseconds limit = 30s) {
    const auto deadline = std::chrono::steady_clock::now() + 60s;
    while (std::chrono::steady_clock::now() < deadline) {
      std::optional<kelo_test::Package> package = client.Next(limit);
      if (!package) return false;
      if (package->type == Kelo::Bpf::IPC_PACKAGE_TYPE_EVENT) ++received[package->Word(0)];
      if (done(*package)) return true;
    }
    return false;
  }
  // Reads until nothing has come for `quiet`.
  void Drain(std::chrono::milliseconds quiet) {
    ReadUntil([](const kelo_test::Package&) { return false; }, quiet);
  }
  std::map<uint32_t, int64_t> received;

 private:
  kelo_test::IpcClient client{KELO_BPF_CLIENT_SOCKET_NAME};
};

// Once the normal pump has switched every event of the kernel side on.
bool NormalEventsFlow() {
  return WaitUntil([] {
    auto status = kelo_test::StatusArray::Open(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
    return status && (status->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_NORMAL) != 0;
  });
}

// Once events flow: task creation and exit only, as the machine's memory
// records would crowd a slow (sanitizer) build's ring buffer.
bool OnlyTaskEventsFlow() {
  auto status = kelo_test::StatusArray::Open(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
  return NormalEventsFlow() && status && status->Set(KELO_RB_STATUS_FLAGS, KELO_RB_FLAG_CORE);
}

// Runs a Python program as a child of this process; its stdout is readable.
class Script {
 public:
  explicit Script(const std::string& program) {
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    pid_ = fork();
    if (pid_ == 0) {
      dup2(ends[1], STDOUT_FILENO);
      execl("/usr/bin/python3", "python3", "-u", "-c", program.c_str(), nullptr);
      _exit(127);
    }
    close(ends[1]);
    out_ = fdopen(ends[0], "r");
  }
  ~Script() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    fclose(out_);
  }
  // The next line the program printed.
  std::string Line() {
    char line[256] = {};
    return fgets(line, sizeof(line), out_) != nullptr ? android::base::Trim(line) : "";
  }
  pid_t pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  FILE* out_ = nullptr;
};

TEST(E2eTasks, ForksAndExitsOfFortyChildrenArriveAsProcessEventsWithPidParentAndName) {
  KELO_SKIP_WITHOUT_BPF();
  kelo_test::StartServiceLikeTheDaemon();
  Subscriber subscriber({KELO_CLIENT_EVENT_PROCESS_CREATE, KELO_CLIENT_EVENT_PROCESS_EXIT});
  ASSERT_TRUE(OnlyTaskEventsFlow());
  std::set<pid_t> children;
  for (int i = 0; i < 40; ++i) children.insert(kelo_test::RunChild());
  const std::string comm = OwnComm();

  std::set<pid_t> created, exited;
  subscriber.ReadUntil([&](const kelo_test::Package& package) {
    if (auto e = Decode<kelo_process_create_client_event>(package, KELO_CLIENT_EVENT_PROCESS_CREATE)) {
      if (children.count(e->pid) != 0) {
        created.insert(e->pid);
        EXPECT_EQ(e->ppid, getpid());
        EXPECT_EQ(std::string(e->comm), comm);
      }
    } else if (auto e = Decode<kelo_process_exit_client_event>(package, KELO_CLIENT_EVENT_PROCESS_EXIT)) {
      if (children.count(e->pid) != 0) {
        exited.insert(e->pid);
        EXPECT_EQ(std::string(e->comm), comm);
      }
    }
    return created.size() == children.size() && exited.size() == children.size();
  });
  EXPECT_EQ(created, children);
  EXPECT_EQ(exited, children);
}

TEST(E2eTasks, ThreadsAndMemoryOfAProcessOlderThanThreeSecondsAreReported) {
  KELO_SKIP_WITHOUT_BPF();
  kelo_test::StartServiceLikeTheDaemon();
  Subscriber subscriber({KELO_CLIENT_EVENT_THREAD_COUNT, KELO_CLIENT_EVENT_RSS_CHANGE});
  ASSERT_TRUE(NormalEventsFlow());
  // Lives 3.5 s, starts 12 threads that wait, then touches 64 MiB and says so.
  Script script(
      "import threading, time, sys\n"
      "time.sleep(3.5)\n"
      "stop = threading.Event()\n"
      "threads = [threading.Thread(target=stop.wait) for _ in range(12)]\n"
      "[t.start() for t in threads]\n"
      "print('threads', flush=True)\n"
      "block = bytearray(64 << 20)\n"
      "for i in range(0, len(block), 4096): block[i] = 1\n"
      "print('memory', flush=True)\n"
      "sys.stdin.read()\n");
  ASSERT_EQ(script.Line(), "threads");
  std::optional<kelo_thread_count_client_event> thread;
  ASSERT_TRUE(subscriber.ReadUntil([&](const kelo_test::Package& package) {
    thread = Decode<kelo_thread_count_client_event>(package, KELO_CLIENT_EVENT_THREAD_COUNT);
    return thread && thread->pid == script.pid();
  }));
  EXPECT_EQ(thread->ppid, getpid());
  EXPECT_EQ(thread->thread_num - thread->old_thread_num, 11);

  ASSERT_EQ(script.Line(), "memory");
  std::string status;
  ASSERT_TRUE(android::base::ReadFileToString("/proc/" + std::to_string(script.pid()) + "/status", &status));
  const int64_t vmRss = std::stoll(status.substr(status.find("\nVmRSS:") + 7)) * 1024;
  ASSERT_GT(vmRss, 64 << 20);
  // The latest report once the memory is touched: within 10% of VmRSS.
  std::optional<kelo_rss_change_client_event> rss;
  ASSERT_TRUE(subscriber.ReadUntil([&](const kelo_test::Package& package) {
    rss = Decode<kelo_rss_change_client_event>(package, KELO_CLIENT_EVENT_RSS_CHANGE);
    return rss && rss->pid == script.pid() && rss->rss[KELO_RSS_ANON] >= vmRss * 9 / 10 &&
           rss->rss[KELO_RSS_ANON] <= vmRss * 11 / 10;
  })) << "no report of pid "
      << script.pid() << " near VmRSS " << vmRss;
  EXPECT_EQ(rss->ppid, getpid());
  EXPECT_EQ(std::string(rss->comm), OwnComm());
}

// pid -> "ppid threads" of every process ps lists.
std::map<int, std::string> PsThreads() {
  std::map<int, std::string> rows;
  FILE* ps = popen("ps -e -o pid=,ppid=,nlwp=", "r");
  int pid = 0, ppid = 0, threads = 0;
  while (ps != nullptr && fscanf(ps, "%d %d %d", &pid, &ppid, &threads) == 3) {
    rows[pid] = std::to_string(ppid) + " " + std::to_string(threads);
  }
  if (ps != nullptr) pclose(ps);
  return rows;
}

// The task table the service writes on `signal`, parsed by the client
// tool's reader; every line must be a row.
std::optional<Kelo::Bpf::TaskDump> RequestTaskDump(int signal) {
  const char* path = Kelo::Bpf::KeloTaskManager::KELOTASK_DUMP_TEMPLATE;
  unlink(path);
  kill(getpid(), signal);
  std::string text, problem;
  Kelo::Bpf::TaskDump dump;
  if (!WaitUntil([&] {
        return android::base::ReadFileToString(path, &text) && text.find("initTimeStamp") != std::string::npos &&
               text.back() == '\n';
      })) {
    return std::nullopt;
  }
  EXPECT_TRUE(Kelo::Bpf::ParseTaskDump(text, &dump, &problem)) << problem;
  EXPECT_EQ(dump.skippedLines, 0u) << text;
  return dump;
}

// pid -> "ppid threads" of a dump's rows.
std::map<int, std::string> DumpThreads(const Kelo::Bpf::TaskDump& dump) {
  std::map<int, std::string> rows;
  for (const auto& row : dump.rows) rows[row.pid] = std::to_string(row.ppid) + " " + std::to_string(row.threads);
  return rows;
}

TEST(E2eTasks, TaskTableOfSignalFiftyOneAgreesWithPs) {
  KELO_SKIP_WITHOUT_BPF();
  kelo_test::StartServiceLikeTheDaemon();
  ASSERT_TRUE(OnlyTaskEventsFlow());  // threads and parents come from task records
  const std::map<int, std::string> before = PsThreads();
  const std::optional<Kelo::Bpf::TaskDump> all = RequestTaskDump(51);
  const std::map<int, std::string> after = PsThreads();
  ASSERT_TRUE(all);
  const std::map<int, std::string> allThreads = DumpThreads(*all);
  EXPECT_EQ(all->count, allThreads.size());
  int compared = 0;
  for (const auto& [pid, row] : before) {
    auto later = after.find(pid);
    // Alive before and after with the same parent and threads all along.
    if (later == after.end() || later->second != row) continue;
    ++compared;
    auto dumped = allThreads.find(pid);
    ASSERT_NE(dumped, allThreads.end()) << "pid " << pid << " missing";
    EXPECT_EQ(dumped->second, row) << "pid " << pid << ": ppid and threads in the table, then by ps";
  }
  EXPECT_GT(compared, 10);
}

TEST(E2eTasks, StateFileTotalsAgreeWithWhatASubscriberSinceBeforeReadinessReceived) {
  KELO_SKIP_WITHOUT_BPF();
  kelo_test::StartServiceLikeTheDaemon(false);
  Subscriber subscriber({0, 1, 2, 3, 4, 5, 6, 7});
  kelo_test::SetServiceReady(true);
  auto status = kelo_test::StatusArray::Open(KELO_BPF_MAP_PATH(KELO_BPF_DEFINESET, "ringbuf_status"));
  auto gplStatus = kelo_test::StatusArray::Open(KELO_BPF_MAP_PATH(KELO_BPF_GPL_DEFINESET, "ringbuf_status"));
  ASSERT_TRUE(WaitUntil([&] {
    return status && gplStatus && (status->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_NORMAL) != 0 &&
           (gplStatus->Get(KELO_RB_STATUS_FLAGS) & KELO_RB_FLAG_NORMAL) != 0;
  }));
  // Read all along, so that the subscriber's queue never fills; then the
  // kernel side is switched off, so that what was sent is all there is.
  std::thread activity([&] {
    for (int i = 0; i < 20; ++i) kelo_test::RunChild();
    status->Set(KELO_RB_STATUS_FLAGS, 0);
    gplStatus->Set(KELO_RB_STATUS_FLAGS, 0);
  });
  subscriber.Drain(1s);
  activity.join();
  subscriber.Drain(1s);

  const std::optional<std::vector<int64_t>> totals = kelo_test::RequestStateTotals();
  ASSERT_TRUE(totals);
  EXPECT_GT(subscriber.received[KELO_EVENT_TASK_INIT], 10);
  EXPECT_GE(subscriber.received[KELO_EVENT_TASK_CREATE], 20);
  int64_t all = 0;
  for (uint32_t type = 0; type <= KELO_EVENT_TYPE_MAX; ++type) {
    // Each record of the start-up scan is counted twice.
    const int64_t expected = subscriber.received[type] * (type == KELO_EVENT_TASK_INIT ? 2 : 1);
    EXPECT_EQ((*totals)[1 + type], expected) << "type " << type;
    all += expected;
  }
  EXPECT_EQ((*totals)[0], all);
  EXPECT_GT((*totals)[1 + KELO_EVENT_POLL_COUNT], 0);
}

}  // namespace
