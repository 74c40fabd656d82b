#include "service/kelo_bpf_service_heal.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstring>
#include <exception>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_service_procfs.h"
#include "service/kelo_bpf_task_manager.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

// Heal marks older than this are dropped: no record waits in a ring that
// long.
constexpr int64_t HEAL_MARK_LIFETIME_NS = 120'000'000'000;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

bool TaskHealer::Mends(int type) {
  return type == KELO_EVENT_RSS_STAT || type == KELO_EVENT_TASK_CREATE || type == KELO_EVENT_TASK_EXIT;
}

void TaskHealer::NoteKernelLoss(int type, Clock::time_point now) {
  if (!Mends(type)) return;
  MutexLock guard(lock);
  if (pending) return;
  pending = true;
  pendingSince = now;
}

TaskHealer::Clock::time_point TaskHealer::dueLocked() const {
  if (!pending) return Clock::time_point::max();
  const Clock::time_point settled = pendingSince + settle;
  if (lastRun == Clock::time_point::min()) return settled;
  return std::max(settled, lastRun + repeat);
}

TaskHealer::Clock::time_point TaskHealer::RunIfDue(Clock::time_point now) {
  {
    MutexLock guard(lock);
    const Clock::time_point due = dueLocked();
    if (now < due) return due;
    // Losses noted from here on need another heal: this one may have looked
    // at /proc before they happened.
    pending = false;
    lastRun = now;
  }
  TaskHealResult result;
  try {
    result = heal();
  } catch (const std::exception& e) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][taskHeal] Task table heal failed: %s", e.what());
  }
  KELO_LOGI(LOG_TAG_SERVICE, "[KeloBpfService][taskHeal] Task table healed: %" PRIu64 " dropped, %" PRIu64 " added",
            result.dropped, result.added);
  MutexLock guard(lock);
  ++counts.runs;
  counts.dropped += result.dropped;
  counts.added += result.added;
  return dueLocked();
}

TaskHealer::Totals TaskHealer::totals() {
  MutexLock guard(lock);
  return counts;
}

std::string TaskHealer::StateLines() {
  const Totals now = totals();
  return StringPrintf("TaskHeal, %" PRIu64 ", %" PRIu64 ", %" PRIu64 ", \r\n", now.runs, now.dropped, now.added);
}

TaskHealResult KeloBpfService::healTaskTable() {
  TaskHealResult result;
  // A record made after the walk began may be of a process the walk missed,
  // so only older ones are dropped.
  const int64_t walkStartNs = static_cast<int64_t>(MonotonicNowNs());
  std::set<int32_t> alive;
  {
    std::unique_ptr<DIR, DirCloser> proc(opendir(PROC_FS_PATH));
    if (!proc) {
      KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][taskHeal] open %s failed: %s", PROC_FS_PATH, strerror(errno));
      return result;
    }
    while (dirent* entry = readdir(proc.get())) {
      std::string name = entry->d_name;
      if (!IsDigits(name)) continue;
      if (const std::optional<int64_t> pid = ParseDecimal(name)) alive.insert(static_cast<int32_t>(*pid));
    }
  }
  // Every process missing from the walk had exited by now.
  const int64_t walkEndNs = static_cast<int64_t>(MonotonicNowNs());

  std::vector<kelo_process_exit_client_event> exits;
  std::vector<int32_t> missing;
  KeloTaskManager* tasks = KeloTaskManager::GetInstance();
  {
    MutexLock guard(tasks->lock());
    tasks->PruneHealMarksLocked(walkEndNs - HEAL_MARK_LIFETIME_NS);
    for (const KeloTask& task : tasks->CopyKeloTasksLocked()) {
      if (alive.count(task.pid) != 0 || task.createTimeNs >= walkStartNs) continue;
      tasks->DelKeloTaskLocked(task.pid);
      tasks->MarkHealedLocked(task.pid, KeloTaskManager::HealMark::DROPPED, walkEndNs);
      kelo_process_exit_client_event event = {};
      event.type = KELO_CLIENT_EVENT_PROCESS_EXIT;
      event.pid = task.pid;
      memcpy(event.comm, task.comm, sizeof(event.comm));
      event.comm[sizeof(event.comm) - 1] = '\0';
      exits.push_back(event);
    }
    for (int32_t pid : alive) {
      if (tasks->GetKeloTaskLocked(pid) == nullptr) missing.push_back(pid);
    }
  }
  errno = 0;
  for (kelo_process_exit_client_event& event : exits) {
    EventManager::GetInstance()->AppendEvent(reinterpret_cast<char*>(&event), sizeof(event));
  }
  result.dropped = exits.size();

  const long ticks = sysconf(_SC_CLK_TCK);
  std::string text;
  for (int32_t pid : missing) {
    kelo_task_init_event record;
    // Gone meanwhile: its exit, if told at all, found nothing to remove.
    if (!ReadTaskInit(std::to_string(pid), pid, ticks, &text, &record)) continue;
    {
      MutexLock guard(tasks->lock());
      // Its creation record came meanwhile.
      if (tasks->GetKeloTaskLocked(pid) != nullptr) continue;
      tasks->MarkHealedLocked(pid, KeloTaskManager::HealMark::ADDED, static_cast<int64_t>(record.header.ts));
    }
    submitTaskInit(record);
    ++result.added;
  }
  errno = 0;
  return result;
}

}  // namespace Bpf
}  // namespace Kelo
