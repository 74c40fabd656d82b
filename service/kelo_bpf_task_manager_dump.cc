// The task dumps: the table as text, sorted by total RSS, written to one file.
#include <android-base/file.h>
#include <android-base/unique_fd.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <utility>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_task_manager.h"
#include "utils/kelo_bpf_log.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr mode_t DUMP_DIR_MODE = 0775;
// As fopen would create it; the process umask applies.
constexpr mode_t DUMP_FILE_MODE = 0666;

constexpr char DUMP_COUNT_FORMAT[] =
    "============ DUMP ALL KELO TASKS INFO (count: %u, time: %" PRId64 ") ============\n";

// Column headers, each in three pieces.
constexpr const char* DUMP_FULL_HEADER[] = {
    "comm               pid         ppid        threadNum   oldThreadNum mmId        rssAnonSize         "
    "rssAnonOldSize      ",
    "rssFileSize         rssFileOldSize      rssShmemSize        rssShmemOldSize     rssSwapSize         "
    "rssSwapOldSize      ",
    "initTimeStamp       \n",
};
constexpr const char* DUMP_SHORT_HEADER[] = {
    "comm               pid         ppid        threadNum   mmId        rssAnonSize         ",
    "rssFileSize         rssShmemSize        rssSwapSize         ",
    "initTimeStamp       \n",
};

// A row after the name: pid, ppid, threadNum, [oldThreadNum,] mmId, the
// kilobyte columns, then initTimeStamp unconverted.
constexpr char DUMP_FULL_ROW_FORMAT[] =
    "   %-12d%-12d%-12d%-13d%-12u%10" PRId64 " KB%17" PRId64 " KB%17" PRId64 " KB%17" PRId64 " KB%17" PRId64
    " KB%17" PRId64 " KB%17" PRId64 " KB%17" PRId64 " KB%20" PRId64 "\n";
constexpr char DUMP_SHORT_ROW_FORMAT[] =
    "   %-12d%-12d%-12d%-12u%10" PRId64 " KB%17" PRId64 " KB%17" PRId64 " KB%17" PRId64 " KB%20" PRId64 "\n";

// Names are padded with blanks to this width; longer ones are written whole.
constexpr size_t DUMP_COMM_WIDTH = 16;
// Rough length of a row, to size the text once.
constexpr size_t DUMP_FULL_ROW_RESERVE = 256;
constexpr size_t DUMP_SHORT_ROW_RESERVE = 160;

// Bytes to kilobytes, truncated toward zero.
int64_t Kb(int64_t bytes) { return bytes / 1024; }

bool HasRss(const KeloTask& task) {
  return task.rssFileSize != 0 || task.rssAnonSize != 0 || task.rssSwapSize != 0 || task.rssShmemSize != 0;
}

void AppendRow(std::string* text, const KeloTask& task, KeloTaskDumpColumns columns) {
  // comm is NUL-terminated within its array; a full array is taken whole.
  const size_t nameLength = strnlen(task.comm, sizeof(task.comm));
  text->append(task.comm, nameLength);
  if (nameLength < DUMP_COMM_WIDTH) text->append(DUMP_COMM_WIDTH - nameLength, ' ');
  if (columns == KeloTaskDumpColumns::FULL) {
    *text += StringPrintf(DUMP_FULL_ROW_FORMAT, task.pid, task.ppid, task.threadNum, task.oldThreadNum, task.mmId,
                          Kb(task.rssAnonSize), Kb(task.rssAnonOldSize), Kb(task.rssFileSize), Kb(task.rssFileOldSize),
                          Kb(task.rssShmemSize), Kb(task.rssShmemOldSize), Kb(task.rssSwapSize),
                          Kb(task.rssSwapOldSize), task.initTimeStamp);
  } else {
    *text += StringPrintf(DUMP_SHORT_ROW_FORMAT, task.pid, task.ppid, task.threadNum, task.mmId, Kb(task.rssAnonSize),
                          Kb(task.rssFileSize), Kb(task.rssShmemSize), Kb(task.rssSwapSize), task.initTimeStamp);
  }
}

}  // namespace

std::string FormatKeloTaskDump(std::vector<KeloTask> tasks, unsigned int count, time_t now, KeloTaskDumpRows rows,
                               KeloTaskDumpColumns columns) {
  if (rows == KeloTaskDumpRows::WITH_RSS) {
    tasks.erase(std::remove_if(tasks.begin(), tasks.end(), [](const KeloTask& task) { return !HasRss(task); }),
                tasks.end());
  }
  std::sort(tasks.begin(), tasks.end(), CompareKeloTask);

  const bool full = columns == KeloTaskDumpColumns::FULL;
  std::string text = StringPrintf(DUMP_COUNT_FORMAT, count, static_cast<int64_t>(now));
  text.reserve(text.size() + 512 + tasks.size() * (full ? DUMP_FULL_ROW_RESERVE : DUMP_SHORT_ROW_RESERVE));
  for (const char* piece : full ? DUMP_FULL_HEADER : DUMP_SHORT_HEADER) text += piece;
  for (const KeloTask& task : tasks) AppendRow(&text, task, columns);
  return text;
}

void KeloTaskManager::DumpKeloTaskInfo() { DumpKeloTasks(KeloTaskDumpRows::ALL, KeloTaskDumpColumns::FULL); }

void KeloTaskManager::DumpKeloTaskIgnoreKernelTaskInfo() {
  DumpKeloTasks(KeloTaskDumpRows::WITH_RSS, KeloTaskDumpColumns::FULL);
}

void KeloTaskManager::DumpKeloTaskInfoNormal() { DumpKeloTasks(KeloTaskDumpRows::ALL, KeloTaskDumpColumns::SHORT); }

void KeloTaskManager::DumpKeloTaskIgnoreKernelTaskInfoNormal() {
  DumpKeloTasks(KeloTaskDumpRows::WITH_RSS, KeloTaskDumpColumns::SHORT);
}

void KeloTaskManager::DumpKeloTasks(KeloTaskDumpRows rows, KeloTaskDumpColumns columns) {
  std::vector<KeloTask> tasks;
  unsigned int count = 0;
  {
    // Count and rows from the same instant.
    MutexLock lock(lock_);
    tasks = CopyKeloTasksLocked();
    count = GetKeloTaskCountLocked();
  }
  const std::string text = FormatKeloTaskDump(std::move(tasks), count, time(nullptr), rows, columns);

  mkdir(KELOTASK_DUMP_PATH, DUMP_DIR_MODE);
  remove(KELOTASK_DUMP_TEMPLATE);
  android::base::unique_fd file(
      TEMP_FAILURE_RETRY(open(KELOTASK_DUMP_TEMPLATE, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, DUMP_FILE_MODE)));
  if (file == -1) {
    KELO_LOGE(LOG_TAG_UTILS, "failed to dump kelo task, error: %s", strerror(errno));
    return;
  }
  android::base::WriteStringToFd(text, file);
}

}  // namespace Bpf
}  // namespace Kelo
