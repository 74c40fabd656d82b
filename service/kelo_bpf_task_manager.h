// The table of tracked processes. The task event handlers create, update and
// delete records as kernel events arrive; the dump routines copy and sort
// them. Records are owned by value in a pid-ordered map.
//
// The dumps write the table to KELOTASK_DUMP_TEMPLATE as text: a line with
// the number of records and the wall-clock time, a column header, then one
// row per task, largest total RSS first, sizes in kilobytes.
//
// Locking: every operation below takes the manager's lock on its own. A
// pointer returned by a getter points into a table and stays valid only until
// its record is erased, so a caller that reads or updates a record through it
// holds lock() across the lookup and the update and uses the ...Locked
// variants meanwhile:
//
//   KeloTaskManager* tasks = KeloTaskManager::GetInstance();
//   MutexLock lock(tasks->lock());
//   if (KeloTask* task = tasks->GetKeloTaskLocked(pid)) task->threadNum++;
#pragma once

#include <android-base/thread_annotations.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "utils/kelo_bpf_mutex.h"

namespace Kelo {
namespace Bpf {

// Length of a process name including its NUL, as in the kernel.
inline constexpr size_t KELO_TASK_COMM_LEN = 16;

// The kernel's rss_stat member numbers.
enum KeloRssMember : int {
  RSS_MEMBER_FILE = 0,
  RSS_MEMBER_ANON = 1,
  RSS_MEMBER_SWAP = 2,
  RSS_MEMBER_SHMEM = 3,
  RSS_MEMBER_COUNT = 4,
};

// One tracked process. Plain data, copied by value; all sizes in bytes. The
// four current RSS figures and the four last-reported ones are each laid out
// in kernel member order, so that rss_stat events address them by number.
struct KeloTask {
  int32_t pid;
  int32_t ppid;  // 2: a kernel thread
  uint32_t uid;
  int32_t threadNum;
  int32_t oldThreadNum;  // threadNum at the last thread-count report
  char comm[KELO_TASK_COMM_LEN];
  uint32_t mmId;
  int64_t rssFileSize;
  int64_t rssAnonSize;
  int64_t rssSwapSize;
  int64_t rssShmemSize;
  int64_t rssFileOldSize;  // rss...Size at the last RSS report
  int64_t rssAnonOldSize;
  int64_t rssSwapOldSize;
  int64_t rssShmemOldSize;
  int64_t initTimeStamp;    // seconds: process start (scan) or record creation (fork)
  int64_t procRefreshTime;  // service seconds at the last status-file re-read; 0 never
  int64_t createTimeNs;     // kernel time of the event that created the record

  // Current and last-reported figure of rss member 0..3 (KeloRssMember); any
  // other member is a fatal error.
  int64_t& Rss(int member);
  int64_t& RssOld(int member);
};

static_assert(offsetof(KeloTask, pid) == 0);
static_assert(offsetof(KeloTask, ppid) == 4);
static_assert(offsetof(KeloTask, uid) == 8);
static_assert(offsetof(KeloTask, threadNum) == 12);
static_assert(offsetof(KeloTask, oldThreadNum) == 16);
static_assert(offsetof(KeloTask, comm) == 20);
static_assert(offsetof(KeloTask, mmId) == 36);
static_assert(offsetof(KeloTask, rssFileSize) == 40);
static_assert(offsetof(KeloTask, rssAnonSize) == 48);
static_assert(offsetof(KeloTask, rssSwapSize) == 56);
static_assert(offsetof(KeloTask, rssShmemSize) == 64);
static_assert(offsetof(KeloTask, rssFileOldSize) == 72);
static_assert(offsetof(KeloTask, rssAnonOldSize) == 80);
static_assert(offsetof(KeloTask, rssSwapOldSize) == 88);
static_assert(offsetof(KeloTask, rssShmemOldSize) == 96);
static_assert(offsetof(KeloTask, initTimeStamp) == 104);
static_assert(offsetof(KeloTask, procRefreshTime) == 112);
static_assert(offsetof(KeloTask, createTimeNs) == 120);
static_assert(sizeof(KeloTask) == 128);

// True when a's total current RSS exceeds b's (64-bit wrap-around sums, signed
// difference): sorting with it puts the largest process first.
bool CompareKeloTask(const KeloTask& a, const KeloTask& b);

// What a task dump lists: every task or only those owning some memory (kernel
// threads own none), with all columns or without the last-reported ones.
enum class KeloTaskDumpRows { ALL, WITH_RSS };
enum class KeloTaskDumpColumns { FULL, SHORT };

// Text of a task dump of `tasks` (in any order): the header line with `count`
// and `now`, the column header, then the rows that `rows` selects sorted with
// CompareKeloTask. `count` is printed as given, so it may exceed the number
// of rows. Pure; runs on any thread.
std::string FormatKeloTaskDump(std::vector<KeloTask> tasks, unsigned int count, time_t now, KeloTaskDumpRows rows,
                               KeloTaskDumpColumns columns);

class KeloTaskManager {
 public:
  static constexpr char KELOTASK_DUMP_PATH[] = "/data/kelolog/stability/kelobpfframework";
  static constexpr char KELOTASK_DUMP_TEMPLATE[] = "/data/kelolog/stability/kelobpfframework/DUMPTASK_INFO";

  // Made on first use, never destroyed.
  static KeloTaskManager* GetInstance();

  // An empty, independent table; the service uses GetInstance().
  KeloTaskManager() = default;
  KeloTaskManager(const KeloTaskManager&) = delete;
  KeloTaskManager& operator=(const KeloTaskManager&) = delete;

  Mutex& lock() RETURN_CAPABILITY(lock_) { return lock_; }

  // Task table, by pid. Add replaces a present record whole and returns 0.
  // Del sets errno to 0, or to ENOENT and returns -1 when pid is absent.
  int AddKeloTask(int pid, KeloTask task) EXCLUDES(lock_);
  KeloTask* GetKeloTask(int pid) EXCLUDES(lock_);
  int DelKeloTask(int pid) EXCLUDES(lock_);
  unsigned int GetKeloTaskCount() EXCLUDES(lock_);

  // mm index: non-owning pointers into the task table. Erasing a task leaves
  // its entry here dangling; whoever fills the index removes it first.
  // Same results and errno as the task table.
  int AddMmidIndex(unsigned int mmid, KeloTask* task) EXCLUDES(lock_);
  KeloTask* GetKeloTaskByMmid(unsigned int mmid) EXCLUDES(lock_);
  int DelMmidIndex(unsigned int mmid) EXCLUDES(lock_);

  // Staging table of whole records. Del sets errno to 0, or to ENOENT when
  // key is absent, and returns 0 either way.
  int AddRssTempTask(unsigned int key, KeloTask task) EXCLUDES(lock_);
  KeloTask* GetRssTempTask(unsigned int key) EXCLUDES(lock_);
  int DelRssTempTask(unsigned int key) EXCLUDES(lock_);

  // Copy of every task record in pid order, taken atomically.
  std::vector<KeloTask> CopyKeloTasks() EXCLUDES(lock_);

  // Task dumps: each replaces KELOTASK_DUMP_TEMPLATE (creating its directory
  // when missing) with the table as it was at one instant; the count line
  // always gives the number of all records. Info lists every task, the
  // IgnoreKernelTask variants only tasks with some RSS; the Normal variants
  // leave out the last-reported columns. When the file cannot be created the
  // error is logged ("BpfUtils") and nothing is written. The lock is held only
  // for the copy; sorting and writing run without it. They allocate and write
  // a file, so they run on an ordinary thread (the service's dump thread),
  // never in signal context.
  void DumpKeloTaskInfo() EXCLUDES(lock_);
  void DumpKeloTaskIgnoreKernelTaskInfo() EXCLUDES(lock_);
  void DumpKeloTaskInfoNormal() EXCLUDES(lock_);
  void DumpKeloTaskIgnoreKernelTaskInfoNormal() EXCLUDES(lock_);

  // The operations above for a caller that already holds lock().
  int AddKeloTaskLocked(int pid, const KeloTask& task) REQUIRES(lock_);
  KeloTask* GetKeloTaskLocked(int pid) REQUIRES(lock_);
  int DelKeloTaskLocked(int pid) REQUIRES(lock_);
  unsigned int GetKeloTaskCountLocked() REQUIRES(lock_);
  int AddMmidIndexLocked(unsigned int mmid, KeloTask* task) REQUIRES(lock_);
  KeloTask* GetKeloTaskByMmidLocked(unsigned int mmid) REQUIRES(lock_);
  int DelMmidIndexLocked(unsigned int mmid) REQUIRES(lock_);
  int AddRssTempTaskLocked(unsigned int key, const KeloTask& task) REQUIRES(lock_);
  KeloTask* GetRssTempTaskLocked(unsigned int key) REQUIRES(lock_);
  int DelRssTempTaskLocked(unsigned int key) REQUIRES(lock_);
  std::vector<KeloTask> CopyKeloTasksLocked() REQUIRES(lock_);

  // Marks left by a heal of the table against /proc (service loss
  // handling), so that a kernel record about the same process that was still
  // queued while the heal ran is told once, not twice or never. DROPPED: the
  // heal removed the record and told clients of the exit. ADDED: the heal
  // made the record without telling of a creation. A mark holds the kernel
  // time up to which the heal looked at the process; only records stamped no
  // later than that are about the process it saw (a later one is about a
  // new process with the reused pid). One mark per pid, a newer one replaces
  // the older.
  enum class HealMark { DROPPED, ADDED };
  void MarkHealedLocked(int pid, HealMark mark, int64_t seenUntilNs) REQUIRES(lock_);
  // True when pid carries `mark` and tsNs is not later than the mark's
  // time; Take also removes that mark.
  bool HasHealMarkLocked(int pid, HealMark mark, int64_t tsNs) REQUIRES(lock_);
  bool TakeHealMarkLocked(int pid, HealMark mark, int64_t tsNs) REQUIRES(lock_);
  // Drops the marks whose time is before beforeNs; how many are left.
  size_t PruneHealMarksLocked(int64_t beforeNs) REQUIRES(lock_);

 private:
  void DumpKeloTasks(KeloTaskDumpRows rows, KeloTaskDumpColumns columns) EXCLUDES(lock_);

  // Guards the three tables and the records they hold: the event producer
  // threads and the start-up scan update them, the dumps copy them.
  Mutex lock_;
  std::map<int32_t, KeloTask> tasks_ GUARDED_BY(lock_);
  std::map<uint32_t, KeloTask*> mmIndex_ GUARDED_BY(lock_);
  std::map<uint32_t, KeloTask> rssTempTasks_ GUARDED_BY(lock_);
  std::map<int32_t, std::pair<HealMark, int64_t>> healMarks_ GUARDED_BY(lock_);
};

}  // namespace Bpf
}  // namespace Kelo
