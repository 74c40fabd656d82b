// The start-up process scan and the status re-read of one process.
//
// The scan walks /proc once when the core programs are switched on and feeds
// one task-initialisation record per process through the dispatcher, so the
// task table starts with every process that already runs. It reads two files
// per process (status: name, parent, uid and memory; stat: threads and start
// time), each with one open and one read into a buffer kept for the whole
// walk. Unreadable files and values that are not numbers leave zeros; a
// process that exits while it is visited is submitted with what was read,
// and its exit record, queued in the ring buffer meanwhile, removes it again.
#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "helper/kelo_bpf_helper_strings.h"
#include "service/kelo_bpf_service.h"
#include "service/kelo_bpf_service_procfs.h"
#include "service/kelo_bpf_state.h"
#include "utils/kelo_bpf_log.h"
#include "utils/kelo_bpf_time.h"

namespace Kelo {
namespace Bpf {
namespace {

constexpr int64_t KIB = 1024;

struct DirCloser {
  void operator()(DIR* dir) const { closedir(dir); }
};

// The kernel's event clock (bpf_ktime_get_ns), so that a synthesised record
// and the kernel's records of the same process compare in time.
uint64_t KernelEventTimeNs() {
  struct timespec ts {};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// Fills the status-file fields of a task-initialisation record.
void ParseStatus(std::string_view text, kelo_task_init_event* record) {
  ForEachLine(text, [record](std::string_view line) {
    if (auto name = ValueAfter(line, KeloBpfService::TASK_COMM_PREFIX)) {
      CopyTaskName(*name, record->comm, sizeof(record->comm));
    } else if (auto ppid = ValueAfter(line, KeloBpfService::TASK_PPID_PREFIX)) {
      record->ppid = static_cast<int32_t>(ParseDecimal(*ppid).value_or(0));
    } else if (auto anon = ValueAfter(line, KeloBpfService::TASK_RSS_ANON_PREFIX)) {
      record->rss_anon = ParseDecimal(*anon).value_or(0) * KIB;
    } else if (auto file = ValueAfter(line, KeloBpfService::TASK_RSS_FILE_PREFIX)) {
      record->rss_file = ParseDecimal(*file).value_or(0) * KIB;
    } else if (auto shmem = ValueAfter(line, KeloBpfService::TASK_RSS_SHMEM_PREFIX)) {
      record->rss_shmem = ParseDecimal(*shmem).value_or(0) * KIB;
    } else if (auto swap = ValueAfter(line, KeloBpfService::TASK_VM_SWAP_PREFIX)) {
      record->rss_swap = ParseDecimal(*swap).value_or(0) * KIB;
    } else if (auto uid = ValueAfter(line, KeloBpfService::TASK_PROC_UID_PREFIX)) {
      // The first of the four ids: the real uid.
      record->uid = static_cast<uint32_t>(ParseDecimal(*uid).value_or(0));
    }
    return true;
  });
}

}  // namespace

int KeloBpfService::getProcessInfo(int pid, UpdateProcessExdata* out) {
  const std::string path = StringPrintf(TASK_STATUS_PID_TEMPLATE, pid);
  std::string text;
  if (!ReadProcFile(path.c_str(), &text, ProcFileEnd::SHORT_READ)) {
    KELO_LOGW(LOG_TAG_SERVICE, "[KeloBpfService][GPI] Task not exists, errno info: %s", strerror(errno));
    return -1;
  }
  ForEachLine(text, [out](std::string_view line) {
    if (auto name = ValueAfter(line, TASK_COMM_PREFIX)) {
      CopyTaskName(*name, out->name, sizeof(out->name));
    } else if (auto ppid = ValueAfter(line, TASK_PPID_PREFIX)) {
      // A value that is not a number leaves the caller's.
      if (auto value = ParseDecimal(*ppid)) out->ppid = static_cast<int32_t>(*value);
    }
    return true;
  });
  out->pid = pid;
  return 0;
}

bool KeloBpfService::ReadTaskInit(const std::string& name, int32_t pid, long ticks, std::string* text,
                                  kelo_task_init_event* record) {
  *record = {};
  record->header.type = KELO_EVENT_TASK_INIT;
  record->header.ts = KernelEventTimeNs();
  record->pid = pid;
  const bool found =
      ReadProcFile(StringPrintf(TASK_STATUS_TEMPLATE, name.c_str()).c_str(), text, ProcFileEnd::SHORT_READ);
  if (found) ParseStatus(*text, record);
  if (ReadProcFile(StringPrintf(TASK_STAT_TEMPLATE, name.c_str()).c_str(), text, ProcFileEnd::SHORT_READ)) {
    const ProcStat stat = ParseProcStat(std::string_view(*text).substr(0, text->find('\n')));
    if (stat.complete) {
      record->thread_num = static_cast<int32_t>(stat.threads);
      record->init_time = GetBasetime() + (ticks > 0 ? stat.startTicks / ticks : 0);
    }
  }
  return found;
}

void KeloBpfService::submitTaskInit(const kelo_task_init_event& record) {
  char bytes[sizeof(record)];
  memcpy(bytes, &record, sizeof(record));
  handleBpfRingBuffEvent(this, bytes, sizeof(bytes));
}

int KeloBpfService::initTaskInfo() {
  std::unique_ptr<DIR, DirCloser> proc(opendir(PROC_FS_PATH));
  if (!proc) {
    KELO_LOGE(LOG_TAG_SERVICE, "[KeloBpfService][initTaskInfo] open %s failed: %s", PROC_FS_PATH, strerror(errno));
    return -1;
  }
  const long ticks = sysconf(_SC_CLK_TCK);
  std::string text;  // one buffer for every file of the walk
  int submitted = 0;
  while (dirent* entry = readdir(proc.get())) {
    std::string name = entry->d_name;
    if (!IsDigits(name)) continue;
    const std::optional<int64_t> pid = ParseDecimal(name);
    if (!pid) continue;
    kelo_task_init_event record;
    ReadTaskInit(name, static_cast<int32_t>(*pid), ticks, &text, &record);
    submitTaskInit(record);
    ++submitted;
  }
  // The dispatcher counted each record already; the scan's total is counted
  // on top of that, so every synthesised record shows twice in the counters.
  KeloBpfDataState::GetInstance()->RecordEvent(KELO_EVENT_TASK_INIT, submitted);
  return 0;
}

}  // namespace Bpf
}  // namespace Kelo
