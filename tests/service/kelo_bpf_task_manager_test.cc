#include "service/kelo_bpf_task_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

namespace Kelo {
namespace Bpf {
namespace {

KeloTask MakeTask(int pid, int64_t anon = 0, int64_t file = 0) {
  KeloTask task{};
  task.pid = pid;
  task.ppid = 1;
  task.uid = 1000;
  task.threadNum = 1;
  task.oldThreadNum = 1;
  strncpy(task.comm, "proc", sizeof(task.comm) - 1);
  task.rssAnonSize = anon;
  task.rssFileSize = file;
  task.initTimeStamp = 1700000000;
  task.createTimeNs = 42;
  return task;
}

bool SameRecord(const KeloTask& a, const KeloTask& b) { return memcmp(&a, &b, sizeof(KeloTask)) == 0; }

// Each case works on a table of its own; the singleton is the same kind of
// object.
class TaskTableTest : public ::testing::Test {
 protected:
  KeloTaskManager tasks_;
};

TEST_F(TaskTableTest, AddingAPresentPidReplacesTheWholeRecord) {
  ASSERT_EQ(tasks_.AddKeloTask(10, MakeTask(10, 4096, 8192)), 0);
  KeloTask replacement = MakeTask(10);
  replacement.threadNum = 7;
  replacement.oldThreadNum = 3;
  replacement.procRefreshTime = 99;
  replacement.createTimeNs = 1234;
  strncpy(replacement.comm, "renamed", sizeof(replacement.comm) - 1);
  ASSERT_EQ(tasks_.AddKeloTask(10, replacement), 0);

  ASSERT_NE(tasks_.GetKeloTask(10), nullptr);
  EXPECT_TRUE(SameRecord(*tasks_.GetKeloTask(10), replacement));
  EXPECT_EQ(tasks_.GetKeloTaskCount(), 1u);
}

TEST_F(TaskTableTest, LookupOfAnAbsentPidCreatesNothing) {
  tasks_.AddKeloTask(1, MakeTask(1));
  EXPECT_EQ(tasks_.GetKeloTask(2), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskCount(), 1u);
  EXPECT_EQ(tasks_.GetKeloTaskByMmid(2), nullptr);
  EXPECT_EQ(tasks_.GetRssTempTask(2), nullptr);
}

TEST_F(TaskTableTest, DeletesReportAbsenceThroughErrno) {
  tasks_.AddKeloTask(5, MakeTask(5));
  tasks_.AddMmidIndex(50, tasks_.GetKeloTask(5));
  tasks_.AddRssTempTask(500, MakeTask(5));

  errno = EINVAL;
  EXPECT_EQ(tasks_.DelKeloTask(6), -1);
  EXPECT_EQ(errno, ENOENT);
  errno = EINVAL;
  EXPECT_EQ(tasks_.DelMmidIndex(51), -1);
  EXPECT_EQ(errno, ENOENT);
  // The staging table reports absence through errno alone.
  errno = EINVAL;
  EXPECT_EQ(tasks_.DelRssTempTask(501), 0);
  EXPECT_EQ(errno, ENOENT);

  errno = EINVAL;
  EXPECT_EQ(tasks_.DelMmidIndex(50), 0);
  EXPECT_EQ(errno, 0);
  errno = EINVAL;
  EXPECT_EQ(tasks_.DelKeloTask(5), 0);
  EXPECT_EQ(errno, 0);
  errno = EINVAL;
  EXPECT_EQ(tasks_.DelRssTempTask(500), 0);
  EXPECT_EQ(errno, 0);

  EXPECT_EQ(tasks_.GetKeloTask(5), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskByMmid(50), nullptr);
  EXPECT_EQ(tasks_.GetRssTempTask(500), nullptr);
  EXPECT_EQ(tasks_.GetKeloTaskCount(), 0u);
}

TEST_F(TaskTableTest, RecordsStayPutWhileTheTableGrowsAndShrinks) {
  tasks_.AddKeloTask(1000, MakeTask(1000));
  KeloTask* task = tasks_.GetKeloTask(1000);
  tasks_.AddMmidIndex(7, task);
  for (int pid = 1; pid < 2000; ++pid) {
    if (pid != 1000) tasks_.AddKeloTask(pid, MakeTask(pid));
  }
  for (int pid = 1; pid < 2000; pid += 2) tasks_.DelKeloTask(pid);

  ASSERT_EQ(tasks_.GetKeloTask(1000), task);
  task->rssShmemSize = 77;
  EXPECT_EQ(tasks_.GetKeloTaskByMmid(7), task);
  EXPECT_EQ(tasks_.CopyKeloTasks()[499].rssShmemSize, 77);
}

TEST_F(TaskTableTest, StagingTableHoldsIndependentCopies) {
  KeloTask original = MakeTask(3, 100);
  tasks_.AddKeloTask(3, original);
  tasks_.AddRssTempTask(3, original);
  tasks_.GetKeloTask(3)->rssAnonSize = 200;
  original.rssAnonSize = 300;

  ASSERT_NE(tasks_.GetRssTempTask(3), nullptr);
  EXPECT_EQ(tasks_.GetRssTempTask(3)->rssAnonSize, 100);
  EXPECT_EQ(tasks_.GetKeloTaskCount(), 1u);
}

TEST_F(TaskTableTest, CopyIsInPidOrder) {
  for (int pid : {30, 2, 17, 1}) tasks_.AddKeloTask(pid, MakeTask(pid));
  std::vector<int> pids;
  for (const KeloTask& task : tasks_.CopyKeloTasks()) pids.push_back(task.pid);
  EXPECT_THAT(pids, ::testing::ElementsAre(1, 2, 17, 30));
}

TEST(KeloTaskTest, RssMembersFollowTheKernelNumbering) {
  KeloTask task{};
  for (int member = 0; member < RSS_MEMBER_COUNT; ++member) {
    task.Rss(member) = 10 + member;
    task.RssOld(member) = 20 + member;
  }
  EXPECT_EQ(task.rssFileSize, 10);
  EXPECT_EQ(task.rssAnonSize, 11);
  EXPECT_EQ(task.rssSwapSize, 12);
  EXPECT_EQ(task.rssShmemSize, 13);
  EXPECT_EQ(task.rssFileOldSize, 20);
  EXPECT_EQ(task.rssAnonOldSize, 21);
  EXPECT_EQ(task.rssSwapOldSize, 22);
  EXPECT_EQ(task.rssShmemOldSize, 23);
}

TEST(KeloTaskDeathTest, RssMemberOutOfRangeIsFatal) {
  KeloTask task{};
  EXPECT_DEATH(task.Rss(4), "Check failed");
  EXPECT_DEATH(task.RssOld(-1), "Check failed");
}

TEST(CompareKeloTaskTest, LargestCurrentTotalFirst) {
  KeloTask small = MakeTask(1, 100);
  KeloTask big = MakeTask(2, 50, 60);
  big.rssSwapSize = 10;
  KeloTask mid = MakeTask(3);
  mid.rssShmemSize = 110;
  // Last-reported figures do not count.
  small.rssAnonOldSize = 1 << 30;

  std::vector<KeloTask> all = {small, mid, big};
  std::sort(all.begin(), all.end(), CompareKeloTask);
  EXPECT_EQ(all[0].pid, 2);
  EXPECT_EQ(all[1].pid, 3);
  EXPECT_EQ(all[2].pid, 1);
  EXPECT_TRUE(CompareKeloTask(big, small));
  EXPECT_FALSE(CompareKeloTask(small, big));
}

TEST(CompareKeloTaskTest, EqualTotalsCompareFalseBothWays) {
  const KeloTask a = MakeTask(1, 100, 0);
  const KeloTask b = MakeTask(2, 0, 100);
  EXPECT_FALSE(CompareKeloTask(a, b));
  EXPECT_FALSE(CompareKeloTask(b, a));
  EXPECT_FALSE(CompareKeloTask(a, a));
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
        if (task.pid == kShared) {
          if (task.rssAnonSize != 2 * (task.threadNum - 1)) consistent = false;
        } else if (task.rssAnonSize != task.pid) {
          consistent = false;
        }
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
