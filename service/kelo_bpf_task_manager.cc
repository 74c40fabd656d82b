#include "service/kelo_bpf_task_manager.h"

#include <android-base/logging.h>

#include <cerrno>
#include <iterator>

namespace Kelo {
namespace Bpf {
namespace {

// Member-numbered views of the two RSS arrays of a record.
constexpr int64_t KeloTask::*RSS_FIELDS[RSS_MEMBER_COUNT] = {&KeloTask::rssFileSize, &KeloTask::rssAnonSize,
                                                             &KeloTask::rssSwapSize, &KeloTask::rssShmemSize};
constexpr int64_t KeloTask::*RSS_OLD_FIELDS[RSS_MEMBER_COUNT] = {&KeloTask::rssFileOldSize, &KeloTask::rssAnonOldSize,
                                                                 &KeloTask::rssSwapOldSize, &KeloTask::rssShmemOldSize};

uint64_t TotalRss(const KeloTask& task) {
  return static_cast<uint64_t>(task.rssFileSize) + static_cast<uint64_t>(task.rssAnonSize) +
         static_cast<uint64_t>(task.rssSwapSize) + static_cast<uint64_t>(task.rssShmemSize);
}

// Erase for the two tables whose delete fails on an absent key.
template <typename Map, typename Key>
int EraseOrFail(Map& map, Key key) {
  errno = 0;
  if (map.erase(key) == 0) {
    errno = ENOENT;
    return -1;
  }
  return 0;
}

}  // namespace

int64_t& KeloTask::Rss(int member) {
  CHECK(member >= 0 && member < RSS_MEMBER_COUNT);
  return this->*RSS_FIELDS[member];
}

int64_t& KeloTask::RssOld(int member) {
  CHECK(member >= 0 && member < RSS_MEMBER_COUNT);
  return this->*RSS_OLD_FIELDS[member];
}

bool CompareKeloTask(const KeloTask& a, const KeloTask& b) {
  return static_cast<int64_t>(TotalRss(a) - TotalRss(b)) > 0;
}

KeloTaskManager* KeloTaskManager::GetInstance() {
  static KeloTaskManager* instance = new KeloTaskManager();
  return instance;
}

int KeloTaskManager::AddKeloTaskLocked(int pid, const KeloTask& task) {
  tasks_[pid] = task;
  return 0;
}

KeloTask* KeloTaskManager::GetKeloTaskLocked(int pid) {
  auto it = tasks_.find(pid);
  return it == tasks_.end() ? nullptr : &it->second;
}

int KeloTaskManager::DelKeloTaskLocked(int pid) { return EraseOrFail(tasks_, pid); }

unsigned int KeloTaskManager::GetKeloTaskCountLocked() { return static_cast<unsigned int>(tasks_.size()); }

int KeloTaskManager::AddMmidIndexLocked(unsigned int mmid, KeloTask* task) {
  mmIndex_[mmid] = task;
  return 0;
}

KeloTask* KeloTaskManager::GetKeloTaskByMmidLocked(unsigned int mmid) {
  auto it = mmIndex_.find(mmid);
  return it == mmIndex_.end() ? nullptr : it->second;
}

int KeloTaskManager::DelMmidIndexLocked(unsigned int mmid) { return EraseOrFail(mmIndex_, mmid); }

int KeloTaskManager::AddRssTempTaskLocked(unsigned int key, const KeloTask& task) {
  rssTempTasks_[key] = task;
  return 0;
}

KeloTask* KeloTaskManager::GetRssTempTaskLocked(unsigned int key) {
  auto it = rssTempTasks_.find(key);
  return it == rssTempTasks_.end() ? nullptr : &it->second;
}

// Unlike the other two deletes, an absent key is reported through errno only.
int KeloTaskManager::DelRssTempTaskLocked(unsigned int key) {
  errno = 0;
  if (rssTempTasks_.erase(key) == 0) errno = ENOENT;
  return 0;
}

std::vector<KeloTask> KeloTaskManager::CopyKeloTasksLocked() {
  std::vector<KeloTask> copy;
  copy.reserve(tasks_.size());
  for (const auto& [pid, task] : tasks_) copy.push_back(task);
  return copy;
}

void KeloTaskManager::MarkHealedLocked(int pid, HealMark mark, int64_t seenUntilNs) {
  healMarks_[pid] = {mark, seenUntilNs};
}

bool KeloTaskManager::HasHealMarkLocked(int pid, HealMark mark, int64_t tsNs) {
  auto it = healMarks_.find(pid);
  return it != healMarks_.end() && it->second.first == mark && tsNs <= it->second.second;
}

bool KeloTaskManager::TakeHealMarkLocked(int pid, HealMark mark, int64_t tsNs) {
  if (!HasHealMarkLocked(pid, mark, tsNs)) return false;
  healMarks_.erase(pid);
  return true;
}

size_t KeloTaskManager::PruneHealMarksLocked(int64_t beforeNs) {
  for (auto it = healMarks_.begin(); it != healMarks_.end();) {
    it = it->second.second < beforeNs ? healMarks_.erase(it) : std::next(it);
  }
  return healMarks_.size();
}

int KeloTaskManager::AddKeloTask(int pid, KeloTask task) {
  MutexLock lock(lock_);
  return AddKeloTaskLocked(pid, task);
}

KeloTask* KeloTaskManager::GetKeloTask(int pid) {
  MutexLock lock(lock_);
  return GetKeloTaskLocked(pid);
}

int KeloTaskManager::DelKeloTask(int pid) {
  MutexLock lock(lock_);
  return DelKeloTaskLocked(pid);
}

unsigned int KeloTaskManager::GetKeloTaskCount() {
  MutexLock lock(lock_);
  return GetKeloTaskCountLocked();
}

int KeloTaskManager::AddMmidIndex(unsigned int mmid, KeloTask* task) {
  MutexLock lock(lock_);
  return AddMmidIndexLocked(mmid, task);
}

KeloTask* KeloTaskManager::GetKeloTaskByMmid(unsigned int mmid) {
  MutexLock lock(lock_);
  return GetKeloTaskByMmidLocked(mmid);
}

int KeloTaskManager::DelMmidIndex(unsigned int mmid) {
  MutexLock lock(lock_);
  return DelMmidIndexLocked(mmid);
}

int KeloTaskManager::AddRssTempTask(unsigned int key, KeloTask task) {
  MutexLock lock(lock_);
  return AddRssTempTaskLocked(key, task);
}

KeloTask* KeloTaskManager::GetRssTempTask(unsigned int key) {
  MutexLock lock(lock_);
  return GetRssTempTaskLocked(key);
}

int KeloTaskManager::DelRssTempTask(unsigned int key) {
  MutexLock lock(lock_);
  return DelRssTempTaskLocked(key);
}

std::vector<KeloTask> KeloTaskManager::CopyKeloTasks() {
  MutexLock lock(lock_);
  return CopyKeloTasksLocked();
}

}  // namespace Bpf
}  // namespace Kelo
