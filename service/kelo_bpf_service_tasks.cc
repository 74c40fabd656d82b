// The task event handlers: raw task records (types 0 to 3) update the task
// table, and the changes worth telling are published to clients as derived
// events 50001 to 50004.
//
// Each handler copies its record out of the byte buffer (records carry no
// alignment guarantee), updates the table under the table's lock, and
// publishes its derived event after letting go of the lock, so that a
// publisher held back by a slow subscriber never holds up a dump.
#include <cerrno>
#include <cstring>
#include <string>

#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_task_manager.h"
#include "utils/kelo_bpf_log.h"
#include "utils/kelo_bpf_time.h"

namespace Kelo {
namespace Bpf {
namespace {

// A task's thread count and memory are reported only once its record is this
// old (kernel time), so that a process's start-up is not reported piecemeal.
constexpr int64_t REPORT_AGE_NS = 3000000000;
// Reported thread-count change, in threads.
constexpr int32_t THREAD_REPORT_STEP = 11;
// Reported RSS change: the four members' changes summed, in bytes.
constexpr uint64_t RSS_REPORT_STEP = 16384;
// Shortest interval between two status re-reads of a starting process.
constexpr int64_t STATUS_REFRESH_SECONDS = 3;
// Processes with pids from 2 to this one are system processes whose memory
// is not reported; pid 1 always is.
constexpr int32_t HIGHEST_SYSTEM_PID = 300;
// Parent of every kernel thread.
constexpr int32_t KTHREADD_PID = 2;
// The constant the mm column of a record holds once memory was seen for it.
constexpr uint32_t RSS_MM_ID = 1000;
// Processes whose memory changes are not reported: names starting with these.
constexpr char DUMPSYS_PREFIX[] = "dumpsys";
constexpr char SHELL_PREFIX[] = "sh";

// Copies a record of the kernel's out of its buffer; a shorter record (never
// written by the kernel side) is logged and ignored.
template <typename Record>
bool ReadRecord(const char* data, long long size, Record* record) {
  if (size < static_cast<long long>(sizeof(Record))) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Task raw event too short: %lld bytes, %zu expected", size,
              sizeof(Record));
    return false;
  }
  memcpy(record, data, sizeof(Record));
  return true;
}

template <typename Event>
void Publish(Event* event) {
  EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(event), sizeof(Event));
}

bool StartsWith(const char* comm, const char* prefix) { return strncmp(comm, prefix, strlen(prefix)) == 0; }

// The rule shared by thread creation (+1) and thread exit (-1) of process
// pid at kernel time ts. True, with *event filled, when the change is to be
// reported.
bool CountThread(int32_t pid, uint64_t ts, int32_t change, kelo_thread_count_client_event* event) {
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  MutexLock lock(tasks->lock());
  KeloTask* task = tasks->GetKeloTaskLocked(pid);
  if (task == nullptr) return false;
  // Thread events that are not newer than the record are in it already.
  if (!(task->createTimeNs < static_cast<int64_t>(ts))) return false;
  task->threadNum += change;
  if (static_cast<int64_t>(ts) - task->createTimeNs < REPORT_AGE_NS ||
      SubAbs(task->threadNum, task->oldThreadNum) < THREAD_REPORT_STEP) {
    return false;
  }
  *event = {};
  event->type = KELO_CLIENT_EVENT_THREAD_COUNT;
  event->pid = task->pid;
  event->ppid = task->ppid;
  event->uid = task->uid;
  event->old_thread_num = task->oldThreadNum;
  event->thread_num = task->threadNum;
  task->oldThreadNum = task->threadNum;
  return true;
}

void PublishThreadCount(int32_t pid, uint64_t ts, int32_t change) {
  kelo_thread_count_client_event event;
  if (CountThread(pid, ts, change, &event)) Publish(&event);
}

}  // namespace

int KeloBpfService::handleKeloTaskInitEvent(char* data, long long size) {
  kelo_task_init_event record;
  if (!ReadRecord(data, size, &record)) return 0;
  KeloTask task = {};
  task.pid = record.pid;
  task.ppid = record.ppid;
  task.uid = record.uid;
  task.threadNum = record.thread_num;
  task.oldThreadNum = record.thread_num;
  memcpy(task.comm, record.comm, sizeof(task.comm));
  task.comm[sizeof(task.comm) - 1] = '\0';
  task.mmId = 0;
  task.rssFileSize = task.rssFileOldSize = record.rss_file;
  task.rssAnonSize = task.rssAnonOldSize = record.rss_anon;
  task.rssShmemSize = task.rssShmemOldSize = record.rss_shmem;
  task.rssSwapSize = task.rssSwapOldSize = record.rss_swap;
  task.initTimeStamp = record.init_time;
  task.procRefreshTime = 0;
  task.createTimeNs = static_cast<int64_t>(record.header.ts);
  KeloTaskManager::GetInstance()->AddKeloTask(task.pid, task);
  return 0;
}

int KeloBpfService::handleSched_SchedProcessFork(char* data, long long size) {
  kelo_task_create_event record;
  if (!ReadRecord(data, size, &record)) return 0;
  if (record.kind == KELO_TASK_KIND_THREAD) {
    PublishThreadCount(record.pid, record.header.ts, +1);
    return 0;
  }
  if (record.kind != KELO_TASK_KIND_PROCESS) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Task Create raw event (SCHED__TASK_CREATE) error!");
    return 0;
  }
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  const int64_t ts = static_cast<int64_t>(record.header.ts);
  // A record present already means the creation was told, except when a
  // heal made it while this record was queued.
  {
    MutexLock lock(tasks->lock());
    if (tasks->GetKeloTaskLocked(record.pid) != nullptr &&
        !tasks->HasHealMarkLocked(record.pid, KeloTaskManager::HealMark::ADDED, ts)) {
      return 0;
    }
  }

  kelo_process_create_client_event event = {};
  event.type = KELO_CLIENT_EVENT_PROCESS_CREATE;
  event.pid = record.pid;
  event.ppid = record.ppid;
  event.uid = record.uid;
  memcpy(event.comm, record.comm, sizeof(event.comm));
  if (event.ppid == 0) {
    // The kernel side did not know the parent: ask procfs, which also knows
    // the name the child has by now.
    UpdateProcessExdata exdata = {};
    if (getProcessInfo(record.pid, &exdata) == 0) {
      event.ppid = exdata.ppid;
      memcpy(event.comm, exdata.name, sizeof(event.comm));
    }
  }
  event.comm[sizeof(event.comm) - 1] = '\0';

  KeloTask task = {};
  task.pid = event.pid;
  task.ppid = event.ppid;
  task.uid = event.uid;
  memcpy(task.comm, event.comm, sizeof(task.comm));
  task.threadNum = task.oldThreadNum = 1;
  task.initTimeStamp = static_cast<int64_t>(GetSystemSecondsTime());
  task.createTimeNs = static_cast<int64_t>(record.header.ts);
  {
    MutexLock lock(tasks->lock());
    if (tasks->GetKeloTaskLocked(task.pid) == nullptr) {
      tasks->AddKeloTaskLocked(task.pid, task);
    } else if (!tasks->TakeHealMarkLocked(task.pid, KeloTaskManager::HealMark::ADDED, ts)) {
      // Made by another thread meanwhile: that one told the clients.
      return 0;
    }
    // Else made by a heal, which did not tell of the creation: told now,
    // and the heal's record (read from /proc after this one) stays.
  }
  Publish(&event);
  return 0;
}

int KeloBpfService::handleSched_SchedProcessExit(char* data, long long size) {
  kelo_task_exit_event record;
  if (!ReadRecord(data, size, &record)) return 0;
  if (record.kind == KELO_TASK_KIND_THREAD) {
    PublishThreadCount(record.pid, record.header.ts, -1);
    return 0;
  }
  if (record.kind != KELO_TASK_KIND_PROCESS) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService] Task Exit raw event (SCHED__TASK_EXIT) error!");
    return 0;
  }
  const int savedErrno = errno;
  {
    KeloTaskManager* tasks = KeloTaskManager::GetInstance();
    MutexLock lock(tasks->lock());
    // A heal found the process gone while this record was queued and told
    // of the exit already.
    const bool told = tasks->DelKeloTaskLocked(record.pid) != 0 &&
                      tasks->TakeHealMarkLocked(record.pid, KeloTaskManager::HealMark::DROPPED,
                                                static_cast<int64_t>(record.header.ts));
    errno = savedErrno;
    if (told) return 0;
  }
  // Told whether or not the process was tracked (unless a heal told it).
  kelo_process_exit_client_event event = {};
  event.type = KELO_CLIENT_EVENT_PROCESS_EXIT;
  event.pid = record.pid;
  memcpy(event.comm, record.comm, sizeof(event.comm));
  Publish(&event);
  return 0;
}

int KeloBpfService::handleKmem_RssStat(char* data, long long size) {
  kelo_rss_stat_event record;
  if (!ReadRecord(data, size, &record)) return 0;
  // The kernel sends members 0 to 3 only; anything else is not a member.
  if (record.size < 0 || record.member < 0 || record.member >= RSS_MEMBER_COUNT) return 0;

  kelo_rss_change_client_event event;
  {
    KeloTaskManager* tasks = KeloTaskManager::GetInstance();
    MutexLock lock(tasks->lock());
    KeloTask* task = tasks->GetKeloTaskLocked(record.pid);
    if (task == nullptr) return 0;

    // A process that has just been forked carries a placeholder name until it
    // gets its own; its name and parent are re-read now and then.
    if (startingProcessNames.count(std::string(task->comm, strnlen(task->comm, sizeof(task->comm)))) != 0) {
      const int64_t now = static_cast<int64_t>(GetSystemSecondsTime());
      if (now - task->procRefreshTime >= STATUS_REFRESH_SECONDS) {
        UpdateProcessExdata exdata = {};
        if (getProcessInfo(record.pid, &exdata) == 0) {
          task->ppid = exdata.ppid;
          memcpy(task->comm, exdata.name, sizeof(task->comm));
        }
        task->procRefreshTime = now;
      }
    }

    task->mmId = RSS_MM_ID;
    task->Rss(record.member) = record.size;
    uint64_t delta = 0;
    for (int member = 0; member < RSS_MEMBER_COUNT; ++member) {
      delta += static_cast<uint64_t>(SubAbs(task->Rss(member), task->RssOld(member)));
    }
    const bool reported = (task->pid == 1 || task->pid > HIGHEST_SYSTEM_PID) && task->ppid != KTHREADD_PID &&
                          !StartsWith(task->comm, DUMPSYS_PREFIX) && !StartsWith(task->comm, SHELL_PREFIX) &&
                          static_cast<int64_t>(record.header.ts) - task->createTimeNs >= REPORT_AGE_NS &&
                          delta >= RSS_REPORT_STEP;
    if (!reported) return 0;

    event = {};
    event.type = KELO_CLIENT_EVENT_RSS_CHANGE;
    event.pid = task->pid;
    event.ppid = task->ppid;
    event.uid = task->uid;
    memcpy(event.comm, task->comm, sizeof(event.comm));
    for (int member = 0; member < RSS_MEMBER_COUNT; ++member) {
      event.rss[member] = task->Rss(member);
      event.rss_old[member] = task->RssOld(member);
      task->RssOld(member) = task->Rss(member);
    }
  }
  Publish(&event);
  return 0;
}

}  // namespace Bpf
}  // namespace Kelo
