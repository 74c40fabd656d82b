#include <android-base/file.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ostream>
#include <string>
#include <vector>

#include "service/kelo_bpf_task_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/sandbox.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr int64_t MIB = 1 << 20;
constexpr char FULL_HEADER[] =
    "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
    "rssAnonOldSize      rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     "
    "rssSwapSize         rssSwapOldSize      initTimeStamp       \n";
constexpr char SHORT_HEADER[] =
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         rssFileSize         "
    "rssShmemSize        rssSwapSize         initTimeStamp       \n";

std::string CountLine(unsigned count, int64_t time) {
  return "============ DUMP ALL KELO TASKS INFO (count: " + std::to_string(count) + ", time: " + std::to_string(time) +
         ") ============\n";
}

// Every figure distinct, so that a swapped column shows.
KeloTask MakeTask(int pid, const char* comm, int64_t unit) {
  KeloTask task{};
  task.pid = pid;
  task.ppid = pid / 2;
  task.threadNum = pid + 1;
  task.oldThreadNum = pid + 2;
  task.mmId = 1000;
  memcpy(task.comm, comm, std::min(strlen(comm), sizeof(task.comm)));
  task.rssFileSize = 1 * unit;
  task.rssAnonSize = 2 * unit;
  task.rssSwapSize = 3 * unit;
  task.rssShmemSize = 4 * unit;
  task.rssFileOldSize = 5 * unit;
  task.rssAnonOldSize = 6 * unit;
  task.rssSwapOldSize = 7 * unit;
  task.rssShmemOldSize = 8 * unit;
  task.initTimeStamp = 1700000000 + pid;
  return task;
}

// A table with, in pid order: a kernel thread (no RSS), a 16-character name
// (no NUL), a 15-character one, negative byte counts on both sides of -1 KB,
// and figures beyond 32 bits. Totals all differ.
std::vector<KeloTask> KnownTable() {
  KeloTask kthreadd = MakeTask(2, "kthreadd", 0);
  kthreadd.ppid = 0;
  KeloTask negative1023 = MakeTask(300, "neg1023", 0);
  negative1023.rssAnonSize = -1023;
  negative1023.rssAnonOldSize = -1024;
  KeloTask negative1024 = MakeTask(301, "neg1024", 0);
  negative1024.rssShmemSize = -1024;
  KeloTask huge = MakeTask(812, "surfaceflinger", 1LL << 40);  // kilobytes beyond 32 bits
  huge.initTimeStamp = 1LL << 40;
  return {MakeTask(1, "init", MIB),
          kthreadd,
          negative1023,
          negative1024,
          MakeTask(500, "com.android.phone", 3 * MIB),
          MakeTask(700, "abcdefghijklmno", 4096),
          huge};
}

// The rows of KnownTable in dump order (largest total first).
std::vector<int> KnownOrder(bool withRssOnly) {
  if (withRssOnly) return {812, 500, 1, 700, 300, 301};
  return {812, 500, 1, 700, 2, 300, 301};
}

// A row built column by column, independently of the printf formats.
std::string Left(const std::string& s, size_t width) { return s + std::string(width - std::min(width, s.size()), ' '); }
std::string Right(int64_t value, size_t width) {
  const std::string s = std::to_string(value);
  return std::string(width - std::min(width, s.size()), ' ') + s;
}
std::string Kb(int64_t bytes, size_t width) { return Right(bytes / 1024, width) + " KB"; }

std::string ExpectedRow(const KeloTask& t, bool full) {
  std::string row = Left(std::string(t.comm, strnlen(t.comm, sizeof(t.comm))), 16) + "   ";
  row += Left(std::to_string(t.pid), 12) + Left(std::to_string(t.ppid), 12) + Left(std::to_string(t.threadNum), 12);
  if (full) row += Left(std::to_string(t.oldThreadNum), 13);
  row += Left(std::to_string(t.mmId), 12) + Kb(t.rssAnonSize, 10);
  if (full) row += Kb(t.rssAnonOldSize, 17);
  row += Kb(t.rssFileSize, 17);
  if (full) row += Kb(t.rssFileOldSize, 17);
  row += Kb(t.rssShmemSize, 17);
  if (full) row += Kb(t.rssShmemOldSize, 17);
  row += Kb(t.rssSwapSize, 17);
  if (full) row += Kb(t.rssSwapOldSize, 17);
  return row + Right(t.initTimeStamp, 20) + "\n";
}

struct Variant {
  const char* name;
  void (KeloTaskManager::*routine)();
  bool withRssOnly;
  bool full;
};
void PrintTo(const Variant& variant, std::ostream* os) { *os << variant.name; }
const Variant VARIANTS[] = {
    {"DumpKeloTaskInfo", &KeloTaskManager::DumpKeloTaskInfo, false, true},
    {"DumpKeloTaskIgnoreKernelTaskInfo", &KeloTaskManager::DumpKeloTaskIgnoreKernelTaskInfo, true, true},
    {"DumpKeloTaskInfoNormal", &KeloTaskManager::DumpKeloTaskInfoNormal, false, false},
    {"DumpKeloTaskIgnoreKernelTaskInfoNormal", &KeloTaskManager::DumpKeloTaskIgnoreKernelTaskInfoNormal, true, false},
};

class TaskDumpTest : public ::testing::TestWithParam<Variant> {
 protected:
  void SetUp() override {
    KELO_SKIP_OUTSIDE_SANDBOX();
    kelo_test::MakeLogDirs();
  }

  // Runs the routine and reads its file back; time is the value of the count
  // line, checked to be the wall clock of the dump.
  std::string Dump(int64_t* time) {
    const int64_t before = ::time(nullptr);
    (tasks_.*GetParam().routine)();
    const int64_t after = ::time(nullptr);
    std::string text;
    EXPECT_TRUE(android::base::ReadFileToString(KeloTaskManager::KELOTASK_DUMP_TEMPLATE, &text));
    *time = -1;
    sscanf(text.c_str(), "============ DUMP ALL KELO TASKS INFO (count: %*u, time: %" SCNd64 ")", time);
    EXPECT_GE(*time, before);
    EXPECT_LE(*time, after);
    return text;
  }

  std::string Expected(unsigned count, int64_t time, const std::vector<KeloTask>& table,
                       const std::vector<int>& order) {
    std::string text = CountLine(count, time) + (GetParam().full ? FULL_HEADER : SHORT_HEADER);
    for (int pid : order) {
      for (const KeloTask& task : table) {
        if (task.pid == pid) text += ExpectedRow(task, GetParam().full);
      }
    }
    return text;
  }

  KeloTaskManager tasks_;
};

// An empty table gives the two header lines; each dump replaces the last.
TEST_P(TaskDumpTest, WritesItsRowsLargestFirstWithTheCountOfAllRecords) {
  // Each dump sets `time`, so it is taken before the expectation reads it.
  int64_t time = 0;
  std::string text = Dump(&time);
  EXPECT_EQ(text, Expected(0, time, {}, {}));

  const std::vector<KeloTask> table = KnownTable();
  for (const KeloTask& task : table) tasks_.AddKeloTask(task.pid, task);
  text = Dump(&time);
  EXPECT_EQ(text, Expected(static_cast<unsigned>(table.size()), time, table, KnownOrder(GetParam().withRssOnly)));

  for (const KeloTask& task : table) tasks_.DelKeloTask(task.pid);
  tasks_.AddKeloTask(9, MakeTask(9, "only", MIB));
  text = Dump(&time);
  EXPECT_EQ(text, Expected(1, time, {MakeTask(9, "only", MIB)}, {9}));
}

TEST_P(TaskDumpTest, FailedOpenIsLoggedAndWritesNothing) {
  // A plain file where the directory belongs.
  ASSERT_TRUE(android::base::WriteStringToFile("x", KeloTaskManager::KELOTASK_DUMP_PATH));
  tasks_.AddKeloTask(1, MakeTask(1, "init", MIB));
  kelo_test::LogCapture log;
  (tasks_.*GetParam().routine)();
  EXPECT_TRUE(log.contains("BpfUtils E"));
  EXPECT_TRUE(log.contains("failed to dump kelo task, error: Not a directory"));
  std::string text;
  ASSERT_TRUE(android::base::ReadFileToString(KeloTaskManager::KELOTASK_DUMP_PATH, &text));
  EXPECT_EQ(text, "x");
}

INSTANTIATE_TEST_SUITE_P(EachRoutine, TaskDumpTest, ::testing::ValuesIn(VARIANTS),
                         [](const ::testing::TestParamInfo<Variant>& info) { return info.param.name; });

}  // namespace
}  // namespace Bpf
}  // namespace Kelo
