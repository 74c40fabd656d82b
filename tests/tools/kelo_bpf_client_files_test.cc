// The client tool's readers of the service's files, checked against files
// the service's own writers produce, and of /proc/net/unix.
#include <android-base/file.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "service/kelo_bpf_state.h"
#include "service/kelo_bpf_task_manager.h"
#include "tests/support/sandbox.h"
#include "tools/kelo_bpf_client_files.h"

namespace {

using namespace Kelo::Bpf;

KeloTask Task(int pid, const char* comm, size_t commLength, int64_t anonBytes) {
  KeloTask task{};
  task.pid = pid;
  task.ppid = pid - 1;
  task.threadNum = pid % 7 + 1;
  task.oldThreadNum = pid % 5;
  task.mmId = 1000;
  memcpy(task.comm, comm, commLength);
  task.rssAnonSize = anonBytes;
  task.rssFileSize = 3 * 1024;
  task.rssShmemSize = 5 * 1024;
  task.rssSwapSize = (1LL << 40) + 1023;  // beyond 32 bits; truncated to KiB
  task.rssAnonOldSize = 7 * 1024;
  task.initTimeStamp = 1700000000 + pid;
  return task;
}

std::string ReadDump() {
  std::string text;
  EXPECT_TRUE(android::base::ReadFileToString(KeloTaskManager::KELOTASK_DUMP_TEMPLATE, &text));
  return text;
}

// Rows of the service's own dumps, odd names included: blanks inside and at
// the end, 16 characters without a NUL, a newline, digits, an empty name.
TEST(ClientFiles, ReadsEveryRowOfTheServicesFullAndShortDumps) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  kelo_test::MakeLogDirs();
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  struct Name {
    const char* bytes;
    size_t length;
    std::string parsed;
  };
  const Name names[] = {
      {"Web Content", 11, "Web Content"},
      {"0123456789abcdef", 16, "0123456789abcdef"},
      {"two\nlines", 9, "two\nlines"},
      {"42 7", 4, "42 7"},
      {"", 0, ""},
      {"trailing ", 9, "trailing"},
      {"kworker/0:1", 11, "kworker/0:1"},
  };
  int pid = 400;
  for (const Name& name : names) {
    ASSERT_EQ(tasks->AddKeloTask(pid, Task(pid, name.bytes, name.length, pid * 1024 - 1)), 0);
    ++pid;
  }
  KeloTask kernel = Task(pid, "kthreadd", 8, 0);
  kernel.rssFileSize = kernel.rssShmemSize = kernel.rssSwapSize = 0;
  ASSERT_EQ(tasks->AddKeloTask(pid, kernel), 0);

  for (bool full : {true, false}) {
    if (full) {
      tasks->DumpKeloTaskInfo();
    } else {
      tasks->DumpKeloTaskIgnoreKernelTaskInfoNormal();
    }
    TaskDump dump;
    std::string problem;
    ASSERT_TRUE(ParseTaskDump(ReadDump(), &dump, &problem)) << problem;
    EXPECT_EQ(dump.full, full);
    EXPECT_EQ(dump.count, std::size(names) + 1);
    EXPECT_GT(dump.time, 1700000000);
    EXPECT_EQ(dump.skippedLines, 0u);
    ASSERT_EQ(dump.rows.size(), std::size(names) + (full ? 1 : 0));
    for (size_t i = 0; i < std::size(names); ++i) {
      const int expectedPid = 400 + static_cast<int>(i);
      const auto row =
          std::find_if(dump.rows.begin(), dump.rows.end(), [&](const TaskDumpRow& r) { return r.pid == expectedPid; });
      ASSERT_NE(row, dump.rows.end()) << expectedPid;
      EXPECT_EQ(row->comm, names[i].parsed) << expectedPid;
      EXPECT_EQ(row->ppid, expectedPid - 1);
      EXPECT_EQ(row->threads, expectedPid % 7 + 1);
      EXPECT_EQ(row->oldThreads, full ? expectedPid % 5 : 0);
      EXPECT_EQ(row->anonKb, expectedPid - 1);  // pid KiB less a byte
      EXPECT_EQ(row->anonOldKb, full ? 7 : 0);
      EXPECT_EQ(row->fileKb, 3);
      EXPECT_EQ(row->shmemKb, 5);
      EXPECT_EQ(row->swapKb, 1LL << 30);
      EXPECT_EQ(row->initTime, 1700000000 + expectedPid);
    }
  }
}

TEST(ClientFiles, RefusesWhatIsNotADumpAndCountsLinesThatAreNotRows) {
  TaskDump dump;
  std::string problem;
  EXPECT_FALSE(ParseTaskDump("", &dump, &problem));
  EXPECT_FALSE(ParseTaskDump("EventCount, kelo_task_init\n", &dump, &problem));
  const std::string head =
      "============ DUMP ALL KELO TASKS INFO (count: 3, time: 17) ============\n"
      "comm               pid         ppid        threadNum   mmId        rssAnonSize         rssFileSize         "
      "rssShmemSize        rssSwapSize         initTimeStamp       \n";
  ASSERT_TRUE(ParseTaskDump(head +
                                "init                 1           0           1           0                 -1 "
                                "KB                2 KB                3 KB                4 KB                   5\n"
                                "this line is longer than a name and no row\n"
                                "init                 1           0           1           0                 1 "
                                "MB                2 KB                3 KB                4 KB                   5\n",
                            &dump, &problem))
      << problem;
  ASSERT_EQ(dump.rows.size(), 1u);
  EXPECT_EQ(dump.rows[0].anonKb, -1);
  EXPECT_EQ(dump.rows[0].swapKb, 4);
  EXPECT_EQ(dump.skippedLines, 2u);
}

// The service's state file, written by its own counter with a clock the test
// moves: the window, the rows newest first, and lines appended after them.
TEST(ClientFiles, ReadsTheServicesStateFileAndKeepsLinesAfterTheWindow) {
  KELO_SKIP_OUTSIDE_SANDBOX();
  kelo_test::MakeLogDirs();
  static uint64_t now = 100;
  KeloBpfDataState state([] { return now; });
  state.RecordEvent(2, 5);
  state.RecordEvent(8, 1);
  now += 3;
  state.RecordEvent(1, 7);
  now += 1;
  state.RecordEvent(3, 2);
  state.DumpState();
  std::string text;
  ASSERT_TRUE(android::base::ReadFileToString(KeloBpfDataState::KELOTASK_DUMP_TEMPLATE, &text));

  StateFile file;
  std::string problem;
  ASSERT_TRUE(ParseStateFile(text + "KernelLost, kelo_task_init, \r\nnormal, 4, \r\n", &file, &problem)) << problem;
  EXPECT_EQ(file.curIndex, 4);
  EXPECT_EQ(file.firstIndex, 0);
  ASSERT_EQ(file.rows.size(), 5u);
  EXPECT_EQ(file.rows[0][3], 2);  // newest second first
  EXPECT_EQ(file.rows[1][1], 7);
  EXPECT_EQ(file.rows[4][2], 5);
  EXPECT_EQ(file.rows[4][STATE_POLL_KIND], 1);
  EXPECT_EQ(file.extraLines, (std::vector<std::string>{"KernelLost, kelo_task_init, ", "normal, 4, "}));

  const StateSummary all = SummarizeState(file);
  EXPECT_FALSE(all.startTotals) << "no EventsSinceStart lines";
  EXPECT_TRUE(all.sinceStart);
  EXPECT_EQ(all.windowSeconds, 5);
  EXPECT_EQ(all.windowEvents(), 14);
  EXPECT_EQ(all.windowTotals[STATE_POLL_KIND], 1);
  const StateSummary recent = SummarizeState(file, 2);
  EXPECT_EQ(recent.recentSeconds, 2);
  EXPECT_EQ(recent.recentEvents(), 9);
  EXPECT_EQ(recent.recentTotals[2], 0);

  // The service's clock jumps by the boot time once that is known: the
  // window then holds seconds from before the start, and only the age of the
  // service tells whether any of its own seconds have left it. The counts
  // since the start still hold what left the window.
  now += 1700000000;
  state.RecordEvent(2, 1);
  state.SetSupplement([&state] { return state.TotalsLines(); });
  state.DumpState();
  ASSERT_TRUE(android::base::ReadFileToString(KeloBpfDataState::KELOTASK_DUMP_TEMPLATE, &text));
  ASSERT_TRUE(ParseStateFile(text, &file, &problem)) << problem;
  ASSERT_NE(file.firstIndex, 0);
  const StateSummary young = SummarizeState(file, 10, 7);
  ASSERT_TRUE(young.startTotals);
  EXPECT_EQ(*young.startTotals, (std::array<int64_t, STATE_KINDS>{0, 7, 6, 2, 0, 0, 0, 0, 1}));
  EXPECT_EQ(young.startEvents(), 15);
  file.extraLines.back() = "Counted, 1, 2, x, ";
  EXPECT_FALSE(SummarizeState(file).startTotals) << "a damaged line is no total";
  EXPECT_TRUE(young.sinceStart);
  EXPECT_EQ(young.windowSeconds, 7);
  EXPECT_EQ(young.windowEvents(), 1);
  EXPECT_FALSE(SummarizeState(file, 10, 1801).sinceStart);
  EXPECT_FALSE(SummarizeState(file).sinceStart);
}

TEST(ClientFiles, ServiceAgeComesFromTheProcessStartAfterBoot) {
  // starttime (field 22) of 250 ticks at 100 per second, 12.01 s after boot;
  // the name may hold blanks and parentheses.
  const std::string stat = "42 (a) b) S 1 42 42 0 -1 4194560 1 0 0 0 0 0 0 0 20 0 1 0 250 1000 10";
  EXPECT_EQ(ServiceAgeSeconds(stat, "12.01 40.00\n", 100), 10);
  EXPECT_EQ(ServiceAgeSeconds(stat, "2.00 1.00\n", 100), 0);
  EXPECT_FALSE(ServiceAgeSeconds("42 (a) S 1 2", "12.0 1.0", 100));
  EXPECT_FALSE(ServiceAgeSeconds(stat, "", 100));

  // A child, as another process's figures are the kernel's also under
  // user-mode emulation.
  const pid_t child = fork();
  if (child == 0) {
    pause();
    _exit(0);
  }
  std::string childStat, uptime;
  EXPECT_TRUE(android::base::ReadFileToString("/proc/" + std::to_string(child) + "/stat", &childStat));
  EXPECT_TRUE(android::base::ReadFileToString("/proc/uptime", &uptime));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
  const std::optional<int64_t> age = ServiceAgeSeconds(childStat, uptime, sysconf(_SC_CLK_TCK));
  ASSERT_TRUE(age);
  EXPECT_LE(*age, 60) << "the child started moments ago";
}

TEST(ClientFiles, RefusesMalformedStateFilesAndToleratesAShortOne) {
  StateFile file;
  std::string problem;
  const std::string header =
      "EventCount, kelo_task_init, kmem_rss_info, sched_task_create, sched_task_exit, dmabuf_size_info, "
      "cgroup_attach_cpuset_info, fd_update_info, dmabuf_update, PollCount, 1801, 2 \r\n";
  EXPECT_FALSE(ParseStateFile("", &file, &problem));
  EXPECT_FALSE(ParseStateFile("DUMP\n", &file, &problem));
  EXPECT_FALSE(ParseStateFile(header + "1, 1, 0, 0, 0, 0, 0, 0, 0, \r\n", &file, &problem));  // nine numbers
  EXPECT_FALSE(ParseStateFile(header + "1, 1, 0, 0, 0, 0, 0, 0, x, 0, \r\n", &file, &problem));
  ASSERT_TRUE(ParseStateFile(header + "3, 1, 1, 1, 0, 0, 0, 0, 0, 9, \r\n", &file, &problem)) << problem;
  EXPECT_EQ(file.rows.size(), 1u);
  const StateSummary summary = SummarizeState(file);
  EXPECT_FALSE(summary.sinceStart);
  EXPECT_EQ(summary.windowEvents(), 3);
}

// A real listener and connections in this sandbox's network namespace, and
// a table with every kind of line that must not count.
TEST(ClientFiles, CountsTheAcceptedConnectionsOfTheServicesSocketOnly) {
  const std::string fixture =
      "Num       RefCount Protocol Flags    Type St Inode Path\n"
      "0000000000000000: 00000002 00000000 00010000 0001 01 10 @/mnt/kelo\n"     // the listener
      "0000000000000000: 00000003 00000000 00000000 0001 03 11 @/mnt/kelo\n"     // accepted
      "0000000000000000: 00000003 00000000 00000000 0001 03 12 /mnt/kelo\n"      // same name, by path
      "0000000000000000: 00000003 00000000 00000000 0001 03 13\n"                // client side: no name
      "0000000000000000: 00000002 00000000 00000000 0001 02 14 @/mnt/kelo\n"     // not yet accepted
      "0000000000000000: 00000003 00000000 00000000 0001 03 15 @/mnt/kelo2\n"    // another name
      "0000000000000000: 00000003 00000000 00000000 0001 03 16 @/mnt/kelo x\n";  // name with a blank
  EXPECT_EQ(CountConnectedClients(fixture, "/mnt/kelo"), 2);
  EXPECT_EQ(CountConnectedClients(fixture, "/mnt/kelo x"), 1);

  KELO_SKIP_OUTSIDE_SANDBOX();
  const std::string name = "/kelo/client-count-test";
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path + 1, name.data(), name.size());
  const socklen_t length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
  android::base::unique_fd listener(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(listen(listener.get(), 4), 0);
  const auto count = [&] {
    std::string table;
    EXPECT_TRUE(android::base::ReadFileToString("/proc/net/unix", &table));
    return CountConnectedClients(table, name);
  };
  EXPECT_EQ(count(), 0);
  android::base::unique_fd a(socket(AF_UNIX, SOCK_STREAM, 0)), b(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(connect(a.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
  ASSERT_EQ(connect(b.get(), reinterpret_cast<sockaddr*>(&address), length), 0);
  EXPECT_EQ(count(), 0);  // queued, not accepted yet
  android::base::unique_fd acceptedA(accept(listener.get(), nullptr, nullptr));
  android::base::unique_fd acceptedB(accept(listener.get(), nullptr, nullptr));
  EXPECT_EQ(count(), 2);
  acceptedA.reset();
  EXPECT_EQ(count(), 1);
}

}  // namespace
