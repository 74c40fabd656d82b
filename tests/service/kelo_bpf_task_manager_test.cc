#include "service/kelo_bpf_task_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

namespace Kelo {
namespace Bpf {
namespace {

KeloTask MakeTask(int pid, int64_t anon = 0, int64_t file = 0) {
  KeloTask task{};
  task.pid = pid;
  task.ppid = 1;
  task.threadNum = task.oldThreadNum = 1;
  strncpy(task.comm, "proc", sizeof(task.comm) - 1);
  task.rssAnonSize = anon;
  task.rssFileSize = file;
  return task;
}

// Each case works on a table of its own; the singleton is the same kind of
// object.
class TaskTableTest : public ::testing::Test {
 protected:
  KeloTaskManager tasks_;
};

TEST_F(TaskTableTest, AddingAPresentPidReplacesTheWholeRecordAndLookupsCreateNothing) {
  ASSERT_EQ(tasks_.AddKeloTask(10, MakeTask(10, 4096, 8192)), 0);
  KeloTask replacement = MakeTask(10);
  replacement.threadNum = 7;
  replacement.createTimeNs = 1234;
  strncpy(replacement.comm, "renamed", sizeof(replacement.comm) - 1);
  ASSERT_EQ(tasks_.AddKeloTask(10, replacement), 0);
  ASSERT_NE(tasks_.GetKeloTask(10), nullptr);
  EXPECT_EQ(memcmp(tasks_.GetKeloTask(10), &replacement, sizeof(KeloTask)), 0);

  EXPECT_EQ(tasks_.GetKeloTask(2), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskByMmid(2), nullptr);
  EXPECT_EQ(tasks_.GetRssTempTask(2), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskCount(), 1u);
}

TEST_F(TaskTableTest, DeletesReportAbsenceThroughErrnoAndTheStagingTableHoldsCopies) {
  KeloTask original = MakeTask(5, 100);
  tasks_.AddKeloTask(5, original);
  tasks_.AddMmidIndex(50, tasks_.GetKeloTask(5));
  tasks_.AddRssTempTask(500, original);
  tasks_.GetKeloTask(5)->rssAnonSize = 200;
  ASSERT_NE(tasks_.GetRssTempTask(500), nullptr);
  EXPECT_EQ(tasks_.GetRssTempTask(500)->rssAnonSize, 100);

  // {result, errno} of each delete; the staging table reports absence
  // through errno alone.
  const auto del = [](const std::function<int()>& call) {
    errno = EINVAL;
    const int result = call();
    return std::pair{result, errno};
  };
  EXPECT_EQ(del([&] { return tasks_.DelKeloTask(6); }), std::pair(-1, ENOENT));
  EXPECT_EQ(del([&] { return tasks_.DelMmidIndex(51); }), std::pair(-1, ENOENT));
  EXPECT_EQ(del([&] { return tasks_.DelRssTempTask(501); }), std::pair(0, ENOENT));
  EXPECT_EQ(del([&] { return tasks_.DelMmidIndex(50); }), std::pair(0, 0));
  EXPECT_EQ(del([&] { return tasks_.DelKeloTask(5); }), std::pair(0, 0));
  EXPECT_EQ(del([&] { return tasks_.DelRssTempTask(500); }), std::pair(0, 0));

  EXPECT_EQ(tasks_.GetKeloTask(5), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskByMmid(50), nullptr);
  EXPECT_EQ(tasks_.GetRssTempTask(500), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskCount(), 0u);
}

// The mmid index holds pointers into the table.
TEST_F(TaskTableTest, RecordsStayPutWhileTheTableGrowsAndShrinksAndCopiesAreInPidOrder) {
  tasks_.AddKeloTask(1000, MakeTask(1000));
  KeloTask* task = tasks_.GetKeloTask(1000);
  tasks_.AddMmidIndex(7, task);
  for (int pid = 1999; pid > 0; --pid) {
    if (pid != 1000) tasks_.AddKeloTask(pid, MakeTask(pid));
  }
  for (int pid = 1; pid < 2000; pid += 2) tasks_.DelKeloTask(pid);

  ASSERT_EQ(tasks_.GetKeloTask(1000), task);
  task->rssShmemSize = 77;
  EXPECT_EQ(tasks_.GetKeloTaskByMmid(7), task);
  const std::vector<KeloTask> copy = tasks_.CopyKeloTasks();
  ASSERT_EQ(copy.size(), 999u);
  for (size_t i = 0; i < copy.size(); ++i) EXPECT_EQ(copy[i].pid, static_cast<int>(2 * i + 2));
  EXPECT_EQ(copy[499].rssShmemSize, 77);
}

TEST(CompareKeloTaskTest, LargestCurrentTotalFirstAndEqualTotalsNeitherWay) {
  KeloTask small = MakeTask(1, 100);
  small.rssAnonOldSize = 1 << 30;  // last-reported figures do not count
  KeloTask big = MakeTask(2, 50, 60);
  big.rssSwapSize = 10;
  KeloTask mid = MakeTask(3);
  mid.rssShmemSize = 110;
  std::vector<KeloTask> all = {small, mid, big};
  std::sort(all.begin(), all.end(), CompareKeloTask);
  EXPECT_EQ(all[0].pid, 2);
  EXPECT_EQ(all[1].pid, 3);
  EXPECT_EQ(all[2].pid, 1);

  const KeloTask anon = MakeTask(1, 100, 0);
  const KeloTask file = MakeTask(2, 0, 100);
  EXPECT_FALSE(CompareKeloTask(anon, file));
  EXPECT_FALSE(CompareKeloTask(file, anon));
  EXPECT_FALSE(CompareKeloTask(anon, anon));
}

// Two writers add and delete tasks and update records in place under the
// table's lock while a third thread copies the table.
TEST(TaskTableConcurrencyTest, WritersAndACopierShareTheTable) {
  KeloTaskManager tasks;
  constexpr int kRounds = 2000;
  constexpr int kShared = 1;
  tasks.AddKeloTask(kShared, MakeTask(kShared));
  std::atomic<bool> writing{true};
  std::atomic<int> copies{0};

  auto writer = [&tasks, &copies](int firstPid) {
    while (copies.load() == 0) std::this_thread::yield();
    for (int i = 0; i < kRounds; ++i) {
      const int pid = firstPid + i;
      tasks.AddKeloTask(pid, MakeTask(pid, pid));
      {
        MutexLock lock(tasks.lock());
        KeloTask* shared = tasks.GetKeloTaskLocked(kShared);
        shared->threadNum++;
        shared->Rss(RSS_MEMBER_ANON) += 2;
      }
      if (i % 2 == 1) tasks.DelKeloTask(pid);
    }
  };
  bool consistent = true;
  std::thread copier([&] {
    do {
      const std::vector<KeloTask> copy = tasks.CopyKeloTasks();
      ++copies;
      for (size_t i = 0; i < copy.size(); ++i) {
        if (i > 0 && copy[i - 1].pid >= copy[i].pid) consistent = false;
        const KeloTask& task = copy[i];
        if (task.rssAnonSize != (task.pid == kShared ? 2 * (task.threadNum - 1) : task.pid)) consistent = false;
      }
    } while (writing.load());
  });
  std::thread first(writer, 100000);
  std::thread second(writer, 200000);
  first.join();
  second.join();
  writing = false;
  copier.join();

  EXPECT_TRUE(consistent);
  EXPECT_EQ(tasks.GetKeloTaskCount(), 1u + kRounds);
  EXPECT_EQ(tasks.GetKeloTask(kShared)->threadNum, 1 + 2 * kRounds);
}

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
