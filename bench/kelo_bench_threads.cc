#include "bench/kelo_bench_threads.h"

#include <android-base/file.h>
#include <dirent.h>
#include <sys/prctl.h>

#include <cstdlib>
#include <cstring>
#include <memory>

namespace kelo_bench {
namespace {

constexpr char TASK_DIR[] = "/proc/self/task";

// The number behind `field` in a procfs status text; 0 when absent.
uint64_t StatusField(const std::string& status, const char* field) {
  const size_t at = status.find(field);
  if (at == std::string::npos) return 0;
  return strtoull(status.c_str() + at + strlen(field), nullptr, 10);
}

}  // namespace

ThreadUsage SumThreadUsage(const std::string& prefix) {
  ThreadUsage usage;
  std::unique_ptr<DIR, int (*)(DIR*)> tasks(opendir(TASK_DIR), closedir);
  if (!tasks) return usage;
  while (dirent* entry = readdir(tasks.get())) {
    if (entry->d_name[0] == '.') continue;
    const std::string task = std::string(TASK_DIR) + "/" + entry->d_name;
    std::string comm, schedstat, status;
    if (!android::base::ReadFileToString(task + "/comm", &comm) || comm.compare(0, prefix.size(), prefix) != 0) {
      continue;
    }
    // A thread that ended between the listing and the reads is left out.
    if (!android::base::ReadFileToString(task + "/schedstat", &schedstat) ||
        !android::base::ReadFileToString(task + "/status", &status)) {
      continue;
    }
    usage.cpuNs += strtoull(schedstat.c_str(), nullptr, 10);
    usage.switches +=
        StatusField(status, "\nvoluntary_ctxt_switches:") + StatusField(status, "\nnonvoluntary_ctxt_switches:");
    ++usage.threads;
  }
  return usage;
}

long ResidentKib() {
  std::string status;
  if (!android::base::ReadFileToString("/proc/self/status", &status)) return -1;
  const size_t at = status.find("\nVmRSS:");
  return at == std::string::npos ? -1 : static_cast<long>(StatusField(status, "\nVmRSS:"));
}

void NameThisThread(const char* name) { prctl(PR_SET_NAME, name); }

}  // namespace kelo_bench
