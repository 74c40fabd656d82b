// The task dumps as the running service writes them on signals 51 to 54.
// Their exact layout is pinned by the task manager tests; here the rows are
// parsed by the client tool's reader.
// The start-up scan may add the machine's processes to the table, so the
// cases only look for records of their own, under pids no process can have.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/bpf_fixture.h"
#include "tests/support/emulation.h"
#include "tests/support/live_service.h"
#include "tests/support/sandbox.h"
#include "tests/support/wait.h"
#include "tools/kelo_bpf_client_files.h"

namespace Kelo {
namespace Bpf {
namespace {

using namespace std::chrono_literals;

constexpr char DUMP_FILE_NAME[] = "DUMPTASK_INFO";
// Above any pid_max.
constexpr int32_t OWN_PID_BASE = 2000000000;

// A dump as the client tool's reader sees it; parsed when every line after
// the headers was a row and the file ended with its last line.
struct Dump {
  bool parsed = false;
  TaskDump table;
  std::string text;

  const TaskDumpRow* Find(int32_t pid) const {
    for (const TaskDumpRow& row : table.rows) {
      if (row.pid == pid) return &row;
    }
    return nullptr;
  }
};

Dump ParseDump(const std::string& text) {
  Dump dump;
  dump.text = text;
  std::string problem;
  dump.parsed = ParseTaskDump(text, &dump.table, &problem) && dump.table.skippedLines == 0 && text.back() == '\n';
  return dump;
}

// The row the dumps give for task.
std::string RowText(const KeloTask& task, KeloTaskDumpColumns columns) {
  const std::string text = FormatKeloTaskDump({task}, 1, 0, KeloTaskDumpRows::ALL, columns);
  return text.substr(text.find('\n', text.find('\n') + 1) + 1);
}

class ServiceDumpTest : public ::testing::Test {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    KELO_SKIP_WITHOUT_BPF();
    ASSERT_TRUE(kelo_test::MakeDirs(KeloTaskManager::KELOTASK_DUMP_PATH));
    inotify_.reset(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    ASSERT_GE(inotify_add_watch(inotify_.get(), KeloTaskManager::KELOTASK_DUMP_PATH, IN_CLOSE_WRITE), 0);
    // The dump signals are routed once a pump has started.
    ASSERT_TRUE(rings_ && kelo_test::StartServiceOnRings(*rings_));
  }

  // The dump written on `signal` sent to this process, read once the dump
  // closed its file; unparsed and empty when none came.
  Dump RequestDump(int signal) {
    char events[4096];
    while (read(inotify_.get(), events, sizeof(events)) > 0) {
    }
    if (kill(getpid(), signal) != 0) return {};
    const auto deadline = std::chrono::steady_clock::now() + 30s;
    while (std::chrono::steady_clock::now() < deadline) {
      pollfd ready = {inotify_.get(), POLLIN, 0};
      if (poll(&ready, 1, 100) <= 0) continue;
      const ssize_t n = read(inotify_.get(), events, sizeof(events));
      for (ssize_t offset = 0; offset < n;) {
        inotify_event event;
        memcpy(&event, events + offset, sizeof(event));
        const std::string name = event.len > 0 ? std::string(events + offset + sizeof(event)) : "";
        offset += static_cast<ssize_t>(sizeof(event) + event.len);
        if (name != DUMP_FILE_NAME) continue;
        std::string text;
        android::base::ReadFileToString(KeloTaskManager::KELOTASK_DUMP_TEMPLATE, &text);
        return ParseDump(text);
      }
    }
    ADD_FAILURE() << "no dump for signal " << signal;
    return {};
  }

  std::unique_ptr<kelo_test::ServiceRingBuffers> rings_ = kelo_test::ServiceRingBuffers::Create();
  android::base::unique_fd inotify_;
};

// Each signal writes its variant while a mutator adds, updates in place and
// removes records, keeping for each: anon == file == 1024 * pid bytes,
// threadNum == oldThreadNum and swap == shmem. A dump that copied a record
// halfway through a change would break one of them.
TEST_F(ServiceDumpTest, EachSignalWritesItsVariantWithWholeRecordsWhileTheTableChanges) {
  constexpr int32_t MUTATOR_PIDS = 64;
  constexpr int32_t MUTATOR_BASE = OWN_PID_BASE + 100;
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  // Owns no memory: listed by 51 and 53 only.
  KeloTask kernel{};
  kernel.pid = OWN_PID_BASE + 2;
  kernel.ppid = 2;
  kernel.threadNum = kernel.oldThreadNum = 1;
  strcpy(kernel.comm, "dump-kthread");
  tasks->AddKeloTask(kernel.pid, kernel);
  std::atomic<bool> stop{false};
  std::atomic<int64_t> changes{0};
  std::thread mutator([&] {
    for (uint32_t i = 0; !stop.load(std::memory_order_relaxed); ++i) {
      const int32_t pid = MUTATOR_BASE + static_cast<int32_t>(i % MUTATOR_PIDS);
      const int step = static_cast<int>((i / MUTATOR_PIDS) % 3);
      if (step == 0) {
        KeloTask task{};
        task.pid = pid;
        task.ppid = 1;
        task.threadNum = task.oldThreadNum = 1;
        task.mmId = 1000;
        strcpy(task.comm, "mutator");
        task.rssAnonSize = task.rssFileSize = int64_t{1024} * pid;
        task.initTimeStamp = pid;
        tasks->AddKeloTask(pid, task);
      } else if (step == 1) {
        MutexLock lock(tasks->lock());
        if (KeloTask* task = tasks->GetKeloTaskLocked(pid)) {
          task->threadNum += 1;
          task->rssSwapSize += 1024;
          task->oldThreadNum = task->threadNum;
          task->rssShmemSize = task->rssSwapSize;
        }
      } else {
        tasks->DelKeloTask(pid);
      }
      changes.fetch_add(1, std::memory_order_relaxed);
    }
  });

  int mutatorRows = 0;
  for (int dumpIndex = 0; dumpIndex < 24; ++dumpIndex) {
    const int signal = 51 + dumpIndex % 4;
    SCOPED_TRACE(signal);
    const int64_t changesBefore = changes.load();
    const Dump dump = RequestDump(signal);
    ASSERT_TRUE(dump.parsed) << dump.text;
    const bool allTasks = signal == 51 || signal == 53;
    const bool full = signal <= 52;
    EXPECT_EQ(dump.table.full, full);
    if (allTasks) {
      EXPECT_EQ(dump.table.count, dump.table.rows.size());
      EXPECT_NE(dump.text.find(RowText(kernel, full ? KeloTaskDumpColumns::FULL : KeloTaskDumpColumns::SHORT)),
                std::string::npos);
    } else {
      EXPECT_GT(dump.table.count, dump.table.rows.size());
      EXPECT_EQ(dump.Find(kernel.pid), nullptr);
    }
    for (const TaskDumpRow& row : dump.table.rows) {
      if (row.pid < MUTATOR_BASE || row.pid >= MUTATOR_BASE + MUTATOR_PIDS) continue;
      ++mutatorRows;
      ASSERT_EQ(row.comm, "mutator");
      ASSERT_EQ(row.anonKb, row.pid);
      ASSERT_EQ(row.fileKb, row.pid);
      if (full) {
        ASSERT_EQ(row.threads, row.oldThreads);
      }
      ASSERT_EQ(row.shmemKb, row.swapKb);
      ASSERT_EQ(row.initTime, row.pid);
    }
    // Keep the dumps apart in time, so that each sees a different table.
    ASSERT_TRUE(kelo_test::WaitUntil([&] { return changes.load() > changesBefore + 100; }));
  }
  stop = true;
  mutator.join();
  EXPECT_GT(mutatorRows, 0);
  for (int32_t pid = MUTATOR_BASE; pid < MUTATOR_BASE + MUTATOR_PIDS; ++pid) tasks->DelKeloTask(pid);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
